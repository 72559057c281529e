// The 2-byte compression layer of a data frame, between the Xmp header and
// the Qelc packet, and the protocol's one compressor: run-length coding of
// zero bytes.
//
// Coded form, byte by byte:
//   0xE0         escape; the next byte is a literal (a source byte 0xE0..0xEF)
//   0xE1..0xEF   a run of (byte - 0xE0) zeros, 1 to 15
//   other        the byte itself
// Every source byte costs one or two coded bytes, so the coded size is never
// more than twice the input. Both coders make one pass, allocate nothing and
// keep no state between calls. They touch only dst and dst_len, and never
// read or write outside [src, src + src_len) and [dst, dst + capacity).
#pragma once

namespace Network {

class CrpPacket {
public:
    static constexpr unsigned char VERSION = 1;
    static constexpr unsigned char METHOD_PLAIN = 0;
    static constexpr unsigned char METHOD_ZERO = 3;
    static constexpr int HEADER_SIZE = 2;

    struct Header {
        unsigned char Version;  // always VERSION
        unsigned char Method;   // METHOD_PLAIN or METHOD_ZERO
    };

    // Two bytes, copied as they stand.
    static void to_stream(const Header* header, char* out);
    static void from_stream(Header* header, const char* in);

    // dst_len is the capacity on entry and the bytes written on return.
    // Result 0 on success, -2 when dst is too small or, for decode_zero, when
    // the coded input ends in a lone escape. After -2 dst_len keeps its entry
    // value and dst holds undefined bytes.
    static int encode_zero(unsigned char* dst, int& dst_len, const unsigned char* src, int src_len);
    static int decode_zero(unsigned char* dst, int& dst_len, const unsigned char* src, int src_len);
};

}  // namespace Network

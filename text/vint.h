// Variable-length integers in 7-bit groups (a set bit 7 on every byte but
// the last) and the zigzag mapping of signed values. With low_first true the
// lowest group comes first (LEB128); with false the highest (ASN.1 arcs).
// A reader takes get_bytes_num first, then decodes exactly that many bytes.
#pragma once

namespace Base {

class VInt {
public:
    static unsigned int encode_zigzag32(int value);
    static unsigned long encode_zigzag64(long value);
    static int decode_zigzag32(unsigned int value);
    static long decode_zigzag64(unsigned long value);

    // Returns the bytes written: 1 to 5 for 32 bits, 1 to 10 for 64.
    static int encode_vint32(unsigned int value, unsigned char* dst, bool low_first);
    static int encode_vint64(unsigned long value, unsigned char* dst, bool low_first);
    static unsigned int decode_vint32(const unsigned char* src, int length, bool low_first);
    static unsigned long decode_vint64(const unsigned char* src, int length, bool low_first);

    // Length of the value at src, or 0 when its last byte isn't within available.
    static int get_bytes_num(const unsigned char* src, int available);
};

}  // namespace Base

#include "network/crppacket.h"

#include <cstring>

namespace Network {

namespace {

const unsigned char ESCAPE = 0xE0;
const unsigned char RUN_MAX = 0x0F;  // longest run of zeros in one coded byte

inline bool is_reserved(unsigned char c) { return (c & 0xF0) == 0xE0; }

}  // namespace

void CrpPacket::to_stream(const Header* header, char* out)
{
    out[0] = static_cast<char>(header->Version);
    out[1] = static_cast<char>(header->Method);
}

void CrpPacket::from_stream(Header* header, const char* in)
{
    header->Version = static_cast<unsigned char>(in[0]);
    header->Method = static_cast<unsigned char>(in[1]);
}

int CrpPacket::encode_zero(unsigned char* dst, int& dst_len, const unsigned char* src, int src_len)
{
    if (src_len <= 0) {
        dst_len = 0;
        return 0;
    }
    const int capacity = dst_len;
    if (capacity < 1) return -2;
    int in = 0;
    int out = 0;
    for (;;) {
        // Here in < src_len and out < capacity: one output byte is free.
        const unsigned char c = src[in];
        if (c == 0) {
            int run = 1;
            while (run < RUN_MAX && in + run < src_len && src[in + run] == 0) ++run;
            dst[out++] = static_cast<unsigned char>(ESCAPE + run);
            in += run;
        } else if (is_reserved(c)) {
            if (capacity - out < 2) return -2;
            dst[out++] = ESCAPE;
            dst[out++] = c;
            ++in;
        } else {
            dst[out++] = c;
            ++in;
        }
        if (in == src_len) break;
        if (out == capacity) return -2;
    }
    dst_len = out;
    return 0;
}

int CrpPacket::decode_zero(unsigned char* dst, int& dst_len, const unsigned char* src, int src_len)
{
    if (src_len <= 0) {
        dst_len = 0;
        return 0;
    }
    const int capacity = dst_len;
    if (capacity < 1) return -2;
    int in = 0;
    int out = 0;
    for (;;) {
        // Here in < src_len and out < capacity: one output byte is free.
        const unsigned char c = src[in];
        if (c == ESCAPE) {
            // A final lone escape would take its literal from beyond the input.
            if (in + 1 == src_len) return -2;
            dst[out++] = src[in + 1];
            in += 2;
        } else if (is_reserved(c)) {
            const int run = c - ESCAPE;
            if (out + run > capacity) return -2;
            std::memset(dst + out, 0, run);
            out += run;
            ++in;
        } else {
            dst[out++] = c;
            ++in;
        }
        if (in == src_len) break;
        if (out == capacity) return -2;
    }
    dst_len = out;
    return 0;
}

}  // namespace Network

#include "text/vint.h"

namespace Base {

unsigned int VInt::encode_zigzag32(int value) {
    unsigned int doubled = static_cast<unsigned int>(value) << 1;
    return value < 0 ? ~doubled : doubled;
}

unsigned long VInt::encode_zigzag64(long value) {
    unsigned long doubled = static_cast<unsigned long>(value) << 1;
    return value < 0 ? ~doubled : doubled;
}

int VInt::decode_zigzag32(unsigned int value) {
    return static_cast<int>((value >> 1) ^ (0u - (value & 1)));
}

long VInt::decode_zigzag64(unsigned long value) {
    return static_cast<long>((value >> 1) ^ (0ul - (value & 1)));
}

// Swaps the 7-bit payloads end for end; every byte keeps its own top bit.
static void reverse_groups(unsigned char* dst, int n) {
    for (int i = 0, j = n - 1; i < j; ++i, --j) {
        unsigned char a = dst[i] & 0x7F, b = dst[j] & 0x7F;
        dst[i] = static_cast<unsigned char>((dst[i] & 0x80) | b);
        dst[j] = static_cast<unsigned char>((dst[j] & 0x80) | a);
    }
}

int VInt::encode_vint32(unsigned int value, unsigned char* dst, bool low_first) {
    int n = 0;
    while (value >= 0x80) {
        dst[n++] = static_cast<unsigned char>(value | 0x80);
        value >>= 7;
    }
    dst[n++] = static_cast<unsigned char>(value);
    if (!low_first) reverse_groups(dst, n);
    return n;
}

int VInt::encode_vint64(unsigned long value, unsigned char* dst, bool low_first) {
    if (value <= 0xFFFFFFFFul) return encode_vint32(static_cast<unsigned int>(value), dst, low_first);
    // Above 32 bits there are at least five groups: the first four go unrolled.
    dst[0] = static_cast<unsigned char>(value | 0x80);
    dst[1] = static_cast<unsigned char>((value >> 7) | 0x80);
    dst[2] = static_cast<unsigned char>((value >> 14) | 0x80);
    dst[3] = static_cast<unsigned char>((value >> 21) | 0x80);
    value >>= 28;
    int n = 4;
    while (value >= 0x80) {
        dst[n++] = static_cast<unsigned char>(value | 0x80);
        value >>= 7;
    }
    dst[n++] = static_cast<unsigned char>(value);
    if (!low_first) reverse_groups(dst, n);
    return n;
}

unsigned int VInt::decode_vint32(const unsigned char* src, int length, bool low_first) {
    unsigned int value = 0;
    if (low_first) {
        for (int i = 0; i < length && i < 4; ++i) value |= static_cast<unsigned int>(src[i] & 0x7F) << (7 * i);
        if (length >= 5) value |= static_cast<unsigned int>(src[4]) << 28;  // upper bits fall off
    } else {
        for (int i = 0; i < length; ++i) value = (value << 7) | (src[i] & 0x7F);
    }
    return value;
}

unsigned long VInt::decode_vint64(const unsigned char* src, int length, bool low_first) {
    unsigned long value = 0;
    if (low_first) {
        for (int i = 0; i < length && i < 10; ++i) value |= static_cast<unsigned long>(src[i] & 0x7F) << (7 * i);
    } else {
        for (int i = 0; i < length; ++i) value = (value << 7) | (src[i] & 0x7F);
    }
    return value;
}

int VInt::get_bytes_num(const unsigned char* src, int available) {
    for (int i = 0; i < available; ++i)
        if ((src[i] & 0x80) == 0) return i + 1;
    return 0;
}

}  // namespace Base

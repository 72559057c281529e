// Base64 coding; see base64.h.
#include "cipher/base64.h"

namespace Cipher {

const char Base64::ENCODE_ALPHABET[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The inverse of the alphabet; every other byte, "=" included, maps to 0.
#define B64_ROW_ZERO 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0
const unsigned char Base64::DECODE_ALPHABET[256] = {
    B64_ROW_ZERO,
    B64_ROW_ZERO,
    0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  62, 0,  0,  0,  63,  // '+' '/'
    52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 0,  0,  0,  0,  0,  0,   // '0'..'9'
    0,  0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14,  // 'A'..
    15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 0,  0,  0,  0,  0,   // ..'Z'
    0,  26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40,  // 'a'..
    41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 0,  0,  0,  0,  0,   // ..'z'
    B64_ROW_ZERO, B64_ROW_ZERO, B64_ROW_ZERO, B64_ROW_ZERO,
    B64_ROW_ZERO, B64_ROW_ZERO, B64_ROW_ZERO, B64_ROW_ZERO};
#undef B64_ROW_ZERO

bool Base64::encode(void* dst, int& length, const void* src, int src_length)
{
    if (src_length < 0)
        src_length = 0;
    length = (src_length + 2) / 3 * 4;
    if (!dst)
        return true;
    const unsigned char* in = static_cast<const unsigned char*>(src);
    char* out = static_cast<char*>(dst);
    int i = 0, k = 0;
    for (; i + 3 <= src_length; i += 3) {
        unsigned v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        out[k++] = ENCODE_ALPHABET[v >> 18];
        out[k++] = ENCODE_ALPHABET[(v >> 12) & 63];
        out[k++] = ENCODE_ALPHABET[(v >> 6) & 63];
        out[k++] = ENCODE_ALPHABET[v & 63];
    }
    int rest = src_length - i;
    if (rest) {
        unsigned v = in[i] << 16;
        if (rest == 2)
            v |= in[i + 1] << 8;
        out[k++] = ENCODE_ALPHABET[v >> 18];
        out[k++] = ENCODE_ALPHABET[(v >> 12) & 63];
        out[k++] = rest == 2 ? ENCODE_ALPHABET[(v >> 6) & 63] : '=';
        out[k++] = '=';
    }
    return true;
}

bool Base64::decode(void* dst, int& length, const void* src, int src_length)
{
    const unsigned char* in = static_cast<const unsigned char*>(src);
    if (src_length < 0)
        src_length = 0;
    int pads = 0;
    while (pads < 2 && pads < src_length && in[src_length - 1 - pads] == '=')
        pads++;
    int total = (int)((long long)src_length * 6 / 8) - pads;
    if (total < 0)
        total = 0;
    length = total;
    if (!dst)
        return true;
    unsigned char* out = static_cast<unsigned char*>(dst);
    int k = 0;
    for (int i = 0; i < src_length && k < total; i += 4) {
        unsigned v = 0;
        for (int j = 0; j < 4; j++)
            v = (v << 6) | (i + j < src_length ? DECODE_ALPHABET[in[i + j]] : 0);
        for (int shift = 16; shift >= 0 && k < total; shift -= 8)
            out[k++] = (unsigned char)(v >> shift);
    }
    return true;
}

}  // namespace Cipher

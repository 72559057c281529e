// Loads and stores of 32- and 64-bit words at any byte address, in a fixed
// byte order, and rotations. The ciphers and hashes state their formats in
// bytes; these turn them into native words without alignment demands.
#pragma once

#include <cstdint>
#include <cstring>

namespace Cipher {

inline uint32_t rotl32(uint32_t x, int n) {
    return (x << (n & 31)) | (x >> ((32 - n) & 31));
}

inline uint32_t load_be32(const unsigned char* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return __builtin_bswap32(v);
}

inline void store_be32(unsigned char* p, uint32_t v) {
    v = __builtin_bswap32(v);
    memcpy(p, &v, 4);
}

inline uint32_t load_le32(const unsigned char* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

inline void store_le32(unsigned char* p, uint32_t v) {
    memcpy(p, &v, 4);
}

inline uint64_t load_be64(const unsigned char* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

inline void store_be64(unsigned char* p, uint64_t v) {
    v = __builtin_bswap64(v);
    memcpy(p, &v, 8);
}

inline void store_le64(unsigned char* p, uint64_t v) {
    memcpy(p, &v, 8);
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the word helpers assume a little-endian host");

}  // namespace Cipher

#include "cipher/md5.h"

#include "cipher/hashcore.h"

#include <type_traits>

namespace Cipher {

static_assert(std::is_standard_layout<Md5>::value && std::is_trivially_copyable<Md5>::value,
              "the digest must stand at the object's start and the object copy as bytes");

namespace {

// floor(abs(sin(i + 1)) * 2^32)
const uint32_t K[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

#define MD5_STEP(f, a, b, c, d, x, k, s) \
    a += f(b, c, d) + (x) + (k);         \
    a = Base::rotl32(a, s) + b;

#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))

void compress(uint32_t* state, const unsigned char* p, size_t count) {
    for (; count; --count, p += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = Base::get_le32(p + 4 * i);
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
        for (int i = 0; i < 16; i += 4) {
            MD5_STEP(MD5_F, a, b, c, d, x[i], K[i], 7)
            MD5_STEP(MD5_F, d, a, b, c, x[i + 1], K[i + 1], 12)
            MD5_STEP(MD5_F, c, d, a, b, x[i + 2], K[i + 2], 17)
            MD5_STEP(MD5_F, b, c, d, a, x[i + 3], K[i + 3], 22)
        }
        for (int i = 0; i < 16; i += 4) {
            MD5_STEP(MD5_G, a, b, c, d, x[(5 * i + 1) & 15], K[16 + i], 5)
            MD5_STEP(MD5_G, d, a, b, c, x[(5 * i + 6) & 15], K[17 + i], 9)
            MD5_STEP(MD5_G, c, d, a, b, x[(5 * i + 11) & 15], K[18 + i], 14)
            MD5_STEP(MD5_G, b, c, d, a, x[(5 * i + 16) & 15], K[19 + i], 20)
        }
        for (int i = 0; i < 16; i += 4) {
            MD5_STEP(MD5_H, a, b, c, d, x[(3 * i + 5) & 15], K[32 + i], 4)
            MD5_STEP(MD5_H, d, a, b, c, x[(3 * i + 8) & 15], K[33 + i], 11)
            MD5_STEP(MD5_H, c, d, a, b, x[(3 * i + 11) & 15], K[34 + i], 16)
            MD5_STEP(MD5_H, b, c, d, a, x[(3 * i + 14) & 15], K[35 + i], 23)
        }
        for (int i = 0; i < 16; i += 4) {
            MD5_STEP(MD5_I, a, b, c, d, x[(7 * i) & 15], K[48 + i], 6)
            MD5_STEP(MD5_I, d, a, b, c, x[(7 * i + 7) & 15], K[49 + i], 10)
            MD5_STEP(MD5_I, c, d, a, b, x[(7 * i + 14) & 15], K[50 + i], 15)
            MD5_STEP(MD5_I, b, c, d, a, x[(7 * i + 21) & 15], K[51 + i], 21)
        }
        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
    }
}

}  // namespace

void Md5::reset() {
    state[0] = 0x67452301;
    state[1] = 0xefcdab89;
    state[2] = 0x98badcfe;
    state[3] = 0x10325476;
    count = 0;
}

void Md5::update(const void* data, int length) {
    hash_update(compress, state, count, buffer, data, length);
}

void Md5::final() {
    hash_finish(compress, state, count, buffer, false);
    hash_store_le(state, 4);
}

}  // namespace Cipher

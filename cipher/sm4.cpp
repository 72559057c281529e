#include "cipher/sm4.h"

#include "cipher/blockmode.h"
#include "cipher/byteorder.h"

namespace Cipher {

namespace {

constexpr uint8_t SBOX[256] = {
    0xd6, 0x90, 0xe9, 0xfe, 0xcc, 0xe1, 0x3d, 0xb7, 0x16, 0xb6, 0x14, 0xc2, 0x28, 0xfb, 0x2c, 0x05,
    0x2b, 0x67, 0x9a, 0x76, 0x2a, 0xbe, 0x04, 0xc3, 0xaa, 0x44, 0x13, 0x26, 0x49, 0x86, 0x06, 0x99,
    0x9c, 0x42, 0x50, 0xf4, 0x91, 0xef, 0x98, 0x7a, 0x33, 0x54, 0x0b, 0x43, 0xed, 0xcf, 0xac, 0x62,
    0xe4, 0xb3, 0x1c, 0xa9, 0xc9, 0x08, 0xe8, 0x95, 0x80, 0xdf, 0x94, 0xfa, 0x75, 0x8f, 0x3f, 0xa6,
    0x47, 0x07, 0xa7, 0xfc, 0xf3, 0x73, 0x17, 0xba, 0x83, 0x59, 0x3c, 0x19, 0xe6, 0x85, 0x4f, 0xa8,
    0x68, 0x6b, 0x81, 0xb2, 0x71, 0x64, 0xda, 0x8b, 0xf8, 0xeb, 0x0f, 0x4b, 0x70, 0x56, 0x9d, 0x35,
    0x1e, 0x24, 0x0e, 0x5e, 0x63, 0x58, 0xd1, 0xa2, 0x25, 0x22, 0x7c, 0x3b, 0x01, 0x21, 0x78, 0x87,
    0xd4, 0x00, 0x46, 0x57, 0x9f, 0xd3, 0x27, 0x52, 0x4c, 0x36, 0x02, 0xe7, 0xa0, 0xc4, 0xc8, 0x9e,
    0xea, 0xbf, 0x8a, 0xd2, 0x40, 0xc7, 0x38, 0xb5, 0xa3, 0xf7, 0xf2, 0xce, 0xf9, 0x61, 0x15, 0xa1,
    0xe0, 0xae, 0x5d, 0xa4, 0x9b, 0x34, 0x1a, 0x55, 0xad, 0x93, 0x32, 0x30, 0xf5, 0x8c, 0xb1, 0xe3,
    0x1d, 0xf6, 0xe2, 0x2e, 0x82, 0x66, 0xca, 0x60, 0xc0, 0x29, 0x23, 0xab, 0x0d, 0x53, 0x4e, 0x6f,
    0xd5, 0xdb, 0x37, 0x45, 0xde, 0xfd, 0x8e, 0x2f, 0x03, 0xff, 0x6a, 0x72, 0x6d, 0x6c, 0x5b, 0x51,
    0x8d, 0x1b, 0xaf, 0x92, 0xbb, 0xdd, 0xbc, 0x7f, 0x11, 0xd9, 0x5c, 0x41, 0x1f, 0x10, 0x5a, 0xd8,
    0x0a, 0xc1, 0x31, 0x88, 0xa5, 0xcd, 0x7b, 0xbd, 0x2d, 0x74, 0xd0, 0x12, 0xb8, 0xe5, 0xb4, 0xb0,
    0x89, 0x69, 0x97, 0x4a, 0x0c, 0x96, 0x77, 0x7e, 0x65, 0xb9, 0xf1, 0x09, 0xc5, 0x6e, 0xc6, 0x84,
    0x18, 0xf0, 0x7d, 0xec, 0x3a, 0xdc, 0x4d, 0x20, 0x79, 0xee, 0x5f, 0x3e, 0xd7, 0xcb, 0x39, 0x48,
};

constexpr bool sbox_is_permutation() {
    bool seen[256] = {};
    for (int i = 0; i < 256; ++i) {
        if (seen[SBOX[i]])
            return false;
        seen[SBOX[i]] = true;
    }
    return true;
}
static_assert(sbox_is_permutation(), "an SM4 S-box entry is mistyped");

constexpr uint32_t FK[4] = {0xa3b1bac6, 0x56aa3350, 0x677d9197, 0xb27022dc};

constexpr uint32_t rotl(uint32_t x, int n) { return n ? (x << n) | (x >> (32 - n)) : x; }

// The round function T = L(tau(x)) as four byte-indexed tables: t[k][b] is
// L applied to S(b) placed in byte k (k = 0 the most significant).
struct Sm4Tables {
    uint32_t t[4][256];
    uint32_t ck[32];

    constexpr Sm4Tables() : t(), ck() {
        for (int b = 0; b < 256; ++b) {
            uint32_t s = SBOX[b];
            uint32_t l = s ^ rotl(s, 2) ^ rotl(s, 10) ^ rotl(s, 18) ^ rotl(s, 24);
            for (int k = 0; k < 4; ++k)
                t[k][b] = rotl(l, 24 - 8 * k);
        }
        for (int i = 0; i < 32; ++i) {
            uint32_t w = 0;
            for (int j = 0; j < 4; ++j)
                w = (w << 8) | uint32_t(((4 * i + j) * 7) & 0xff);
            ck[i] = w;
        }
    }
};

constexpr Sm4Tables g_sm4;

inline uint32_t round_t(uint32_t x) {
    return g_sm4.t[0][x >> 24] ^ g_sm4.t[1][(x >> 16) & 0xff] ^ g_sm4.t[2][(x >> 8) & 0xff] ^
           g_sm4.t[3][x & 0xff];
}

// The key schedule's T': tau followed by L'(b) = b ^ (b <<< 13) ^ (b <<< 23).
inline uint32_t key_t(uint32_t x) {
    uint32_t b = uint32_t(SBOX[x >> 24]) << 24 | uint32_t(SBOX[(x >> 16) & 0xff]) << 16 |
                 uint32_t(SBOX[(x >> 8) & 0xff]) << 8 | SBOX[x & 0xff];
    return b ^ rotl32(b, 13) ^ rotl32(b, 23);
}

template <bool REVERSE>
inline void crypt(const uint32_t* rk, unsigned char* dst, const unsigned char* src) {
    uint32_t x0 = load_be32(src), x1 = load_be32(src + 4);
    uint32_t x2 = load_be32(src + 8), x3 = load_be32(src + 12);
    for (int i = 0; i < 32; i += 4) {
        x0 ^= round_t(x1 ^ x2 ^ x3 ^ rk[REVERSE ? 31 - i : i]);
        x1 ^= round_t(x2 ^ x3 ^ x0 ^ rk[REVERSE ? 30 - i : i + 1]);
        x2 ^= round_t(x3 ^ x0 ^ x1 ^ rk[REVERSE ? 29 - i : i + 2]);
        x3 ^= round_t(x0 ^ x1 ^ x2 ^ rk[REVERSE ? 28 - i : i + 3]);
    }
    store_be32(dst, x3);
    store_be32(dst + 4, x2);
    store_be32(dst + 8, x1);
    store_be32(dst + 12, x0);
}

}  // namespace

Sm4::Sm4(const unsigned char* key) : chain(), pad() {
    uint32_t k[4];
    for (int i = 0; i < 4; ++i)
        k[i] = (key ? load_be32(key + 4 * i) : 0) ^ FK[i];
    for (int i = 0; i < 32; ++i) {
        uint32_t next = k[0] ^ key_t(k[1] ^ k[2] ^ k[3] ^ g_sm4.ck[i]);
        round_keys[i] = next;
        k[0] = k[1];
        k[1] = k[2];
        k[2] = k[3];
        k[3] = next;
    }
}

Sm4::~Sm4() {}

void Sm4::encode(unsigned char* dst, const unsigned char* src) {
    crypt<false>(round_keys, dst, src);
}

// Decryption is the same rounds with the keys in reverse order.
void Sm4::decode(unsigned char* dst, const unsigned char* src) {
    crypt<true>(round_keys, dst, src);
}

void Sm4::encode_func(void* self, unsigned char* dst, const unsigned char* src) {
    static_cast<Sm4*>(self)->encode(dst, src);
}

bool Sm4::encode_ecb(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     bool padding) {
    return BlockMode::encode_ecb<16>(*this, pad, dst, length, src, src_length, padding);
}

bool Sm4::decode_ecb(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     bool padding) {
    return BlockMode::decode_ecb<16>(*this, dst, length, src, src_length, padding);
}

bool Sm4::encode_cbc(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     bool padding, const unsigned char* iv, int iv_size) {
    return BlockMode::encode_cbc<16>(*this, chain, pad, dst, length, src, src_length, padding, iv,
                                     iv_size);
}

bool Sm4::decode_cbc(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     bool padding, const unsigned char* iv, int iv_size) {
    return BlockMode::decode_cbc<16>(*this, chain, pad, dst, length, src, src_length, padding, iv,
                                     iv_size);
}

bool Sm4::encode_ctr(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     const unsigned char* iv, int iv_size) {
    return BlockMode::process_ctr<16>(*this, chain, pad, dst, length, src, src_length, iv, iv_size);
}

bool Sm4::decode_ctr(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                     const unsigned char* iv, int iv_size) {
    return BlockMode::process_ctr<16>(*this, chain, pad, dst, length, src, src_length, iv, iv_size);
}

}  // namespace Cipher

#include "cipher/des.h"

#include "cipher/blockmode.h"
#include "base/byteorder.h"

namespace Cipher {

namespace {

// The tables of FIPS 46-3. Bits are numbered from 1 at the most significant.
constexpr uint8_t IP[64] = {
    58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
    62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
    57, 49, 41, 33, 25, 17, 9,  1, 59, 51, 43, 35, 27, 19, 11, 3,
    61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7,
};

constexpr uint8_t P[32] = {
    16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
    2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25,
};

constexpr uint8_t PC1[56] = {
    57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
    10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
    63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
    14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4,
};

constexpr uint8_t PC2[48] = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10,
    23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,
    44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32,
};

constexpr uint8_t SHIFTS[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

constexpr uint8_t S[8][4][16] = {
    {{14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7},
     {0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8},
     {4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0},
     {15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13}},
    {{15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10},
     {3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5},
     {0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15},
     {13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9}},
    {{10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8},
     {13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1},
     {13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7},
     {1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12}},
    {{7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15},
     {13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9},
     {10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4},
     {3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14}},
    {{2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9},
     {14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6},
     {4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14},
     {11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3}},
    {{12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11},
     {10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8},
     {9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6},
     {4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13}},
    {{4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1},
     {13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6},
     {1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2},
     {6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12}},
    {{13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7},
     {1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2},
     {7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8},
     {2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11}},
};

constexpr bool s_boxes_are_permutations() {
    for (int b = 0; b < 8; ++b)
        for (int r = 0; r < 4; ++r) {
            int seen = 0;
            for (int c = 0; c < 16; ++c)
                seen |= 1 << S[b][r][c];
            if (seen != 0xffff)
                return false;
        }
    return true;
}
static_assert(s_boxes_are_permutations(), "a DES S-box row is mistyped");

// Tables derived at compile time: the initial and final permutations as
// eight byte-indexed tables each, and the S-boxes fused with P, so that a
// round is eight lookups keyed by a 6-bit group of E(R) xor K.
struct DesTables {
    uint64_t ip[8][256];
    uint64_t fp[8][256];
    uint32_t sp[8][64];

    constexpr DesTables() : ip(), fp(), sp() {
        uint8_t inverse[64] = {};
        for (int i = 0; i < 64; ++i)
            inverse[IP[i] - 1] = uint8_t(i + 1);
        for (int byte = 0; byte < 8; ++byte)
            for (int v = 0; v < 256; ++v) {
                uint64_t in = uint64_t(v) << (56 - 8 * byte);
                uint64_t a = 0, b = 0;
                for (int i = 0; i < 64; ++i) {
                    a |= ((in >> (64 - IP[i])) & 1) << (63 - i);
                    b |= ((in >> (64 - inverse[i])) & 1) << (63 - i);
                }
                ip[byte][v] = a;
                fp[byte][v] = b;
            }
        for (int box = 0; box < 8; ++box)
            for (int x = 0; x < 64; ++x) {
                int row = ((x >> 4) & 2) | (x & 1);
                int col = (x >> 1) & 15;
                uint32_t s = uint32_t(S[box][row][col]) << (28 - 4 * box);
                uint32_t out = 0;
                for (int i = 0; i < 32; ++i)
                    out |= ((s >> (32 - P[i])) & 1) << (31 - i);
                sp[box][x] = out;
            }
    }
};

constexpr DesTables g_des;

inline uint64_t permute(const uint64_t (*table)[256], uint64_t x) {
    uint64_t r = 0;
    for (int i = 0; i < 8; ++i)
        r |= table[i][(x >> (56 - 8 * i)) & 0xff];
    return r;
}

// Group i of E(R) is bits 4i .. 4i+5 of R, counted from 1 at the top and
// wrapping around, so a rotation brings each group to the low six bits.
inline uint32_t feistel(uint32_t r, const uint8_t* k) {
    uint32_t f = 0;
    for (int i = 0; i < 8; ++i) {
        uint32_t group = Base::rotl32(r, (4 * i + 5) & 31) & 0x3f;
        f |= g_des.sp[i][group ^ k[i]];
    }
    return f;
}

const unsigned char PLACEHOLDER_KEY[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};

}  // namespace

Des::Des(const unsigned char* key) {
    uint64_t k = key ? Base::get_be64(key) : 0;
    uint32_t c = 0, d = 0;  // the two 28-bit halves, in the low bits
    for (int i = 0; i < 28; ++i) {
        c |= uint32_t((k >> (64 - PC1[i])) & 1) << (27 - i);
        d |= uint32_t((k >> (64 - PC1[28 + i])) & 1) << (27 - i);
    }
    for (int round = 0; round < 16; ++round) {
        for (int s = 0; s < SHIFTS[round]; ++s) {
            c = ((c << 1) | (c >> 27)) & 0x0fffffff;
            d = ((d << 1) | (d >> 27)) & 0x0fffffff;
        }
        uint64_t cd = (uint64_t(c) << 28) | d;  // 56 bits, bit 1 at 2^55
        for (int g = 0; g < 8; ++g) {
            uint8_t v = 0;
            for (int j = 0; j < 6; ++j)
                v = uint8_t((v << 1) | ((cd >> (56 - PC2[6 * g + j])) & 1));
            subkeys[round][g] = v;
        }
    }
}

Des::~Des() {}

unsigned long Des::process(unsigned long block, char mode) {
    if (mode != 'e' && mode != 'd')
        return 0;
    uint64_t x = permute(g_des.ip, block);
    uint32_t l = uint32_t(x >> 32), r = uint32_t(x);
    for (int i = 0; i < 16; ++i) {
        uint32_t t = l ^ feistel(r, subkeys[mode == 'e' ? i : 15 - i]);
        l = r;
        r = t;
    }
    return permute(g_des.fp, (uint64_t(r) << 32) | l);
}

void Des::encode(unsigned char* dst, const unsigned char* src) {
    Base::put_be64(dst, process(Base::get_be64(src), 'e'));
}

void Des::decode(unsigned char* dst, const unsigned char* src) {
    Base::put_be64(dst, process(Base::get_be64(src), 'd'));
}


// The base part's own key is never used: process is overridden.
TripleDes::TripleDes(const unsigned char* k1, const unsigned char* k2, const unsigned char* k3)
    : Des(PLACEHOLDER_KEY), des1(k1), des2(k2), des3(k3) {}

TripleDes::~TripleDes() {}

unsigned long TripleDes::process(unsigned long block, char mode) {
    if (mode == 'e')
        return des3.process(des2.process(des1.process(block, 'e'), 'd'), 'e');
    if (mode == 'd')
        return des1.process(des2.process(des3.process(block, 'd'), 'e'), 'd');
    return 0;
}

}  // namespace Cipher

#include "cipher/sm3.h"

#include "cipher/hashcore.h"

#include <type_traits>

namespace Cipher {

static_assert(std::is_standard_layout<Sm3>::value && std::is_trivially_copyable<Sm3>::value,
              "the digest must stand at the object's start and the object copy as bytes");

namespace {

inline uint32_t p0(uint32_t x) { return x ^ Base::rotl32(x, 9) ^ Base::rotl32(x, 17); }
inline uint32_t p1(uint32_t x) { return x ^ Base::rotl32(x, 15) ^ Base::rotl32(x, 23); }

// T(j) rotated left by j mod 32, ready for SS1.
struct RoundConstants {
    uint32_t t[64];
    constexpr RoundConstants() : t() {
        for (int j = 0; j < 64; ++j) {
            uint32_t base = j < 16 ? 0x79cc4519u : 0x7a879d8au;
            int n = j & 31;
            t[j] = n ? (base << n) | (base >> (32 - n)) : base;
        }
    }
};

constexpr RoundConstants g_round;

// Word i of the message expansion, from words already made.
inline uint32_t expand(const uint32_t* w, int i) {
    return p1(w[i - 16] ^ w[i - 9] ^ Base::rotl32(w[i - 3], 15)) ^ Base::rotl32(w[i - 13], 7) ^
           w[i - 6];
}

// One round with the roles of A to H passed in: the callers rotate the
// names instead of moving the values (B and F turn in place, D and H take
// the new A and E). Round j needs word j + 4, which it makes itself: the
// expansion runs beside the rounds, one word at a time, as scalar stores
// that the next words load back at once. (A separate expansion loop gets
// vectorised two words at a time, and each pair then loads across two
// earlier stores, which stalls on every iteration.)
#define SM3_ROUND(ff, gg, j, a, b, c, d, e, f, g, h)                 \
    {                                                                \
        if ((j) >= 12)                                               \
            w[(j) + 4] = expand(w, (j) + 4);                         \
        uint32_t a12 = Base::rotl32(a, 12);                          \
        uint32_t ss1 = Base::rotl32(a12 + e + g_round.t[j], 7);      \
        uint32_t ss2 = ss1 ^ a12;                                    \
        d += ff(a, b, c) + ss2 + (w[j] ^ w[(j) + 4]);                \
        h += gg(e, f, g) + ss1 + w[j];                               \
        b = Base::rotl32(b, 9);                                      \
        f = Base::rotl32(f, 19);                                     \
        h = p0(h);                                                   \
    }

#define SM3_FF0(x, y, z) ((x) ^ (y) ^ (z))
#define SM3_FF1(x, y, z) (((x) & (y)) | ((z) & ((x) | (y))))
#define SM3_GG1(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))

#define SM3_FOUR(ff, gg, j)                                   \
    SM3_ROUND(ff, gg, j, a, b, c, d, e, f, g, h)              \
    SM3_ROUND(ff, gg, (j) + 1, d, a, b, c, h, e, f, g)        \
    SM3_ROUND(ff, gg, (j) + 2, c, d, a, b, g, h, e, f)        \
    SM3_ROUND(ff, gg, (j) + 3, b, c, d, a, f, g, h, e)

void compress(uint32_t* state, const unsigned char* p, size_t count) {
    for (; count; --count, p += 64) {
        uint32_t w[68];
        for (int i = 0; i < 16; ++i)
            w[i] = Base::get_be32(p + 4 * i);
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
        uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
        SM3_FOUR(SM3_FF0, SM3_FF0, 0)
        SM3_FOUR(SM3_FF0, SM3_FF0, 4)
        SM3_FOUR(SM3_FF0, SM3_FF0, 8)
        SM3_FOUR(SM3_FF0, SM3_FF0, 12)
        SM3_FOUR(SM3_FF1, SM3_GG1, 16)
        SM3_FOUR(SM3_FF1, SM3_GG1, 20)
        SM3_FOUR(SM3_FF1, SM3_GG1, 24)
        SM3_FOUR(SM3_FF1, SM3_GG1, 28)
        SM3_FOUR(SM3_FF1, SM3_GG1, 32)
        SM3_FOUR(SM3_FF1, SM3_GG1, 36)
        SM3_FOUR(SM3_FF1, SM3_GG1, 40)
        SM3_FOUR(SM3_FF1, SM3_GG1, 44)
        SM3_FOUR(SM3_FF1, SM3_GG1, 48)
        SM3_FOUR(SM3_FF1, SM3_GG1, 52)
        SM3_FOUR(SM3_FF1, SM3_GG1, 56)
        SM3_FOUR(SM3_FF1, SM3_GG1, 60)
        state[0] ^= a;
        state[1] ^= b;
        state[2] ^= c;
        state[3] ^= d;
        state[4] ^= e;
        state[5] ^= f;
        state[6] ^= g;
        state[7] ^= h;
    }
}

}  // namespace

void Sm3::reset() {
    state[0] = 0x7380166f;
    state[1] = 0x4914b2b9;
    state[2] = 0x172442d7;
    state[3] = 0xda8a0600;
    state[4] = 0xa96f30bc;
    state[5] = 0x163138aa;
    state[6] = 0xe38dee4d;
    state[7] = 0xb0fb0e4e;
    count = 0;
}

void Sm3::update(const void* data, int length) {
    hash_update(compress, state, count, buffer, data, length);
}

void Sm3::final() {
    hash_finish(compress, state, count, buffer, true);
    hash_store_be(state, 8);
}

}  // namespace Cipher

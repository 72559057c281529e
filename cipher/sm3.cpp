#include "cipher/sm3.h"

#include "cipher/hashcore.h"

#include <type_traits>

namespace Cipher {

static_assert(std::is_standard_layout<Sm3>::value && std::is_trivially_copyable<Sm3>::value,
              "the digest must stand at the object's start and the object copy as bytes");

namespace {

inline uint32_t p0(uint32_t x) { return x ^ rotl32(x, 9) ^ rotl32(x, 17); }
inline uint32_t p1(uint32_t x) { return x ^ rotl32(x, 15) ^ rotl32(x, 23); }

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

void compress(uint32_t* state, const unsigned char* p, size_t count) {
    for (; count; --count, p += 64) {
        uint32_t w[68];
        for (int i = 0; i < 16; ++i)
            w[i] = load_be32(p + 4 * i);
        for (int i = 16; i < 68; ++i)
            w[i] = p1(w[i - 16] ^ w[i - 9] ^ rotl32(w[i - 3], 15)) ^ rotl32(w[i - 13], 7) ^ w[i - 6];
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
        uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
        for (int j = 0; j < 64; ++j) {
            uint32_t a12 = rotl32(a, 12);
            uint32_t ss1 = rotl32(a12 + e + g_round.t[j], 7);
            uint32_t ss2 = ss1 ^ a12;
            uint32_t ff, gg;
            if (j < 16) {
                ff = a ^ b ^ c;
                gg = e ^ f ^ g;
            } else {
                ff = (a & b) | (a & c) | (b & c);
                gg = g ^ (e & (f ^ g));
            }
            uint32_t tt1 = ff + d + ss2 + (w[j] ^ w[j + 4]);
            uint32_t tt2 = gg + h + ss1 + w[j];
            d = c;
            c = rotl32(b, 9);
            b = a;
            a = tt1;
            h = g;
            g = rotl32(f, 19);
            f = e;
            e = p0(tt2);
        }
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

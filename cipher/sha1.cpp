#include "cipher/sha1.h"

#include "cipher/hashcore.h"

#include <type_traits>

namespace Cipher {

static_assert(std::is_standard_layout<Sha1>::value && std::is_trivially_copyable<Sha1>::value,
              "the digest must stand at the object's start and the object copy as bytes");

namespace {

void compress(uint32_t* state, const unsigned char* p, size_t count) {
    for (; count; --count, p += 64) {
        uint32_t w[80];
        for (int i = 0; i < 16; ++i)
            w[i] = load_be32(p + 4 * i);
        for (int i = 16; i < 80; ++i)
            w[i] = rotl32(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
        for (int i = 0; i < 80; ++i) {
            uint32_t f, k;
            if (i < 20) {
                f = d ^ (b & (c ^ d));
                k = 0x5a827999;
            } else if (i < 40) {
                f = b ^ c ^ d;
                k = 0x6ed9eba1;
            } else if (i < 60) {
                f = (b & c) | (d & (b | c));
                k = 0x8f1bbcdc;
            } else {
                f = b ^ c ^ d;
                k = 0xca62c1d6;
            }
            uint32_t t = rotl32(a, 5) + f + e + k + w[i];
            e = d;
            d = c;
            c = rotl32(b, 30);
            b = a;
            a = t;
        }
        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
        state[4] += e;
    }
}

}  // namespace

void Sha1::reset() {
    state[0] = 0x67452301;
    state[1] = 0xefcdab89;
    state[2] = 0x98badcfe;
    state[3] = 0x10325476;
    state[4] = 0xc3d2e1f0;
    count = 0;
}

void Sha1::update(const void* data, int length) {
    hash_update(compress, state, count, buffer, data, length);
}

void Sha1::final() {
    hash_finish(compress, state, count, buffer, true);
    hash_store_be(state, 5);
}

}  // namespace Cipher

#include "cipher/sha1.h"

#include "cipher/hashcore.h"

#include <type_traits>

namespace Cipher {

static_assert(std::is_standard_layout<Sha1>::value && std::is_trivially_copyable<Sha1>::value,
              "the digest must stand at the object's start and the object copy as bytes");

namespace {

// One step: e takes the round's sum and b turns by 30; the callers rotate
// the roles of a to e instead of moving values.
#define SHA1_STEP(f, k, a, b, c, d, e, w)                  \
    e += Base::rotl32(a, 5) + (f) + (k) + (w);                   \
    b = Base::rotl32(b, 30);

#define SHA1_F1(b, c, d) (d ^ (b & (c ^ d)))
#define SHA1_F2(b, c, d) (b ^ c ^ d)
#define SHA1_F3(b, c, d) ((b & c) | (d & (b | c)))

// The message schedule in a ring of 16 words.
#define SHA1_W(i) \
    (w[(i) & 15] = Base::rotl32(w[((i) + 13) & 15] ^ w[((i) + 8) & 15] ^ w[((i) + 2) & 15] ^ w[(i) & 15], 1))

#define SHA1_FIVE(f, k, i, wexpr)                                \
    SHA1_STEP(f(b, c, d), k, a, b, c, d, e, wexpr(i))            \
    SHA1_STEP(f(a, b, c), k, e, a, b, c, d, wexpr((i) + 1))      \
    SHA1_STEP(f(e, a, b), k, d, e, a, b, c, wexpr((i) + 2))      \
    SHA1_STEP(f(d, e, a), k, c, d, e, a, b, wexpr((i) + 3))      \
    SHA1_STEP(f(c, d, e), k, b, c, d, e, a, wexpr((i) + 4))

#define SHA1_W_LOAD(i) w[i]

void compress(uint32_t* state, const unsigned char* p, size_t count) {
    for (; count; --count, p += 64) {
        uint32_t w[16];
        for (int i = 0; i < 16; ++i)
            w[i] = Base::get_be32(p + 4 * i);
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
        SHA1_FIVE(SHA1_F1, 0x5a827999u, 0, SHA1_W_LOAD)
        SHA1_FIVE(SHA1_F1, 0x5a827999u, 5, SHA1_W_LOAD)
        SHA1_FIVE(SHA1_F1, 0x5a827999u, 10, SHA1_W_LOAD)
        SHA1_STEP(SHA1_F1(b, c, d), 0x5a827999u, a, b, c, d, e, w[15])
        SHA1_STEP(SHA1_F1(a, b, c), 0x5a827999u, e, a, b, c, d, SHA1_W(16))
        SHA1_STEP(SHA1_F1(e, a, b), 0x5a827999u, d, e, a, b, c, SHA1_W(17))
        SHA1_STEP(SHA1_F1(d, e, a), 0x5a827999u, c, d, e, a, b, SHA1_W(18))
        SHA1_STEP(SHA1_F1(c, d, e), 0x5a827999u, b, c, d, e, a, SHA1_W(19))
        SHA1_FIVE(SHA1_F2, 0x6ed9eba1u, 20, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0x6ed9eba1u, 25, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0x6ed9eba1u, 30, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0x6ed9eba1u, 35, SHA1_W)
        SHA1_FIVE(SHA1_F3, 0x8f1bbcdcu, 40, SHA1_W)
        SHA1_FIVE(SHA1_F3, 0x8f1bbcdcu, 45, SHA1_W)
        SHA1_FIVE(SHA1_F3, 0x8f1bbcdcu, 50, SHA1_W)
        SHA1_FIVE(SHA1_F3, 0x8f1bbcdcu, 55, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0xca62c1d6u, 60, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0xca62c1d6u, 65, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0xca62c1d6u, 70, SHA1_W)
        SHA1_FIVE(SHA1_F2, 0xca62c1d6u, 75, SHA1_W)
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

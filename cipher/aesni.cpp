#include "cipher/aesni.h"

#include <cstdint>
#include <cstring>

#include "base/byteorder.h"

namespace Cipher {
namespace AesNi {

bool supported() {
    static const bool has = __builtin_cpu_supports("aes") && __builtin_cpu_supports("sse4.1");
    return has;
}

}  // namespace AesNi
}  // namespace Cipher

// Everything below uses the AES and SSE4.1 instructions: only this file is
// compiled for them, and the callers reach it only after supported().
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("aes,sse4.1"))), apply_to = function)
#define UNROLL_8 _Pragma("unroll 8")
#else
#pragma GCC push_options
#pragma GCC target("aes,sse4.1")
#define UNROLL_8 _Pragma("GCC unroll 8")
#endif
#include <immintrin.h>

namespace Cipher {
namespace AesNi {

namespace {

// Eight blocks in flight hide the latency of one round instruction behind
// the other seven.
const int WIDE = 8;

inline __m128i key(const unsigned char* keys, int r) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(keys + 16 * r));
}

inline __m128i load(const unsigned char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline void store(unsigned char* p, __m128i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

template <int N>
inline void encode_n(const unsigned char* keys, int rounds, __m128i* b) {
    __m128i k = key(keys, 0);
UNROLL_8
    for (int i = 0; i < N; ++i) b[i] = _mm_xor_si128(b[i], k);
    for (int r = 1; r < rounds; ++r) {
        k = key(keys, r);
UNROLL_8
        for (int i = 0; i < N; ++i) b[i] = _mm_aesenc_si128(b[i], k);
    }
    k = key(keys, rounds);
UNROLL_8
    for (int i = 0; i < N; ++i) b[i] = _mm_aesenclast_si128(b[i], k);
}

template <int N>
inline void decode_n(const unsigned char* keys, int rounds, __m128i* b) {
    __m128i k = key(keys, 0);
UNROLL_8
    for (int i = 0; i < N; ++i) b[i] = _mm_xor_si128(b[i], k);
    for (int r = 1; r < rounds; ++r) {
        k = key(keys, r);
UNROLL_8
        for (int i = 0; i < N; ++i) b[i] = _mm_aesdec_si128(b[i], k);
    }
    k = key(keys, rounds);
UNROLL_8
    for (int i = 0; i < N; ++i) b[i] = _mm_aesdeclast_si128(b[i], k);
}

// The counter as two 64-bit halves in machine order; a block is made by
// putting them side by side and reversing all sixteen bytes.
struct Counter {
    uint64_t hi, lo;
};

inline __m128i byte_reverse() {
    return _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}

inline Counter plus(Counter c, uint64_t n) {
    uint64_t lo = c.lo + n;
    return Counter{c.hi + (lo < c.lo ? 1 : 0), lo};
}

inline __m128i counter_block(Counter c, __m128i reverse) {
    return _mm_shuffle_epi8(_mm_set_epi64x(int64_t(c.hi), int64_t(c.lo)), reverse);
}

}  // namespace

namespace {

// Eight blocks in flight while there are eight, then one at a time.
template <bool Decode>
void crypt_blocks(const unsigned char* keys, int rounds, unsigned char* dst,
                  const unsigned char* src, size_t blocks) {
    size_t i = 0;
    for (; i + WIDE <= blocks; i += WIDE) {
        __m128i b[WIDE];
UNROLL_8
        for (int j = 0; j < WIDE; ++j) b[j] = load(src + 16 * (i + j));
        if (Decode)
            decode_n<WIDE>(keys, rounds, b);
        else
            encode_n<WIDE>(keys, rounds, b);
UNROLL_8
        for (int j = 0; j < WIDE; ++j) store(dst + 16 * (i + j), b[j]);
    }
    for (; i < blocks; ++i) {
        __m128i b[1] = {load(src + 16 * i)};
        if (Decode)
            decode_n<1>(keys, rounds, b);
        else
            encode_n<1>(keys, rounds, b);
        store(dst + 16 * i, b[0]);
    }
}

}  // namespace

void encode_blocks(const unsigned char* keys, int rounds, unsigned char* dst,
                   const unsigned char* src, size_t blocks) {
    crypt_blocks<false>(keys, rounds, dst, src, blocks);
}

void decode_blocks(const unsigned char* keys, int rounds, unsigned char* dst,
                   const unsigned char* src, size_t blocks) {
    crypt_blocks<true>(keys, rounds, dst, src, blocks);
}

void encode_cbc(const unsigned char* keys, int rounds, unsigned char* chain, unsigned char* dst,
                const unsigned char* src, size_t blocks) {
    // Each block needs the one before: no blocks in flight together.
    __m128i b[1] = {load(chain)};
    for (size_t i = 0; i < blocks; ++i) {
        b[0] = _mm_xor_si128(b[0], load(src + 16 * i));
        encode_n<1>(keys, rounds, b);
        store(dst + 16 * i, b[0]);
    }
    store(chain, b[0]);
}

void decode_cbc(const unsigned char* keys, int rounds, unsigned char* chain, unsigned char* dst,
                const unsigned char* src, size_t blocks) {
    // All cipher blocks of a group are loaded before any plain block is
    // stored, so dst may be src.
    __m128i prev = load(chain);
    size_t i = 0;
    for (; i + WIDE <= blocks; i += WIDE) {
        __m128i c[WIDE], b[WIDE];
UNROLL_8
        for (int j = 0; j < WIDE; ++j) b[j] = c[j] = load(src + 16 * (i + j));
        decode_n<WIDE>(keys, rounds, b);
        store(dst + 16 * i, _mm_xor_si128(b[0], prev));
UNROLL_8
        for (int j = 1; j < WIDE; ++j) store(dst + 16 * (i + j), _mm_xor_si128(b[j], c[j - 1]));
        prev = c[WIDE - 1];
    }
    for (; i < blocks; ++i) {
        __m128i c = load(src + 16 * i);
        __m128i b[1] = {c};
        decode_n<1>(keys, rounds, b);
        store(dst + 16 * i, _mm_xor_si128(b[0], prev));
        prev = c;
    }
    store(chain, prev);
}

void ctr(const unsigned char* keys, int rounds, unsigned char* counter, unsigned char* dst,
         const unsigned char* src, size_t length) {
    if (!length) return;
    const __m128i reverse = byte_reverse();
    Counter c{Base::get_be64(counter), Base::get_be64(counter + 8)};
    size_t i = 0;
    for (; length - i >= size_t(16 * WIDE); i += 16 * WIDE) {
        __m128i b[WIDE];
        if (c.lo <= ~uint64_t(0) - (WIDE - 1)) {
            // No carry out of the low half within the group: add in place.
            __m128i base = _mm_set_epi64x(int64_t(c.hi), int64_t(c.lo));
UNROLL_8
            for (int j = 0; j < WIDE; ++j)
                b[j] = _mm_shuffle_epi8(_mm_add_epi64(base, _mm_set_epi64x(0, j)), reverse);
        } else {
UNROLL_8
            for (int j = 0; j < WIDE; ++j) b[j] = counter_block(plus(c, uint64_t(j)), reverse);
        }
        encode_n<WIDE>(keys, rounds, b);
UNROLL_8
        for (int j = 0; j < WIDE; ++j) {
            unsigned char* out = dst + i + 16 * size_t(j);
            store(out, _mm_xor_si128(b[j], load(src + i + 16 * size_t(j))));
        }
        c = plus(c, WIDE);
    }
    if (i < length) {
        // The last 1 to 8 blocks, whole or not, as one group: eight blocks
        // in flight cost about what one alone does, so a short frame's
        // tail takes no longer than a full group.
        size_t rest = length - i, blocks = (rest + 15) / 16;
        __m128i b[WIDE];
UNROLL_8
        for (int j = 0; j < WIDE; ++j) b[j] = counter_block(plus(c, uint64_t(j)), reverse);
        encode_n<WIDE>(keys, rounds, b);
        size_t whole = rest / 16;
        for (size_t j = 0; j < whole; ++j)
            store(dst + i + 16 * j, _mm_xor_si128(b[j], load(src + i + 16 * j)));
        if (rest % 16) {
            unsigned char stream[16];
            store(stream, b[whole]);
            for (size_t k = 0; k < rest % 16; ++k)
                dst[i + 16 * whole + k] = src[i + 16 * whole + k] ^ stream[k];
        }
        c = plus(c, blocks);
    }
    // The last value used is one behind the next one.
    if (c.lo-- == 0) c.hi -= 1;
    Base::put_be64(counter, c.hi);
    Base::put_be64(counter + 8, c.lo);
}

}  // namespace AesNi
}  // namespace Cipher

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

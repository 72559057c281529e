// The buffering shared by the 64-byte-block hashes (MD5, SHA-1, SM3): update
// fills the block buffer and compresses whole blocks straight from the input;
// finish appends 0x80, zeros and the bit length in 64 bits. Each hash gives
// its own compression function, which takes any number of whole blocks.
// Internal to the hash modules.
#pragma once

#include "base/byteorder.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Cipher {

typedef void (*CompressFunc)(uint32_t* state, const unsigned char* blocks, size_t count);

const int HASH_BLOCK_SIZE = 64;

inline void hash_update(CompressFunc compress, uint32_t* state, uint64_t& count,
                        unsigned char* buffer, const void* data, int length) {
    if (length <= 0)
        return;
    const unsigned char* p = static_cast<const unsigned char*>(data);
    size_t n = size_t(length);
    size_t used = size_t(count % HASH_BLOCK_SIZE);
    count += n;
    if (used) {
        size_t take = HASH_BLOCK_SIZE - used;
        if (take > n)
            take = n;
        memcpy(buffer + used, p, take);
        if (used + take < size_t(HASH_BLOCK_SIZE))
            return;
        compress(state, buffer, 1);
        p += take;
        n -= take;
    }
    if (n >= size_t(HASH_BLOCK_SIZE)) {
        compress(state, p, n / HASH_BLOCK_SIZE);
        p += n & ~size_t(HASH_BLOCK_SIZE - 1);
        n &= HASH_BLOCK_SIZE - 1;
    }
    if (n)
        memcpy(buffer, p, n);
}

// Pads and compresses the last block(s); the bit length goes in big-endian
// (SHA-1, SM3) or little-endian (MD5) order.
inline void hash_finish(CompressFunc compress, uint32_t* state, uint64_t count,
                        unsigned char* buffer, bool big_endian_length) {
    size_t used = size_t(count % HASH_BLOCK_SIZE);
    buffer[used++] = 0x80;
    if (used > size_t(HASH_BLOCK_SIZE - 8)) {
        memset(buffer + used, 0, HASH_BLOCK_SIZE - used);
        compress(state, buffer, 1);
        used = 0;
    }
    memset(buffer + used, 0, HASH_BLOCK_SIZE - 8 - used);
    uint64_t bits = count << 3;
    if (big_endian_length)
        Base::put_be64(buffer + HASH_BLOCK_SIZE - 8, bits);
    else
        Base::put_le64(buffer + HASH_BLOCK_SIZE - 8, bits);
    compress(state, buffer, 1);
}

// Rewrites the chaining words in place as the digest bytes, so that the
// digest stands at the start of the hash object.
inline void hash_store_be(uint32_t* state, int words) {
    unsigned char out[32];
    for (int i = 0; i < words; ++i)
        Base::put_be32(out + 4 * i, state[i]);
    memcpy(state, out, size_t(words) * 4);
}

inline void hash_store_le(uint32_t* state, int words) {
    unsigned char out[32];
    for (int i = 0; i < words; ++i)
        Base::put_le32(out + 4 * i, state[i]);
    memcpy(state, out, size_t(words) * 4);
}

}  // namespace Cipher

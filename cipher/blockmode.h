// ECB, CBC and CTR over any block cipher C of B bytes that has
// encode(dst, src) and decode(dst, src) for one block, in place allowed.
// Internal to the cipher modules, which wrap these in their own members.
//
// Rules shared by all:
// - Results are true or false; on false, length is 0.
// - A null dst only computes length: the output size of an encoder, and the
//   room a decoder needs (the whole input, pad bytes included).
// - dst may equal src; other overlaps are not allowed.
// - Padding is PKCS #7: always 1 to B bytes of value (pad length) are added.
//   The decoders take the last byte as the pad length without checking the
//   pad bytes, but never let length go below 0.
// - iv_size must equal B; a null iv is an all-zero block. CBC starts every
//   call from iv; the CTR counter is the whole block as one big-endian
//   number, wrapping at 2^(8B), and counts up by 1 for each block after the
//   first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Cipher {
namespace BlockMode {

inline void xor_block(unsigned char* dst, const unsigned char* a, const unsigned char* b, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x, y;
        memcpy(&x, a + i, 8);
        memcpy(&y, b + i, 8);
        x ^= y;
        memcpy(dst + i, &x, 8);
    }
    for (; i < n; ++i)
        dst[i] = a[i] ^ b[i];
}

// Checks the shared input rules and gives the output size of an encoder.
inline bool encoded_size(int& length, const unsigned char* src, int src_length, bool padding, int b) {
    length = 0;
    if (src_length < 0 || (!src && src_length > 0))
        return false;
    int tail = src_length % b;
    if (!padding) {
        if (tail)
            return false;
        length = src_length;
        return true;
    }
    if (src_length > 0x7fffffff - b)
        return false;
    length = src_length - tail + b;
    return true;
}

inline bool decoded_size(int& length, const unsigned char* src, int src_length, int b) {
    length = 0;
    if (src_length < 0 || src_length % b || (!src && src_length > 0))
        return false;
    length = src_length;
    return true;
}

// The lax PKCS #7 rule: subtract the last byte's value, bounded below by 0.
inline int unpadded_size(const unsigned char* dst, int size) {
    if (size <= 0)
        return 0;
    int rest = size - dst[size - 1];
    return rest < 0 ? 0 : rest;
}

// The last, padded block of an encoder: the tail bytes then the pad value.
inline void fill_pad(unsigned char* pad, const unsigned char* tail, int tail_length, int b) {
    if (tail_length)
        memcpy(pad, tail, size_t(tail_length));
    memset(pad + tail_length, b - tail_length, size_t(b - tail_length));
}

inline void load_iv(unsigned char* chain, const unsigned char* iv, int b) {
    if (iv)
        memcpy(chain, iv, size_t(b));
    else
        memset(chain, 0, size_t(b));
}

inline void increment(unsigned char* counter, int b) {
    for (int i = b - 1; i >= 0; --i)
        if (++counter[i])
            break;
}

// The bulk steps, one block at a time through c.encode and c.decode. A
// cipher with a faster way to do many blocks provides members of the same
// names, which the modes below then call instead.
template <int B, class C>
void each_encode(C& c, unsigned char* dst, const unsigned char* src, size_t blocks) {
    for (size_t i = 0; i < blocks; ++i)
        c.encode(dst + i * B, src + i * B);
}

template <int B, class C>
void each_decode(C& c, unsigned char* dst, const unsigned char* src, size_t blocks) {
    for (size_t i = 0; i < blocks; ++i)
        c.decode(dst + i * B, src + i * B);
}

// chain holds the previous cipher block (the IV at first) and is left
// holding the last one written.
template <int B, class C>
void each_encode_cbc(C& c, unsigned char* chain, unsigned char* dst, const unsigned char* src,
                     size_t blocks) {
    unsigned char work[B];
    for (size_t i = 0; i < blocks; ++i) {
        xor_block(work, src + i * B, chain, B);
        c.encode(dst + i * B, work);
        memcpy(chain, dst + i * B, B);
    }
}

template <int B, class C>
void each_decode_cbc(C& c, unsigned char* chain, unsigned char* dst, const unsigned char* src,
                     size_t blocks) {
    unsigned char saved[B];
    for (size_t i = 0; i < blocks; ++i) {
        memcpy(saved, src + i * B, B);  // keep the cipher block: dst may be src
        c.decode(dst + i * B, saved);
        xor_block(dst + i * B, dst + i * B, chain, B);
        memcpy(chain, saved, B);
    }
}

// length bytes under the key stream of counter, counter + 1, ...; a last
// partial block uses the front of its stream block. counter is left at the
// value of the last block used.
template <int B, class C>
void each_ctr(C& c, unsigned char* counter, unsigned char* dst, const unsigned char* src,
              size_t length) {
    unsigned char stream[B];
    for (size_t i = 0; i < length; i += B) {
        if (i)
            increment(counter, B);
        c.encode(stream, counter);
        int n = length - i < size_t(B) ? int(length - i) : B;
        xor_block(dst + i, src + i, stream, n);
    }
}

template <int B, class C>
bool encode_ecb(C& c, unsigned char* pad, unsigned char* dst, int& length,
                const unsigned char* src, int src_length, bool padding) {
    if (!encoded_size(length, src, src_length, padding, B))
        return false;
    if (!dst)
        return true;
    int whole = src_length - src_length % B;
    c.encode_blocks(dst, src, size_t(whole / B));
    if (padding) {
        fill_pad(pad, src + whole, src_length - whole, B);
        c.encode_blocks(dst + whole, pad, 1);
    }
    return true;
}

template <int B, class C>
bool decode_ecb(C& c, unsigned char* dst, int& length, const unsigned char* src, int src_length,
                bool padding) {
    if (!decoded_size(length, src, src_length, B))
        return false;
    if (!dst)
        return true;
    c.decode_blocks(dst, src, size_t(src_length / B));
    if (padding)
        length = unpadded_size(dst, src_length);
    return true;
}

template <int B, class C>
bool encode_cbc(C& c, unsigned char* chain, unsigned char* pad, unsigned char* dst, int& length,
                const unsigned char* src, int src_length, bool padding, const unsigned char* iv,
                int iv_size) {
    if (iv_size != B) {
        length = 0;
        return false;
    }
    if (!encoded_size(length, src, src_length, padding, B))
        return false;
    if (!dst)
        return true;
    load_iv(chain, iv, B);
    int whole = src_length - src_length % B;
    c.encode_cbc_blocks(chain, dst, src, size_t(whole / B));
    if (padding) {
        fill_pad(pad, src + whole, src_length - whole, B);
        c.encode_cbc_blocks(chain, dst + whole, pad, 1);
    }
    return true;
}

template <int B, class C>
bool decode_cbc(C& c, unsigned char* chain, unsigned char* dst, int& length,
                const unsigned char* src, int src_length, bool padding, const unsigned char* iv,
                int iv_size) {
    if (iv_size != B) {
        length = 0;
        return false;
    }
    if (!decoded_size(length, src, src_length, B))
        return false;
    if (!dst)
        return true;
    load_iv(chain, iv, B);
    c.decode_cbc_blocks(chain, dst, src, size_t(src_length / B));
    if (padding)
        length = unpadded_size(dst, src_length);
    return true;
}

// Encoding and decoding are the same operation.
template <int B, class C>
bool process_ctr(C& c, unsigned char* counter, unsigned char* dst, int& length,
                 const unsigned char* src, int src_length, const unsigned char* iv, int iv_size) {
    length = 0;
    if (iv_size != B || src_length < 0 || (!src && src_length > 0))
        return false;
    length = src_length;
    if (!dst)
        return true;
    load_iv(counter, iv, B);
    c.ctr_blocks(counter, dst, src, size_t(src_length));
    return true;
}

}  // namespace BlockMode

// The mode operations of a block cipher class C of B bytes, with the two
// working blocks they use; C derives from BlockModes<C, B> and provides
// encode and decode of one block. decode_ctr is encode_ctr. The bulk steps
// (encode_blocks ... ctr_blocks) go one block at a time; C may hide them
// with faster members of the same signature.
template <class C, int B>
class BlockModes {
public:
    bool encode_ecb(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    bool padding) {
        return BlockMode::encode_ecb<B>(self(), pad, dst, length, src, src_length, padding);
    }
    bool decode_ecb(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    bool padding) {
        return BlockMode::decode_ecb<B>(self(), dst, length, src, src_length, padding);
    }
    bool encode_cbc(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    bool padding, const unsigned char* iv, int iv_size) {
        return BlockMode::encode_cbc<B>(self(), chain, pad, dst, length, src, src_length, padding,
                                        iv, iv_size);
    }
    bool decode_cbc(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    bool padding, const unsigned char* iv, int iv_size) {
        return BlockMode::decode_cbc<B>(self(), chain, dst, length, src, src_length, padding, iv,
                                        iv_size);
    }
    bool encode_ctr(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    const unsigned char* iv, int iv_size) {
        return BlockMode::process_ctr<B>(self(), chain, dst, length, src, src_length, iv,
                                         iv_size);
    }
    bool decode_ctr(unsigned char* dst, int& length, const unsigned char* src, int src_length,
                    const unsigned char* iv, int iv_size) {
        return encode_ctr(dst, length, src, src_length, iv, iv_size);
    }

    void encode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks) {
        BlockMode::each_encode<B>(self(), dst, src, blocks);
    }
    void decode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks) {
        BlockMode::each_decode<B>(self(), dst, src, blocks);
    }
    void encode_cbc_blocks(unsigned char* chain_block, unsigned char* dst, const unsigned char* src,
                           size_t blocks) {
        BlockMode::each_encode_cbc<B>(self(), chain_block, dst, src, blocks);
    }
    void decode_cbc_blocks(unsigned char* chain_block, unsigned char* dst, const unsigned char* src,
                           size_t blocks) {
        BlockMode::each_decode_cbc<B>(self(), chain_block, dst, src, blocks);
    }
    void ctr_blocks(unsigned char* counter, unsigned char* dst, const unsigned char* src,
                    size_t length) {
        BlockMode::each_ctr<B>(self(), counter, dst, src, length);
    }

protected:
    BlockModes() : chain(), pad() {}

private:
    C& self() { return static_cast<C&>(*this); }

    unsigned char chain[B];  // working block: CBC chaining value, CTR counter
    unsigned char pad[B];    // working block: the padded last block
};

}  // namespace Cipher

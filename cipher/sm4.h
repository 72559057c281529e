// Cipher::Sm4: the SM4 block cipher of GB/T 32907 with a 16-byte key, one
// 16-byte block at a time and in ECB, CBC and CTR modes. A null key is all
// zeros.
//
// Mode functions return true or false and set length (0 on false); with a
// null dst they only compute length, for a decoder the room it needs, the
// whole input. padding selects PKCS #7: encoders always add 1 to 16 bytes;
// decoders subtract the last byte's value without checking the pad bytes,
// never going below 0. Without padding, and always for decoders, the input
// must be a multiple of 16. iv_size must be 16 and a null iv is all zeros;
// CBC starts each call from iv. CTR takes the whole iv as one big-endian
// counter that counts up by one per block; decode_ctr equals encode_ctr.
// dst may equal src. The object keeps working blocks, so one object serves
// one operation at a time.
#pragma once

#include <cstdint>

#include "cipher/blockmode.h"

namespace Cipher {

class Sm4 : public BlockModes<Sm4, 16> {
public:
    static const int BLOCK_SIZE = 16;

    explicit Sm4(const unsigned char* key);
    ~Sm4();

    void encode(unsigned char* dst, const unsigned char* src);
    void decode(unsigned char* dst, const unsigned char* src);


    // One block with an Sm4 passed as self: for use as a callback.
    static void encode_func(void* self, unsigned char* dst, const unsigned char* src);

private:
    Sm4(const Sm4&) = delete;
    Sm4& operator=(const Sm4&) = delete;

    uint32_t round_keys[32];
};

}  // namespace Cipher

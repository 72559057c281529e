// Cipher::Aes: the AES block cipher of FIPS 197 with 16-, 24- or 32-byte
// keys, one 16-byte block at a time and in ECB, CBC and CTR modes.
//
// The key is expanded once in the constructor. A key_size other than 16, 24
// or 32 takes the next larger size (at most 32) and zero bytes behind the
// key_size bytes given; a null key is all zeros. Nothing is read beyond
// key_size bytes.
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

class Aes : public BlockModes<Aes, 16> {
public:
    static const int BLOCK_SIZE = 16;

    Aes(const unsigned char* key, int key_size);
    ~Aes();

    void encode(unsigned char* dst, const unsigned char* src);
    void decode(unsigned char* dst, const unsigned char* src);


    // One block with an Aes passed as self: for use as a callback.
    static void encode_func(void* self, unsigned char* dst, const unsigned char* src);

private:
    Aes(const Aes&) = delete;
    Aes& operator=(const Aes&) = delete;

    int rounds;                   // 10, 12 or 14
    uint32_t encode_keys[60];     // round keys, 4 words per round
    uint32_t decode_keys[60];     // reversed, with InvMixColumns applied
};

}  // namespace Cipher

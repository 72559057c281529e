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
//
// On a CPU with the AES instructions every operation runs on them; the
// table implementation serves the others, and any object made with
// hardware false (tests compare the two). Both give the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cipher/blockmode.h"

namespace Cipher {

class Aes : public BlockModes<Aes, 16> {
public:
    static const int BLOCK_SIZE = 16;

    Aes(const unsigned char* key, int key_size, bool hardware = true);
    ~Aes();

    void encode(unsigned char* dst, const unsigned char* src);
    void decode(unsigned char* dst, const unsigned char* src);

    // True when this object runs on the AES instructions.
    bool uses_hardware() const { return hardware; }

    // The bulk steps of the modes, on the AES instructions when in use.
    void encode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks);
    void decode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks);
    void encode_cbc_blocks(unsigned char* chain, unsigned char* dst, const unsigned char* src,
                           size_t blocks);
    void decode_cbc_blocks(unsigned char* chain, unsigned char* dst, const unsigned char* src,
                           size_t blocks);
    void ctr_blocks(unsigned char* counter, unsigned char* dst, const unsigned char* src,
                    size_t length);

    // One block with an Aes passed as self: for use as a callback.
    static void encode_func(void* self, unsigned char* dst, const unsigned char* src);

private:
    Aes(const Aes&) = delete;
    Aes& operator=(const Aes&) = delete;

    typedef BlockModes<Aes, 16> Modes;

    int rounds;                   // 10, 12 or 14
    bool hardware;                // the AES instructions are in use
    uint32_t encode_keys[60];     // round keys, 4 words per round
    uint32_t decode_keys[60];     // reversed, with InvMixColumns applied
    alignas(16) unsigned char encode_bytes[240];  // the same keys as bytes, in
    alignas(16) unsigned char decode_bytes[240];  // the order the instructions take
};

}  // namespace Cipher

// Cipher::Des: the DES block cipher of FIPS 46-3, and Cipher::TripleDes, its
// EDE form with three keys (SP 800-67), one 8-byte block at a time and in
// ECB, CBC and CTR modes.
//
// process(block, mode) transforms one 64-bit block, the 8 bytes read as a
// big-endian number: mode 'e' enciphers, 'd' deciphers, any other mode gives
// 0. It is virtual, and every block and mode operation goes through it, so
// TripleDes, which overrides it with K1, K2, K3 as encrypt-decrypt-encrypt
// ('d' the reverse), has all the modes of Des. Keys are 8 bytes each, their
// parity bits ignored; a null key is all zeros.
//
// Mode functions return true or false and set length (0 on false); with a
// null dst they only compute length, for a decoder the room it needs, the
// whole input. padding selects PKCS #7: encoders always add 1 to 8 bytes;
// decoders subtract the last byte's value without checking the pad bytes,
// never going below 0. Without padding, and always for decoders, the input
// must be a multiple of 8. iv_size must be 8 and a null iv is all zeros; CBC
// starts each call from iv. CTR takes the whole iv as one big-endian counter
// that counts up by one per block; decode_ctr equals encode_ctr. dst may
// equal src. The object keeps working blocks, so one object serves one
// operation at a time.
#pragma once

#include <cstdint>

#include "cipher/blockmode.h"

namespace Cipher {

class Des : public BlockModes<Des, 8> {
public:
    static const int BLOCK_SIZE = 8;

    explicit Des(const unsigned char* key);
    virtual ~Des();

    virtual unsigned long process(unsigned long block, char mode);

    void encode(unsigned char* dst, const unsigned char* src);
    void decode(unsigned char* dst, const unsigned char* src);


private:
    Des(const Des&) = delete;
    Des& operator=(const Des&) = delete;

    uint8_t subkeys[16][8];   // per round, the 48-bit key as eight 6-bit groups
};

class TripleDes : public Des {
public:
    TripleDes(const unsigned char* k1, const unsigned char* k2, const unsigned char* k3);
    ~TripleDes() override;

    unsigned long process(unsigned long block, char mode) override;

private:
    Des des1;
    Des des2;
    Des des3;
};

}  // namespace Cipher

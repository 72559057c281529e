// Network::ChannelCipher: the per-frame symmetric cipher of a channel.
//
// Types: 0 none, 1 word XOR with the 8-byte key, 2 DES-CTR on the first 8
// key bytes, 3 AES-128-CTR and 4 SM4-CTR on all 16. The key area holds the
// 8-byte key twice, in native order. Every frame is enciphered on its own,
// with the counter starting afresh from the fixed IV, so two frames of equal
// content give equal cipher texts; the peer does the same. Type 1 reads
// native 64-bit words and so assumes both ends are little-endian.
//
// set() with a type above 4 changes the key area only: the type and cipher
// object in force stay. One thread uses an object (the channel's reactor).
#pragma once

namespace Cipher {
class Des;
class Aes;
class Sm4;
}  // namespace Cipher

namespace Network {

class ChannelCipher {
public:
    static const unsigned char IV[16];  // "q7m2.xkrv.zpl.tb"
    static const unsigned char MAX_TYPE = 4;

    ChannelCipher();
    ~ChannelCipher();

    // True if the type was taken (0 to 4).
    bool set(unsigned char type, unsigned long key);
    // out may not overlap in unless it equals in. False for an unknown type
    // or a missing cipher object.
    bool encode(unsigned char* out, const unsigned char* in, int size);
    bool decode(unsigned char* out, const unsigned char* in, int size);

    unsigned char get_type() const { return type; }
    const unsigned char* get_key() const { return key; }

private:
    ChannelCipher(const ChannelCipher&) = delete;
    ChannelCipher& operator=(const ChannelCipher&) = delete;

    bool apply(unsigned char* out, const unsigned char* in, int size, bool forward);
    void apply_xor(unsigned char* out, const unsigned char* in, int size) const;

    unsigned char type;
    unsigned char key[16];
    Cipher::Des* des;
    Cipher::Aes* aes;
    Cipher::Sm4* sm4;
};

}  // namespace Network

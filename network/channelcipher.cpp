#include "network/channelcipher.h"

#include <cstdint>
#include <cstring>

#include "cipher/aes.h"
#include "cipher/des.h"
#include "cipher/sm4.h"

namespace Network {

const unsigned char ChannelCipher::IV[16] = {'q', '7', 'm', '2', '.', 'x', 'k', 'r',
                                             'v', '.', 'z', 'p', 'l', '.', 't', 'b'};

ChannelCipher::ChannelCipher() : type(0), des(nullptr), aes(nullptr), sm4(nullptr) {
    memset(key, 0, sizeof(key));
}

ChannelCipher::~ChannelCipher() {
    delete des;
    delete aes;
    delete sm4;
}

bool ChannelCipher::set(unsigned char new_type, unsigned long value) {
    memcpy(key, &value, 8);
    memcpy(key + 8, &value, 8);
    // A second object of the same type replaces the first, which is freed
    // rather than leaked; its key is the one of this call.
    switch (new_type) {
    case 2:
        delete des;
        des = new Cipher::Des(key);
        break;
    case 3:
        delete aes;
        aes = new Cipher::Aes(key, 16);
        break;
    case 4:
        delete sm4;
        sm4 = new Cipher::Sm4(key);
        break;
    default:
        break;
    }
    if (new_type > MAX_TYPE) return false;
    type = new_type;
    return true;
}

void ChannelCipher::apply_xor(unsigned char* out, const unsigned char* in, int size) const {
    uint64_t word_key;
    memcpy(&word_key, key, 8);
    int words = size / 8;
    for (int i = 0; i < words; ++i) {
        uint64_t w;
        memcpy(&w, in + i * 8, 8);
        w ^= word_key + static_cast<uint64_t>(i);
        memcpy(out + i * 8, &w, 8);
    }
    for (int i = words * 8, k = 0; i < size; ++i, ++k) out[i] = in[i] ^ key[k];
}

bool ChannelCipher::apply(unsigned char* out, const unsigned char* in, int size, bool forward) {
    int length = 0;
    switch (type) {
    case 0:
        if (out != in) memmove(out, in, size_t(size));
        return true;
    case 1:
        apply_xor(out, in, size);
        return true;
    case 2:
        if (!des) return false;
        return forward ? des->encode_ctr(out, length, in, size, IV, 8)
                       : des->decode_ctr(out, length, in, size, IV, 8);
    case 3:
        if (!aes) return false;
        return forward ? aes->encode_ctr(out, length, in, size, IV, 16)
                       : aes->decode_ctr(out, length, in, size, IV, 16);
    case 4:
        if (!sm4) return false;
        return forward ? sm4->encode_ctr(out, length, in, size, IV, 16)
                       : sm4->decode_ctr(out, length, in, size, IV, 16);
    default:
        return false;
    }
}

bool ChannelCipher::encode(unsigned char* out, const unsigned char* in, int size) {
    return apply(out, in, size, true);
}

bool ChannelCipher::decode(unsigned char* out, const unsigned char* in, int size) {
    return apply(out, in, size, false);
}

}  // namespace Network

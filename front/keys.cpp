#include "front/keys.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/strings.h"
#include "cipher/aes.h"
#include "cipher/sm2.h"
#include "cipher/sm3.h"
#include "containers/map.h"
#include "front/config.h"

namespace Front {

namespace {

const int CLIENT_TEXT_SIZE = 132;

uint32_t le32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Reads "LLhex...LLhex..." into x and y (each at most 64 digits).
bool read_client_key(const char* text, char* x, char* y) {
    unsigned char length = 0;
    const char* p = text;
    for (int part = 0; part < 2; ++part) {
        char pair[3] = {p[0], p[0] ? p[1] : '\0', '\0'};
        if (strlen(pair) != 2 || !Base::hex_to_bytes(pair, reinterpret_cast<char*>(&length), 1))
            return false;
        p += 2;
        if (length == 0 || length > 64 || strlen(p) < length) return false;
        char* out = part == 0 ? x : y;
        memcpy(out, p, length);
        out[length] = '\0';
        p += length;
    }
    return true;
}

}  // namespace

unsigned long hash_key_mask(const char* client_text) {
    Cipher::Sm3 sm3;
    sm3.update(client_text, CLIENT_TEXT_SIZE);
    sm3.final();
    const unsigned char* d = sm3.digest();
    unsigned long high = Base::Hash::calc(d, 16, le32(d + 16));
    unsigned long low = Base::Hash::calc(d + 16, 16, le32(d));
    return high << 32 | low;
}

bool make_key_text(int form, unsigned char type, unsigned long key, const char* client_text,
                   char* out, int out_size) {
    memset(out, 0, size_t(out_size));
    if (form == KEY_PLAIN) {
        out[0] = '0';
        return true;
    }
    unsigned char bytes[8];
    if (form == KEY_HASH) {
        if (strnlen(client_text, CLIENT_TEXT_SIZE) < size_t(CLIENT_TEXT_SIZE)) return false;
        unsigned long masked = key ^ hash_key_mask(client_text);
        for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(masked >> (8 * i));
        out[0] = static_cast<char>('A' + type);
        Base::hex_from_bytes(out + 1, reinterpret_cast<const char*>(bytes), 8, true);
        return true;
    }
    char x[65], y[65];
    if (!read_client_key(client_text, x, y)) return false;
    Cipher::Sm2 sm2(true);  // masked with the public key, as the client reads it
    if (!sm2.set_public_key(x, y)) return false;
    sm2.gen_k();
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(key >> (8 * i));
    unsigned char sealed[160];
    int length = 0;
    if (!sm2.encode(nullptr, length, bytes, 8) || length > int(sizeof(sealed)) ||
        2 * length + 2 > out_size)
        return false;
    if (!sm2.encode(sealed, length, bytes, 8)) return false;
    out[0] = static_cast<char>('0' + type);
    Base::hex_from_bytes(out + 1, reinterpret_cast<const char*>(sealed), length, true);
    return true;
}

bool make_auth_code(const char* auth_code, int value, unsigned char* out16) {
    unsigned char key[16] = {};
    memcpy(key, auth_code, strnlen(auth_code, 16));
    char text[16];
    int n = snprintf(text, sizeof(text), "%d", value);
    Cipher::Aes aes(key, 16);
    unsigned char sealed[32] = {};
    int length = 0;
    if (!aes.encode_cbc(sealed, length, reinterpret_cast<const unsigned char*>(text), n, true,
                        nullptr, 16) ||
        length != 16)
        return false;
    memcpy(out16, sealed, 16);
    return true;
}

bool check_auth_code(const char* sent, const char* auth_code, int value) {
    unsigned char expected[16];
    if (make_auth_code(auth_code, value, expected) && memcmp(sent, expected, 16) == 0) return true;
    return strncmp(sent, auth_code, 16) == 0 && sent[strnlen(auth_code, 16)] == '\0';
}

}  // namespace Front

// Cipher::Sm2: SM2 public-key encryption (GB/T 32918.4) on the recommended
// 256-bit curve, or on any prime curve given in hexadecimal.
//
// Keys: gen_keys() draws a private key, set_private_key() reads one; both
// derive the public key, which get_public_key() prints in upper-case
// hexadecimal, 16 digits a limb, no prefix. set_public_key() alone suffices
// to encrypt.
//
// encode() uses the stored ephemeral scalar k: call gen_k() or set_k()
// before each encryption; without a k or a public key it gives false. The
// output is C1 C2 C3: the byte 4, x1, y1 (each limbs * 8 bytes, big-endian),
// the message xored with the key stream, and the 32-byte SM3 of x2,
// message, y2. With a null dst only length is set
// (the message length plus 16 * limbs + 33, so 97 more on the 256-bit curve).
//
// With mask_with_public_key the first and last limbs * 8 bytes of the
// output are further xored with the public key's x and y limbs in host byte
// order; only a peer with the same setting reads such output.
//
// decode() gives false for an input with no message byte, a wrong first
// byte, a C1 off the curve, or a hash mismatch. An object serves one thread.
#pragma once

#include <cstdint>

#include "base/random.h"

namespace Cipher {

// The key derivation function of SM2 with SM3: digests of z followed by a
// 32-bit big-endian counter from 1, joined and cut to out_length. scratch
// holds z_length + 4 bytes; z may lie at its start.
void kdf(char* out, int out_length, const char* z, int z_length, char* scratch);

class Sm2 {
public:
    explicit Sm2(bool mask_with_public_key = false);
    Sm2(const char* p, const char* a, const char* b, const char* n, const char* gx,
        const char* gy, bool mask_with_public_key);
    ~Sm2();
    Sm2(const Sm2&) = delete;
    Sm2& operator=(const Sm2&) = delete;

    // Hex readers give false at a text that is not hexadecimal or too long.
    bool set_private_key(const char* hex);
    bool set_public_key(const char* x_hex, const char* y_hex);
    void gen_keys();
    // Each text holds 16 * limbs + 1 bytes.
    void get_public_key(char* x_hex, char* y_hex) const;
    bool set_k(const char* hex);
    void gen_k();

    bool encode(unsigned char* dst, int& length, const unsigned char* src, int src_length);
    bool decode(unsigned char* dst, int& length, const unsigned char* src, int src_length);

    int get_limbs() const { return limbs; }

private:
    struct Number {
        uint64_t* v;
        int n;
    };

    void init(const char* p, const char* a, const char* b, const char* n, const char* gx,
              const char* gy);
    bool read_hex(Number& number, const char* hex);
    void reduce_below_order(Number& number);
    void derive_public_key();
    void to_bytes(const Number& number, unsigned char* dst) const;
    void mask(unsigned char* data, int length) const;
    // x2 and y2 as bytes, then the key stream xored into data.
    void shared_secret(unsigned char* xy, const uint64_t* x2, int x2n, const uint64_t* y2,
                       int y2n) const;

    Number p, a, b, n, gx, gy, d, px, py, k;
    int bits;   // of p
    int limbs;  // of every number
    Base::Random random;
    bool mask_with_public_key;
    uint64_t* storage;
};

}  // namespace Cipher

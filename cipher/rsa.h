// Cipher::Rsa: RSA over the big integers of mpint.h, as raw blocks and as
// RSAES-OAEP of PKCS #1 v2 with SHA-1 and an empty label.
//
// Keys are big-endian byte strings. The block size k is the limb count of n
// times 8 (128 bytes for a 1024-bit modulus).
//
// Raw form: the input is cut into blocks of k - 1 bytes, each taken as limbs
// in host byte order (the first byte is the lowest) and raised to e modulo
// n; each result is k bytes in the same order. The last block is
// zero-padded and its true length isn't kept. decode() gives k - 1 bytes per
// whole block and ignores a tail.
//
// OAEP: blocks of up to k - 42 message bytes, each giving k big-endian
// bytes; a message of 0 bytes gives none. A key too small for OAEP or a
// block that doesn't decode sets length to -1 and gives false. With a null
// dst every coder only sets length (for decode_oaep an upper bound).
//
// Coding reads the object only; each call has its own generator.
#pragma once

#include <cstdint>

namespace Cipher {

class Rsa {
public:
    Rsa();
    ~Rsa();
    Rsa(const Rsa&) = delete;
    Rsa& operator=(const Rsa&) = delete;

    // A null pointer leaves that number as it is.
    void set_keys(const char* n, int n_length, const char* e, int e_length, const char* d,
                  int d_length);
    // Shortest big-endian forms; a null pointer gets only its length.
    void get_keys(char* n, int& n_length, char* e, int& e_length, char* d, int& d_length) const;
    // n = p q, e random and coprime to (p - 1)(q - 1), d = e^-1 modulo it.
    bool gen_keys(const char* p, int p_length, const char* q, int q_length);

    bool encode(void* dst, int& length, const void* src, int src_length) const;
    bool decode(void* dst, int& length, const void* src, int src_length) const;
    bool encode_oaep(char* dst, int& length, const char* src, int src_length) const;
    bool decode_oaep(char* dst, int& length, const char* src, int src_length) const;

    int get_block_size() const { return n.n * 8; }

private:
    struct Number {
        uint64_t* v = nullptr;
        int n = 0;
    };
    static void set_number(Number& number, const char* bytes, int length);
    // r = x^exponent mod n; x and r hold n.n limbs.
    void power(uint64_t* r, const uint64_t* x, const Number& exponent) const;

    Number n, e, d;
};

// MGF1 of PKCS #1 with SHA-1: the digests of the seed followed by a 32-bit
// big-endian counter from 0, joined and cut to mask_length.
class Mgf1 {
public:
    static void calc_sha1(const char* seed, int seed_length, char* mask, int mask_length);
};

}  // namespace Cipher

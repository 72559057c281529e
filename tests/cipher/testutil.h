// Small helpers shared by the cipher tests: hex text of bytes and back, a
// seeded byte generator so that a failure can be reproduced, one mode pass
// of any block cipher, the rows of data/known_answers.txt, and OpenSSL's
// EVP ciphers as an oracle.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/support/data_file.h"

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace CipherTest {

typedef std::vector<unsigned char> Bytes;

inline std::string to_hex(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

inline std::string to_hex(const Bytes& b) { return to_hex(b.data(), b.size()); }

// Hex text to bytes; "-" (a data file's empty field) gives none.
inline Bytes from_hex(const std::string& s) {
    Bytes b;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        b.push_back((unsigned char)std::stoi(s.substr(i, 2), nullptr, 16));
    return b;
}

inline Bytes random_bytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& c : b)
        c = (unsigned char)rng();
    return b;
}

// The rows of data/known_answers.txt whose first field is kind.
inline std::vector<std::vector<const char*>> known(const char* kind) {
    std::vector<std::vector<const char*>> out;
    for (auto& row : test_data::rows("cipher/data/known_answers.txt"))
        if (std::strcmp(row[0], kind) == 0) out.push_back(row);
    EXPECT_FALSE(out.empty()) << "no rows of " << kind;
    return out;
}

// One pass of a block cipher in mode "ecb", "cbc" or "ctr", in place when
// asked; an empty iv passes a null pointer with the block size.
template <class C>
Bytes run(C& c, const std::string& mode, bool encode, const Bytes& iv, const Bytes& in, bool padding,
          bool in_place = false) {
    Bytes out(in.size() + 32);
    std::copy(in.begin(), in.end(), out.begin());
    const unsigned char* src = in_place ? out.data() : in.data();
    const unsigned char* v = iv.empty() ? nullptr : iv.data();
    int n = int(in.size()), length = -1, vn = iv.empty() ? C::BLOCK_SIZE : int(iv.size());
    bool ok = mode == "ecb"   ? (encode ? c.encode_ecb(out.data(), length, src, n, padding)
                                        : c.decode_ecb(out.data(), length, src, n, padding))
              : mode == "cbc" ? (encode ? c.encode_cbc(out.data(), length, src, n, padding, v, vn)
                                        : c.decode_cbc(out.data(), length, src, n, padding, v, vn))
                              : (encode ? c.encode_ctr(out.data(), length, src, n, v, vn)
                                        : c.decode_ctr(out.data(), length, src, n, v, vn));
    EXPECT_TRUE(ok) << mode;
    out.resize(ok ? size_t(length) : 0);
    return out;
}

#ifdef QEL_HAVE_OPENSSL
// One encryption by an EVP cipher; ok false on failure.
inline Bytes evp_run(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& iv, const Bytes& in,
                     bool padding, bool& ok) {
    Bytes out(in.size() + 64);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n1 = 0, n2 = 0;
    ok = EVP_EncryptInit_ex(ctx, cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data()) == 1 &&
         EVP_CIPHER_CTX_set_padding(ctx, padding ? 1 : 0) == 1 &&
         EVP_EncryptUpdate(ctx, out.data(), &n1, in.data(), int(in.size())) == 1 &&
         EVP_EncryptFinal_ex(ctx, out.data() + n1, &n2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    out.resize(ok ? size_t(n1 + n2) : 0);
    return out;
}
#endif

}  // namespace CipherTest

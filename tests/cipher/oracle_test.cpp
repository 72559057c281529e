// The block ciphers against OpenSSL as an independent implementation:
// random keys, IVs and lengths through ECB, CBC and CTR, in place or not,
// with counters that carry into their high half or wrap at the top.
#ifdef QEL_HAVE_OPENSSL

#include "cipher/aes.h"
#include "cipher/des.h"
#include "cipher/sm4.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <memory>

using namespace CipherTest;

namespace {

// The counter-mode stream from OpenSSL's ECB and a counter kept here, for
// ciphers that OpenSSL offers no CTR mode for.
Bytes ctr_by_ecb(const EVP_CIPHER* ecb, const Bytes& key, Bytes counter, const Bytes& in) {
    Bytes blocks;
    for (size_t at = 0; at < in.size(); at += counter.size()) {
        blocks.insert(blocks.end(), counter.begin(), counter.end());
        for (size_t i = counter.size(); i-- > 0 && ++counter[i] == 0;) {
        }
    }
    bool ok = false;
    Bytes stream = evp_run(ecb, key, Bytes(), blocks, false, ok);
    EXPECT_TRUE(ok);
    stream.resize(in.size());
    for (size_t i = 0; i < in.size(); ++i)
        stream[i] ^= in[i];
    return stream;
}

template <class C, class Make>
void compare(OSSL_LIB_CTX* libctx, const std::string& stem, size_t key_size, Make make, unsigned seed) {
    EVP_CIPHER* ecb = EVP_CIPHER_fetch(libctx, (stem + "-ECB").c_str(), nullptr);
    EVP_CIPHER* cbc = EVP_CIPHER_fetch(libctx, (stem + "-CBC").c_str(), nullptr);
    EVP_CIPHER* ctr = EVP_CIPHER_fetch(libctx, (stem + "-CTR").c_str(), nullptr);
    ASSERT_TRUE(ecb && cbc) << stem;
    std::mt19937 rng(seed);
    const size_t b = C::BLOCK_SIZE;
    for (int round = 0; round < 30; ++round) {
        Bytes key = random_bytes(rng, key_size), iv = random_bytes(rng, b);
        std::unique_ptr<C> ours = make(key);
        if (round % 5 == 1)
            std::fill(iv.begin() + b / 2, iv.end(), 0xff);
        if (round % 5 == 3)
            std::fill(iv.begin(), iv.end(), 0xff);
        bool padding = round % 2 == 0, in_place = round % 3 == 0, ok = false;
        size_t n = rng() % (round % 7 == 0 ? 4097 : 200);
        if (!padding)
            n -= n % b;
        Bytes plain = random_bytes(rng, n);
        std::string where = stem + " round " + std::to_string(round);
        for (const char* mode : {"ecb", "cbc"}) {
            bool is_ecb = mode[0] == 'e';
            Bytes expect = evp_run(is_ecb ? ecb : cbc, key, is_ecb ? Bytes() : iv, plain, padding, ok);
            ASSERT_TRUE(ok) << where;
            EXPECT_EQ(to_hex(run(*ours, mode, true, iv, plain, padding, in_place)), to_hex(expect)) << mode << where;
            EXPECT_EQ(to_hex(run(*ours, mode, false, iv, expect, padding, !in_place)), to_hex(plain)) << mode << where;
        }
        plain = random_bytes(rng, rng() % 300);  // CTR takes any length
        Bytes expect = ctr ? evp_run(ctr, key, iv, plain, false, ok) : ctr_by_ecb(ecb, key, iv, plain);
        EXPECT_EQ(to_hex(run(*ours, "ctr", true, iv, plain, false, in_place)), to_hex(expect)) << where;
        EXPECT_EQ(to_hex(run(*ours, "ctr", false, iv, expect, false, !in_place)), to_hex(plain)) << where;
    }
    EVP_CIPHER_free(ecb);
    EVP_CIPHER_free(cbc);
    EVP_CIPHER_free(ctr);
}

}  // namespace

TEST(Oracle, AesAgreesWithOpenSsl) {
    for (size_t size : {16, 24, 32})
        compare<Cipher::Aes>(nullptr, "AES-" + std::to_string(size * 8), size, [](const Bytes& k) {
            return std::unique_ptr<Cipher::Aes>(new Cipher::Aes(k.data(), int(k.size())));
        }, 128 + unsigned(size));
}

TEST(Oracle, TripleDesAgreesWithOpenSsl) {
    compare<Cipher::TripleDes>(nullptr, "DES-EDE3", 24, [](const Bytes& k) {
        return std::unique_ptr<Cipher::TripleDes>(new Cipher::TripleDes(k.data(), k.data() + 8, k.data() + 16));
    }, 3);
}

TEST(Oracle, Sm4AgreesWithOpenSsl) {
    EVP_CIPHER* probe = EVP_CIPHER_fetch(nullptr, "SM4-CTR", nullptr);
    if (!probe)
        GTEST_SKIP() << "this OpenSSL has no SM4";
    EVP_CIPHER_free(probe);
    compare<Cipher::Sm4>(nullptr, "SM4", 16, [](const Bytes& k) {
        return std::unique_ptr<Cipher::Sm4>(new Cipher::Sm4(k.data()));
    }, 4);
}

TEST(Oracle, SingleDesAgreesWithOpenSslLegacy) {
    // Single DES lives in OpenSSL's legacy provider, loaded into a private
    // library context so the rest of the process is untouched.
    OSSL_LIB_CTX* libctx = OSSL_LIB_CTX_new();
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(libctx, "legacy");
    OSSL_PROVIDER* base = OSSL_PROVIDER_load(libctx, "default");
    EVP_CIPHER* probe = legacy ? EVP_CIPHER_fetch(libctx, "DES-CBC", nullptr) : nullptr;
    if (probe) {
        EVP_CIPHER_free(probe);
        compare<Cipher::Des>(libctx, "DES", 8, [](const Bytes& k) {
            return std::unique_ptr<Cipher::Des>(new Cipher::Des(k.data()));
        }, 1);
    }
    if (legacy)
        OSSL_PROVIDER_unload(legacy);
    if (base)
        OSSL_PROVIDER_unload(base);
    OSSL_LIB_CTX_free(libctx);
    if (!probe)
        GTEST_SKIP() << "OpenSSL's legacy provider is not available; DES rests on its known answers";
}

#endif  // QEL_HAVE_OPENSSL

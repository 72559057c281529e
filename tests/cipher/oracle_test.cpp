// The block ciphers against OpenSSL as an independent implementation:
// random keys, IVs and lengths through ECB, CBC and CTR.
#ifdef QEL_HAVE_OPENSSL

#include "cipher/aes.h"
#include "cipher/des.h"
#include "cipher/sm4.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <functional>
#include <memory>

using namespace CipherTest;

namespace {

// One pass of an EVP cipher; an empty result with ok false on failure.
Bytes evp_run(EVP_CIPHER* cipher, bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& in,
              bool padding, bool& ok) {
    ok = false;
    Bytes out(in.size() + 64);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n1 = 0, n2 = 0;
    if (EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data(),
                          encrypt ? 1 : 0) == 1 &&
        EVP_CIPHER_CTX_set_padding(ctx, padding ? 1 : 0) == 1 &&
        EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), int(in.size())) == 1 &&
        EVP_CipherFinal_ex(ctx, out.data() + n1, &n2) == 1) {
        ok = true;
        out.resize(size_t(n1 + n2));
    } else {
        out.clear();
    }
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

// Our cipher seen through one interface, so that all cases share a loop.
struct Ours {
    int block;
    std::function<bool(unsigned char*, int&, const unsigned char*, int, bool)> encode_ecb, decode_ecb;
    std::function<bool(unsigned char*, int&, const unsigned char*, int, bool, const unsigned char*, int)>
        encode_cbc, decode_cbc;
    std::function<bool(unsigned char*, int&, const unsigned char*, int, const unsigned char*, int)>
        encode_ctr, decode_ctr;
    std::shared_ptr<void> holder;
};

template <class C>
Ours wrap(std::shared_ptr<C> c) {
    Ours o;
    o.block = C::BLOCK_SIZE;
    C* p = c.get();
    o.encode_ecb = [p](unsigned char* d, int& l, const unsigned char* s, int n, bool pad) {
        return p->encode_ecb(d, l, s, n, pad);
    };
    o.decode_ecb = [p](unsigned char* d, int& l, const unsigned char* s, int n, bool pad) {
        return p->decode_ecb(d, l, s, n, pad);
    };
    o.encode_cbc = [p](unsigned char* d, int& l, const unsigned char* s, int n, bool pad,
                       const unsigned char* iv, int ivn) { return p->encode_cbc(d, l, s, n, pad, iv, ivn); };
    o.decode_cbc = [p](unsigned char* d, int& l, const unsigned char* s, int n, bool pad,
                       const unsigned char* iv, int ivn) { return p->decode_cbc(d, l, s, n, pad, iv, ivn); };
    o.encode_ctr = [p](unsigned char* d, int& l, const unsigned char* s, int n, const unsigned char* iv,
                       int ivn) { return p->encode_ctr(d, l, s, n, iv, ivn); };
    o.decode_ctr = [p](unsigned char* d, int& l, const unsigned char* s, int n, const unsigned char* iv,
                       int ivn) { return p->decode_ctr(d, l, s, n, iv, ivn); };
    o.holder = c;
    return o;
}

struct Case {
    const char* name;  // OpenSSL's name stem, e.g. "AES-128"
    int key_size;
    std::function<Ours(const Bytes&)> make;
};

// The counter-mode key stream built from OpenSSL's ECB and a counter kept
// here, for ciphers that OpenSSL offers no CTR mode for.
Bytes ctr_by_ecb(EVP_CIPHER* ecb, const Bytes& key, Bytes counter, const Bytes& in) {
    Bytes blocks;
    size_t b = counter.size();
    for (size_t at = 0; at < in.size(); at += b) {
        blocks.insert(blocks.end(), counter.begin(), counter.end());
        for (size_t i = b; i-- > 0;)
            if (++counter[i])
                break;
    }
    bool ok = false;
    Bytes stream = evp_run(ecb, true, key, Bytes(), blocks, false, ok);
    EXPECT_TRUE(ok);
    Bytes out(in.size());
    for (size_t i = 0; i < in.size(); ++i)
        out[i] = in[i] ^ stream[i];
    return out;
}

void compare_case(OSSL_LIB_CTX* libctx, const Case& c, std::mt19937& rng, int rounds) {
    std::string stem = c.name;
    EVP_CIPHER* ecb = EVP_CIPHER_fetch(libctx, (stem + "-ECB").c_str(), nullptr);
    EVP_CIPHER* cbc = EVP_CIPHER_fetch(libctx, (stem + "-CBC").c_str(), nullptr);
    EVP_CIPHER* ctr = EVP_CIPHER_fetch(libctx, (stem + "-CTR").c_str(), nullptr);
    ASSERT_TRUE(ecb && cbc) << stem;
    for (int round = 0; round < rounds; ++round) {
        Bytes key = random_bytes(rng, size_t(c.key_size));
        Ours ours = c.make(key);
        size_t b = size_t(ours.block);
        Bytes iv = random_bytes(rng, b);
        if (round % 5 == 1)  // carry through the whole counter
            for (size_t i = b / 2; i < b; ++i)
                iv[i] = 0xff;
        bool padding = round % 2 == 0;
        size_t n = rng() % (round % 7 == 0 ? 4097 : 200);
        if (!padding)
            n -= n % b;
        Bytes plain = random_bytes(rng, n), out(n + b), back(n + b);
        std::string where = stem + " n=" + std::to_string(n) + " padding=" + std::to_string(padding);
        bool ok = false;
        int length = -1;

        Bytes expect = evp_run(ecb, true, key, Bytes(), plain, padding, ok);
        ASSERT_TRUE(ok) << where;
        ASSERT_TRUE(ours.encode_ecb(out.data(), length, plain.data(), int(n), padding)) << where;
        ASSERT_EQ(size_t(length), expect.size()) << where;
        EXPECT_EQ(to_hex(out.data(), expect.size()), to_hex(expect)) << "ECB " << where;
        ASSERT_TRUE(ours.decode_ecb(back.data(), length, expect.data(), int(expect.size()), padding));
        EXPECT_EQ(to_hex(back.data(), size_t(length)), to_hex(plain)) << "ECB " << where;

        expect = evp_run(cbc, true, key, iv, plain, padding, ok);
        ASSERT_TRUE(ok) << where;
        ASSERT_TRUE(ours.encode_cbc(out.data(), length, plain.data(), int(n), padding, iv.data(), int(b)));
        ASSERT_EQ(size_t(length), expect.size()) << where;
        EXPECT_EQ(to_hex(out.data(), expect.size()), to_hex(expect)) << "CBC " << where;
        ASSERT_TRUE(ours.decode_cbc(back.data(), length, expect.data(), int(expect.size()), padding,
                                    iv.data(), int(b)));
        EXPECT_EQ(to_hex(back.data(), size_t(length)), to_hex(plain)) << "CBC " << where;

        // CTR takes any length, so use the unrounded one.
        plain = random_bytes(rng, rng() % 300);
        if (ctr) {
            expect = evp_run(ctr, true, key, iv, plain, false, ok);
            ASSERT_TRUE(ok) << where;
        } else {
            expect = ctr_by_ecb(ecb, key, iv, plain);
        }
        out.resize(plain.size() + 1);
        back.resize(plain.size() + 1);
        ASSERT_TRUE(ours.encode_ctr(out.data(), length, plain.data(), int(plain.size()), iv.data(), int(b)));
        ASSERT_EQ(size_t(length), plain.size());
        EXPECT_EQ(to_hex(out.data(), plain.size()), to_hex(expect)) << "CTR " << where;
        ASSERT_TRUE(ours.decode_ctr(back.data(), length, expect.data(), int(expect.size()), iv.data(), int(b)));
        EXPECT_EQ(to_hex(back.data(), plain.size()), to_hex(plain)) << "CTR " << where;
    }
    EVP_CIPHER_free(ecb);
    EVP_CIPHER_free(cbc);
    EVP_CIPHER_free(ctr);
}

Ours make_aes(const Bytes& key) {
    return wrap(std::make_shared<Cipher::Aes>(key.data(), int(key.size())));
}

}  // namespace

TEST(Oracle, AesAgreesWithOpenSsl) {
    std::mt19937 rng(128);
    for (Case c : {Case{"AES-128", 16, make_aes}, Case{"AES-192", 24, make_aes},
                   Case{"AES-256", 32, make_aes}})
        compare_case(nullptr, c, rng, 30);
}

TEST(Oracle, TripleDesAgreesWithOpenSsl) {
    std::mt19937 rng(3);
    Case c{"DES-EDE3", 24, [](const Bytes& k) {
               return wrap(std::make_shared<Cipher::TripleDes>(k.data(), k.data() + 8, k.data() + 16));
           }};
    compare_case(nullptr, c, rng, 30);
}

TEST(Oracle, Sm4AgreesWithOpenSsl) {
    EVP_CIPHER* probe = EVP_CIPHER_fetch(nullptr, "SM4-CTR", nullptr);
    if (!probe)
        GTEST_SKIP() << "this OpenSSL has no SM4";
    EVP_CIPHER_free(probe);
    std::mt19937 rng(4);
    Case c{"SM4", 16, [](const Bytes& k) { return wrap(std::make_shared<Cipher::Sm4>(k.data())); }};
    compare_case(nullptr, c, rng, 30);
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
        std::mt19937 rng(1);
        Case c{"DES", 8, [](const Bytes& k) { return wrap(std::make_shared<Cipher::Des>(k.data())); }};
        compare_case(libctx, c, rng, 30);
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

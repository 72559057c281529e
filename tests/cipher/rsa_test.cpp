// RSA and OAEP: block sizes and failures, raw round trips, key generation
// from two primes, and OAEP exchanged with OpenSSL in both directions.
#include "cipher/rsa.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/random.h"
#include "cipher/mpint.h"
#include "tests/cipher/testutil.h"

#ifdef QEL_HAVE_OPENSSL
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#endif

using namespace Cipher;

namespace {

std::vector<char> prime_bytes(Base::Random* random, int bits)
{
    std::vector<uint64_t> limbs(bits / 64 + 1);
    int n;
    mpi_gen_prime(random, bits, 16, limbs.data(), n);
    int length;
    mpi_to_bytes(limbs.data(), n, nullptr, length, true);
    std::vector<char> out(length);
    mpi_to_bytes(limbs.data(), n, out.data(), length, true);
    return out;
}

}  // namespace

TEST(RsaTest, Mgf1Vectors)
{
    for (auto& row : CipherTest::known("mgf1")) {
        CipherTest::Bytes seed = CipherTest::from_hex(row[1]), mask(std::strlen(row[2]) / 2);
        Mgf1::calc_sha1((const char*)seed.data(), (int)seed.size(), (char*)mask.data(), (int)mask.size());
        EXPECT_EQ(CipherTest::to_hex(mask), row[2]);
    }
    // Longer than one digest: the counter runs 0, 1, ...
    char long_mask[50], head[20];
    Mgf1::calc_sha1("seed", 4, long_mask, 50);
    Mgf1::calc_sha1("seed", 4, head, 20);
    EXPECT_EQ(0, std::memcmp(long_mask, head, 20));
}

TEST(RsaTest, GeneratedKeyBlocksAndFailures)
{
    Base::Random random(20261123);
    std::vector<char> p = prime_bytes(&random, 512), q = prime_bytes(&random, 512);
    Rsa rsa;
    ASSERT_TRUE(rsa.gen_keys(p.data(), (int)p.size(), q.data(), (int)q.size()));
    char n[256], e[256], d[256];
    int nl, el, dl;
    rsa.get_keys(n, nl, e, el, d, dl);
    EXPECT_EQ(128, nl);
    EXPECT_EQ(128, rsa.get_block_size());
    EXPECT_GT(el, 56);  // e is drawn at half the width of n

    // 86 bytes fit one block, 87 need two.
    std::vector<char> message(200);
    for (size_t i = 0; i < message.size(); i++)
        message[i] = (char)(i * 7 + 1);
    int length;
    ASSERT_TRUE(rsa.encode_oaep(nullptr, length, message.data(), 86));
    EXPECT_EQ(128, length);
    ASSERT_TRUE(rsa.encode_oaep(nullptr, length, message.data(), 87));
    EXPECT_EQ(256, length);
    ASSERT_TRUE(rsa.encode_oaep(nullptr, length, message.data(), 0));
    EXPECT_EQ(0, length);

    std::vector<char> c1(256), c2(256), back(256);
    ASSERT_TRUE(rsa.encode_oaep(c1.data(), length, message.data(), 87));
    ASSERT_EQ(256, length);
    ASSERT_TRUE(rsa.encode_oaep(c2.data(), length, message.data(), 87));
    EXPECT_NE(c1, c2);  // a fresh seed each time
    int back_length;
    ASSERT_TRUE(rsa.decode_oaep(back.data(), back_length, c1.data(), 256));
    ASSERT_EQ(87, back_length);
    EXPECT_EQ(0, std::memcmp(back.data(), message.data(), 87));

    // A changed byte in either block fails the whole decode.
    for (int pos : {5, 127, 128 + 60}) {
        std::vector<char> bad = c1;
        bad[pos] ^= 0x01;
        EXPECT_FALSE(rsa.decode_oaep(back.data(), back_length, bad.data(), 256));
        EXPECT_EQ(-1, back_length);
    }

    // Raw blocks of k - 1 bytes come back, the last one zero-padded; a tail
    // short of a block is ignored.
    std::vector<char> raw(128 * 2 + 17), raw_back(127 * 2);
    ASSERT_TRUE(rsa.encode(raw.data(), length, message.data(), 130));
    EXPECT_EQ(256, length);
    ASSERT_TRUE(rsa.decode(raw_back.data(), back_length, raw.data(), 256 + 17));
    EXPECT_EQ(254, back_length);
    EXPECT_EQ(0, std::memcmp(raw_back.data(), message.data(), 130));
    EXPECT_EQ(0, raw_back[130]);  // the zero padding of the last block

    // A key of 40 bytes is too small for OAEP.
    Rsa small;
    std::vector<char> n40(40, (char)0xC5);
    small.set_keys(n40.data(), 40, "\x01\x00\x01", 3, nullptr, 0);
    EXPECT_FALSE(small.encode_oaep(nullptr, length, message.data(), 1));
    EXPECT_EQ(-1, length);
}

#ifdef QEL_HAVE_OPENSSL
namespace {

std::vector<char> bn_bytes(EVP_PKEY* key, const char* name)
{
    BIGNUM* bn = nullptr;
    EVP_PKEY_get_bn_param(key, name, &bn);
    std::vector<char> out(BN_num_bytes(bn));
    BN_bn2bin(bn, (unsigned char*)out.data());
    BN_free(bn);
    return out;
}

EVP_PKEY* openssl_key(const std::vector<char>& n, const std::vector<char>& e, const std::vector<char>& d)
{
    BIGNUM* bn[3];
    const std::vector<char>* parts[3] = {&n, &e, &d};
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    const char* names[3] = {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_D};
    for (int i = 0; i < 3; i++) {
        bn[i] = BN_bin2bn((const unsigned char*)parts[i]->data(), (int)parts[i]->size(), nullptr);
        OSSL_PARAM_BLD_push_BN(bld, names[i], bn[i]);
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata_init(ctx) <= 0 || EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params) <= 0)
        key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    for (BIGNUM* b : bn)
        BN_free(b);
    return key;
}

// OpenSSL's OAEP defaults: SHA-1 for the hash and MGF1, an empty label.
std::vector<char> openssl_crypt(EVP_PKEY* key, bool encrypt, const std::vector<char>& in)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    std::vector<char> out(512);
    size_t length = out.size();
    int ok = encrypt ? EVP_PKEY_encrypt_init(ctx) : EVP_PKEY_decrypt_init(ctx);
    if (ok == 1)
        ok = EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING);
    if (ok == 1)
        ok = encrypt ? EVP_PKEY_encrypt(ctx, (unsigned char*)out.data(), &length,
                                        (const unsigned char*)in.data(), in.size())
                     : EVP_PKEY_decrypt(ctx, (unsigned char*)out.data(), &length,
                                        (const unsigned char*)in.data(), in.size());
    EVP_PKEY_CTX_free(ctx);
    if (ok != 1)
        return {};
    out.resize(length);
    return out;
}

}  // namespace

TEST(RsaTest, OaepInteroperatesWithOpenssl)
{
    // A key made by OpenSSL, used here through its n, e and d.
    EVP_PKEY* key = EVP_RSA_gen(1024);
    ASSERT_NE(nullptr, key);
    std::vector<char> n = bn_bytes(key, OSSL_PKEY_PARAM_RSA_N), e = bn_bytes(key, OSSL_PKEY_PARAM_RSA_E),
                      d = bn_bytes(key, OSSL_PKEY_PARAM_RSA_D);
    Rsa rsa;
    rsa.set_keys(n.data(), (int)n.size(), e.data(), (int)e.size(), d.data(), (int)d.size());
    for (int size : {1, 40, 86}) {
        std::vector<char> message(size);
        for (int i = 0; i < size; i++)
            message[i] = (char)(i * 31 + size);
        std::vector<char> ours(128);
        int length;
        ASSERT_TRUE(rsa.encode_oaep(ours.data(), length, message.data(), size));
        EXPECT_EQ(message, openssl_crypt(key, false, ours)) << size;

        std::vector<char> theirs = openssl_crypt(key, true, message);
        ASSERT_EQ(128u, theirs.size());
        std::vector<char> back(128);
        ASSERT_TRUE(rsa.decode_oaep(back.data(), length, theirs.data(), 128));
        back.resize(length);
        EXPECT_EQ(message, back) << size;
    }

    // A key generated here from OpenSSL's primes serves OpenSSL as well.
    std::vector<char> p = bn_bytes(key, OSSL_PKEY_PARAM_RSA_FACTOR1),
                      q = bn_bytes(key, OSSL_PKEY_PARAM_RSA_FACTOR2);
    Rsa generated;
    ASSERT_TRUE(generated.gen_keys(p.data(), (int)p.size(), q.data(), (int)q.size()));
    std::vector<char> gn(256), ge(256), gd(256);
    int gnl, gel, gdl;
    generated.get_keys(gn.data(), gnl, ge.data(), gel, gd.data(), gdl);
    gn.resize(gnl);
    ge.resize(gel);
    gd.resize(gdl);
    EXPECT_EQ(n, gn);
    EVP_PKEY* other = openssl_key(gn, ge, gd);
    ASSERT_NE(nullptr, other);
    std::vector<char> message(50, 'z'), ours(128);
    int length;
    ASSERT_TRUE(generated.encode_oaep(ours.data(), length, message.data(), 50));
    EXPECT_EQ(message, openssl_crypt(other, false, ours));
    EVP_PKEY_free(other);
    EVP_PKEY_free(key);
}
#endif

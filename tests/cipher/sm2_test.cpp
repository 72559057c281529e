// SM2 and the curve arithmetic: the published encryption example, edge
// cases of encode and decode, and exchange with OpenSSL in both directions.
#include "cipher/sm2.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cipher/ecc.h"
#include "cipher/mpint.h"
#include "tests/cipher/testutil.h"

#ifdef QEL_HAVE_OPENSSL
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#endif

using namespace Cipher;
using CipherTest::from_hex;
using CipherTest::to_hex;

namespace {

const char* const SM2_N = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123";
const char* const SM2_P = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF";
const char* const SM2_A = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFC";
const char* const SM2_B = "28E9FA9E9D9F5E344D5A9E4BCF6509A7F39789F515AB8F92DDBCBD414D940E93";
const char* const SM2_GX = "32C4AE2C1F1981195F9904466A39C9948FE30BBFF2660BE1715A4589334C74C7";
const char* const SM2_GY = "BC3736A2F4F6779C59BDCEE36B692153D0A9877CC62A474002DF32E52139F0A0";

struct Curve {
    uint64_t p[4], a[4], b[4], n[4], gx[4], gy[4];
    int pn, an, bn, nn, gxn, gyn;
    Curve()
    {
        mpi_from_hex(p, pn, SM2_P);
        mpi_from_hex(a, an, SM2_A);
        mpi_from_hex(b, bn, SM2_B);
        mpi_from_hex(n, nn, SM2_N);
        mpi_from_hex(gx, gxn, SM2_GX);
        mpi_from_hex(gy, gyn, SM2_GY);
    }
};

std::string random_scalar_hex(std::mt19937_64& rng)
{
    // Below n: the top limb of n starts FFFFFFFE, so a top limb with a
    // clear high bit is always smaller.
    char text[80];
    std::snprintf(text, sizeof(text), "%016llX%016llX%016llX%016llX",
                  (unsigned long long)(rng() >> 1), (unsigned long long)rng(),
                  (unsigned long long)rng(), (unsigned long long)rng());
    return text;
}

}  // namespace

TEST(Sm2Test, PublishedExample)
{
    std::map<std::string, std::string> v;
    for (auto& row : CipherTest::known("sm2"))
        v[row[1]] = row[2];
    Sm2 sm2(v["p"].c_str(), v["a"].c_str(), v["b"].c_str(), v["n"].c_str(), v["gx"].c_str(), v["gy"].c_str(),
            false);
    ASSERT_TRUE(sm2.set_private_key(v["d"].c_str()));
    char x[80], y[80];
    sm2.get_public_key(x, y);
    EXPECT_STREQ(v["x"].c_str(), x);
    EXPECT_STREQ(v["y"].c_str(), y);
    ASSERT_TRUE(sm2.set_k(v["k"].c_str()));
    CipherTest::Bytes message = from_hex(v["message"]), out(message.size() + 97), back(out.size());
    int length = 0;
    ASSERT_TRUE(sm2.encode(nullptr, length, message.data(), (int)message.size()));
    EXPECT_EQ((int)out.size(), length);
    ASSERT_TRUE(sm2.encode(out.data(), length, message.data(), (int)message.size()));
    EXPECT_EQ(v["cipher"], to_hex(out));
    ASSERT_TRUE(sm2.decode(back.data(), length, out.data(), length));
    back.resize(length);
    EXPECT_EQ(message, back);
}

TEST(Sm2Test, CurveArithmetic)
{
    Curve c;
    EXPECT_TRUE(ecc_point_check(c.gx, c.gxn, c.gy, c.gyn, c.a, c.an, c.b, c.bn, c.p, c.pn));
    EXPECT_TRUE(ecc_point_check(nullptr, 0, nullptr, 0, c.a, c.an, c.b, c.bn, c.p, c.pn));
    uint64_t bad_y[4];
    std::memcpy(bad_y, c.gy, 32);
    bad_y[0] ^= 1;
    EXPECT_FALSE(ecc_point_check(c.gx, c.gxn, bad_y, 4, c.a, c.an, c.b, c.bn, c.p, c.pn));

    // n G and 0 G are infinity, (n - 1) G is -G, 1 G is G.
    uint64_t rx[4] = {}, ry[4] = {}, nm1[4], one[1] = {1};
    int rxn, ryn;
    auto mul = [&](const uint64_t* k, int kn) {
        ecc_point_mul_jacobian(rx, rxn, ry, ryn, c.gx, c.gxn, c.gy, c.gyn, k, kn, c.a, c.an, c.p, c.pn);
    };
    mul(c.n, c.nn);
    EXPECT_TRUE(ecc_point_is_infinite(rx, rxn, ry, ryn));
    mul(one, 0);
    EXPECT_TRUE(ecc_point_is_infinite(rx, rxn, ry, ryn));
    mul(one, 1);
    EXPECT_TRUE(ecc_point_equal(rx, rxn, ry, ryn, c.gx, c.gxn, c.gy, c.gyn));
    std::memcpy(nm1, c.n, 32);
    nm1[0] -= 1;
    mul(nm1, 4);
    EXPECT_TRUE(ecc_point_is_negative(c.gx, c.gxn, c.gy, c.gyn, rx, rxn, ry, ryn, c.p, c.pn));

    // Affine and Jacobian forms agree; y is recovered from x up to its sign.
    std::mt19937_64 rng(3);
    for (int i = 0; i < 4; i++) {
        uint64_t k[4] = {rng(), rng(), rng(), rng() >> 1}, ax[4] = {}, ay[4] = {}, y[5];
        int axn, ayn, yn;
        ecc_point_mul(ax, axn, ay, ayn, c.gx, c.gxn, c.gy, c.gyn, k, 4, c.a, c.an, c.p, c.pn);
        mul(k, 4);
        EXPECT_TRUE(ecc_point_equal(ax, axn, ay, ayn, rx, rxn, ry, ryn));
        ASSERT_TRUE(ecc_point_y(y, yn, rx, rxn, c.a, c.an, c.b, c.bn, c.p, c.pn));
        if (!mpi_equal_num(y, yn, ry, ryn))
            ecc_point_set_negative(rx, rxn, y, yn, c.p, c.pn);
        EXPECT_TRUE(mpi_equal_num(y, yn, ry, ryn));
    }
    // P + (-P) is infinity; P + P is 2 P.
    uint64_t ny[4], two[1] = {2}, sx[4] = {}, sy[4] = {};
    int nyn = c.gyn, sxn, syn;
    std::memcpy(ny, c.gy, 32);
    ecc_point_set_negative(c.gx, c.gxn, ny, nyn, c.p, c.pn);
    ecc_point_add(sx, sxn, sy, syn, c.gx, c.gxn, c.gy, c.gyn, c.gx, c.gxn, ny, nyn, c.a, c.an, c.p, c.pn);
    EXPECT_TRUE(ecc_point_is_infinite(sx, sxn, sy, syn));
    ecc_point_add(sx, sxn, sy, syn, c.gx, c.gxn, c.gy, c.gyn, c.gx, c.gxn, c.gy, c.gyn, c.a, c.an, c.p, c.pn);
    mul(two, 1);
    EXPECT_TRUE(ecc_point_equal(sx, sxn, sy, syn, rx, rxn, ry, ryn));
}

TEST(Sm2Test, EncodeDecodeEdges)
{
    Sm2 alice(false), bob(false);
    bob.gen_keys();
    char x[80], y[80];
    bob.get_public_key(x, y);
    EXPECT_EQ(64u, std::strlen(x));
    unsigned char probe[128];
    int probe_length;
    EXPECT_FALSE(alice.encode(probe, probe_length, (const unsigned char*)"m", 1));  // no key
    ASSERT_TRUE(alice.set_public_key(x, y));
    EXPECT_FALSE(alice.encode(probe, probe_length, (const unsigned char*)"m", 1));  // no k

    // 1 byte gives 98 bytes and comes back.
    unsigned char m = 0x5A, out[256], back[256];
    int length = 0, back_length = 0;
    alice.gen_k();
    ASSERT_TRUE(alice.encode(out, length, &m, 1));
    EXPECT_EQ(98, length);
    ASSERT_TRUE(bob.decode(back, back_length, out, length));
    EXPECT_EQ(1, back_length);
    EXPECT_EQ(m, back[0]);
    EXPECT_FALSE(bob.decode(back, back_length, out, 97));  // no message byte
    EXPECT_TRUE(bob.decode(nullptr, back_length, out, length));
    EXPECT_EQ(1, back_length);

    // A flipped bit anywhere in C2 or C3 fails; so does a bad first byte and
    // a C1 moved off the curve.
    const char* text = "a longer message that spans more than one key stream block of SM3";
    int tl = (int)std::strlen(text);
    alice.gen_k();
    ASSERT_TRUE(alice.encode(out, length, (const unsigned char*)text, tl));
    for (int pos : {65 + 1, 65 + 40, 65 + tl - 1, 65 + tl + 1, length - 1}) {
        std::vector<unsigned char> bad(out, out + length);
        bad[pos] ^= 0x10;
        EXPECT_FALSE(bob.decode(back, back_length, bad.data(), length)) << pos;
    }
    std::vector<unsigned char> bad(out, out + length);
    bad[0] = 2;
    EXPECT_FALSE(bob.decode(back, back_length, bad.data(), length));
    bad[0] = 4;
    bad[64] ^= 1;  // y1 of C1
    EXPECT_FALSE(bob.decode(back, back_length, bad.data(), length));
    ASSERT_TRUE(bob.decode(back, back_length, out, length));
    EXPECT_EQ(0, std::memcmp(back, text, tl));

    // A new k gives another ciphertext.
    std::vector<unsigned char> first(out, out + length);
    alice.gen_k();
    ASSERT_TRUE(alice.encode(out, length, (const unsigned char*)text, tl));
    EXPECT_NE(0, std::memcmp(first.data(), out, length));

    // Masked output: readable only by a masked peer.
    Sm2 masked_alice(true), masked_bob(true), plain_bob(false);
    std::string d = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF";
    ASSERT_TRUE(masked_bob.set_private_key(d.c_str()));
    ASSERT_TRUE(plain_bob.set_private_key(d.c_str()));
    masked_bob.get_public_key(x, y);
    ASSERT_TRUE(masked_alice.set_public_key(x, y));
    masked_alice.gen_k();
    ASSERT_TRUE(masked_alice.encode(out, length, (const unsigned char*)text, tl));
    EXPECT_FALSE(plain_bob.decode(back, back_length, out, length));
    ASSERT_TRUE(masked_bob.decode(back, back_length, out, length));
    EXPECT_EQ(0, std::memcmp(back, text, tl));
    // The mask covers the first byte with the low byte of x's low limb.
    uint64_t px[4];
    int pxn;
    mpi_from_hex(px, pxn, x);
    EXPECT_EQ((unsigned char)(4 ^ (px[0] & 0xFF)), out[0]);

    // A private key of at least n is halved below n: n itself becomes n / 2.
    Sm2 big(false), half(false);
    ASSERT_TRUE(big.set_private_key(SM2_N));
    uint64_t n[4], h[4];
    int nn, hn;
    mpi_from_hex(n, nn, SM2_N);
    mpi_shift_right(h, hn, n, nn);
    char hex_half[80];
    mpi_to_hex(hex_half, h, 4, true);
    ASSERT_TRUE(half.set_private_key(hex_half));
    char x2[80], y2[80];
    big.get_public_key(x, y);
    half.get_public_key(x2, y2);
    EXPECT_STREQ(x2, x);
    EXPECT_STREQ(y2, y);
    EXPECT_FALSE(big.set_private_key("12G4"));
}

TEST(Sm2Test, KdfCounterFromOne)
{
    // Two blocks: SM3(z || 00000001) then the first bytes of SM3(z || 00000002).
    char z[5] = {'a', 'b', 'c'};
    char scratch[7], out[40];
    kdf(out, 40, z, 3, scratch);
    EXPECT_EQ(0, std::memcmp(scratch, "abc\0\0\0\2", 7));
    char one[40], scratch2[7];
    kdf(one, 32, z, 3, scratch2);
    EXPECT_EQ(0, std::memcmp(one, out, 32));
    // z at the start of scratch works too.
    std::memcpy(scratch2, z, 3);
    kdf(one, 40, scratch2, 3, scratch2);
    EXPECT_EQ(0, std::memcmp(one, out, 40));
}

#ifdef QEL_HAVE_OPENSSL
namespace {

// OpenSSL writes SM2 ciphertext as DER: SEQUENCE { INTEGER x1, INTEGER y1,
// OCTET STRING C3, OCTET STRING C2 }. These convert from and to C1 C2 C3;
// the test's texts keep every length below 256.
typedef std::vector<unsigned char> Bytes;

void der_put(Bytes& out, unsigned char tag, Bytes content)
{
    out.push_back(tag);
    if (content.size() >= 128)
        out.push_back(0x81);
    out.push_back((unsigned char)content.size());
    out.insert(out.end(), content.begin(), content.end());
}

Bytes der_integer(const unsigned char* be)
{
    int i = 0;
    while (i < 31 && be[i] == 0)
        i++;
    Bytes v;
    if (be[i] & 0x80)
        v.push_back(0);
    v.insert(v.end(), be + i, be + 32);
    return v;
}

Bytes to_openssl(const Bytes& c123)
{
    Bytes body, out;
    der_put(body, 0x02, der_integer(&c123[1]));
    der_put(body, 0x02, der_integer(&c123[33]));
    der_put(body, 0x04, Bytes(c123.end() - 32, c123.end()));
    der_put(body, 0x04, Bytes(c123.begin() + 65, c123.end() - 32));
    der_put(out, 0x30, body);
    return out;
}

Bytes der_get(const unsigned char*& p)
{
    size_t n = p[1], skip = 2;
    if (n == 0x81)
        n = p[2], skip = 3;
    Bytes content(p + skip, p + skip + n);
    p += skip + n;
    return content;
}

Bytes from_openssl(const Bytes& der)
{
    const unsigned char* p = der.data();
    Bytes seq = der_get(p);
    p = seq.data();
    Bytes x = der_get(p), y = der_get(p), c3 = der_get(p), c2 = der_get(p), out(1, 4);
    for (Bytes* v : {&x, &y}) {
        while (v->size() > 32)
            v->erase(v->begin());
        out.insert(out.end(), 32 - v->size(), 0);
        out.insert(out.end(), v->begin(), v->end());
    }
    out.insert(out.end(), c2.begin(), c2.end());
    out.insert(out.end(), c3.begin(), c3.end());
    return out;
}

EVP_PKEY* openssl_sm2_key(const std::string& d_hex, const std::string& x_hex, const std::string& y_hex)
{
    BIGNUM* d = nullptr;
    BN_hex2bn(&d, d_hex.c_str());
    std::vector<unsigned char> pub = from_hex("04" + x_hex + y_hex);
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_PRIV_KEY, d);
    OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, pub.data(), pub.size());
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata_init(ctx) <= 0 || EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params) <= 0)
        key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_free(d);
    return key;
}

}  // namespace

TEST(Sm2Test, InteroperatesWithOpenssl)
{
    std::mt19937_64 rng(99);
    for (int round = 0; round < 3; round++) {
        std::string d = random_scalar_hex(rng);
        Sm2 ours(false);
        ASSERT_TRUE(ours.set_private_key(d.c_str()));
        char x[80], y[80];
        ours.get_public_key(x, y);
        EVP_PKEY* key = openssl_sm2_key(d, x, y);
        ASSERT_NE(nullptr, key);
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);

        // Ours to OpenSSL.
        std::string message = "round " + std::to_string(round) + std::string(round * 40, 'x');
        ours.gen_k();
        int length = 0;
        ours.encode(nullptr, length, (const unsigned char*)message.data(), (int)message.size());
        std::vector<unsigned char> c123(length);
        ASSERT_TRUE(ours.encode(c123.data(), length, (const unsigned char*)message.data(), (int)message.size()));
        std::vector<unsigned char> der = to_openssl(c123);
        ASSERT_EQ(1, EVP_PKEY_decrypt_init(ctx));
        size_t plain_length = 0;
        ASSERT_EQ(1, EVP_PKEY_decrypt(ctx, nullptr, &plain_length, der.data(), der.size()));
        std::vector<unsigned char> plain(plain_length);
        ASSERT_EQ(1, EVP_PKEY_decrypt(ctx, plain.data(), &plain_length, der.data(), der.size()));
        EXPECT_EQ(message, std::string((char*)plain.data(), plain_length));

        // OpenSSL to ours.
        ASSERT_EQ(1, EVP_PKEY_encrypt_init(ctx));
        size_t cipher_length = 0;
        ASSERT_EQ(1, EVP_PKEY_encrypt(ctx, nullptr, &cipher_length, (const unsigned char*)message.data(), message.size()));
        std::vector<unsigned char> theirs(cipher_length);
        ASSERT_EQ(1, EVP_PKEY_encrypt(ctx, theirs.data(), &cipher_length, (const unsigned char*)message.data(), message.size()));
        theirs.resize(cipher_length);
        std::vector<unsigned char> converted = from_openssl(theirs);
        std::vector<unsigned char> back(converted.size());
        int back_length = 0;
        ASSERT_TRUE(ours.decode(back.data(), back_length, converted.data(), (int)converted.size()));
        EXPECT_EQ(message, std::string((char*)back.data(), back_length));

        EVP_PKEY_CTX_free(ctx);
        EVP_PKEY_free(key);
    }
}
#endif

// Big integers: limb arithmetic against OpenSSL's BIGNUM on random operands,
// the multiplication paths, text and byte forms, and the MPInt wrapper.
#include "cipher/mpint.h"

#include "base/random.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef QEL_HAVE_OPENSSL
#include <openssl/bn.h>
#endif

using namespace Cipher;

namespace {

typedef std::vector<uint64_t> Limbs;

Limbs random_limbs(std::mt19937_64& rng, int n)
{
    Limbs v(n);
    for (auto& x : v)
        x = rng();
    // Sometimes sparse or saturated limbs, to reach carries and corrections.
    int style = rng() % 4;
    for (auto& x : v) {
        if (style == 1 && rng() % 3 == 0)
            x = ~0ULL;
        if (style == 2 && rng() % 3 == 0)
            x = 0;
    }
    if (n && v[n - 1] == 0)
        v[n - 1] = 1;
    return v;
}

std::string hex(const uint64_t* a, int an)
{
    an = mpi_normalize(a, an);
    std::vector<char> text(16 * an + 2);
    mpi_to_hex(text.data(), a, an, true);
    std::string s = text.data();
    size_t nz = s.find_first_not_of('0');
    return nz == std::string::npos ? "0" : s.substr(nz);
}

#ifdef QEL_HAVE_OPENSSL
struct Bn {
    BIGNUM* bn;
    Bn() : bn(BN_new()) {}
    explicit Bn(const Limbs& v) : bn(BN_new()) { set(v.data(), (int)v.size()); }
    ~Bn() { BN_free(bn); }
    void set(const uint64_t* a, int an)
    {
        std::string h = hex(a, an);
        BN_hex2bn(&bn, h.c_str());
    }
    std::string str() const
    {
        if (BN_is_zero(bn))
            return "0";
        char* h = BN_bn2hex(bn);
        std::string s = h;
        OPENSSL_free(h);
        size_t nz = s.find_first_not_of('0');
        return s.substr(nz);
    }
};
#endif

}  // namespace

TEST(MpintTest, EdgeCases)
{
    // Bytes: minimal or whole limbs out, limbs counted and filled in.
    uint64_t one[1] = {1};
    unsigned char bytes[16];
    int length;
    mpi_to_bytes(one, 1, bytes, length, true);
    EXPECT_EQ(1, length);
    EXPECT_EQ(1, bytes[0]);
    mpi_to_bytes(one, 1, bytes, length, false);
    EXPECT_EQ(8, length);
    EXPECT_EQ(1, bytes[7]);
    const unsigned char nine[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    uint64_t limbs[2];
    int size;
    mpi_from_bytes(nullptr, size, nine, 9);
    EXPECT_EQ(2, size);
    mpi_from_bytes(limbs, size, nine, 9);
    EXPECT_EQ(1u, limbs[1]);
    EXPECT_EQ(0x0203040506070809ULL, limbs[0]);
    EXPECT_EQ(65, mpi_get_bits(limbs, 2));
    EXPECT_EQ(0, mpi_get_bits(nullptr, 0));

    // Primes: 2 and 2^61 - 1 are; 1, 4, Carmichael 561 and a product of two
    // 64-bit primes (no trial divisor) are not.
    uint64_t p1[1] = {18446744073709551557ULL}, p2[1] = {18446744073709551533ULL}, product[2];
    int pn;
    mpi_mul(product, pn, p1, 1, p2, 1);
    EXPECT_FALSE(mpi_is_prime(product, pn, 8));
    for (uint64_t v : {2ULL, 2305843009213693951ULL, 18446744073709551557ULL, 1ULL, 4ULL, 561ULL})
        EXPECT_EQ(v != 1 && v != 4 && v != 561, mpi_is_prime(&v, 1, 8)) << v;

    // Decimal text both ways, across the 19-digit chunks; bad digits refused.
    const char* dec = "340282366920938463463374607431768211457";  // 2^128 + 1
    uint64_t d[4];
    int dn;
    ASSERT_TRUE(mpi_from_dec(d, dn, dec));
    EXPECT_EQ(3, dn);
    char text[128];
    mpi_to_dec(text, d, dn);
    EXPECT_STREQ(dec, text);
    EXPECT_FALSE(mpi_from_dec(d, dn, "12a"));
    EXPECT_FALSE(mpi_from_hex(d, dn, "12g"));
}

TEST(MpintTest, MultiplicationPathsAgree)
{
    std::mt19937_64 rng(7);
    // 16 x 15 limbs takes the schoolbook path, 16 x 16 and longer Karatsuba.
    const int shapes[][2] = {{16, 15}, {16, 16}, {17, 16}, {32, 32}, {40, 23}, {70, 33}, {64, 64}};
    for (auto& shape : shapes) {
        for (int rep = 0; rep < 8; rep++) {
            Limbs a = random_limbs(rng, shape[0]);
            Limbs b = random_limbs(rng, shape[1]);
            Limbs fast(shape[0] + shape[1]), slow(shape[0] + shape[1]);
            int rn;
            mpi_mul(fast.data(), rn, a.data(), shape[0], b.data(), shape[1]);
            mpi_mul_base(slow.data(), a.data(), shape[0], b.data(), shape[1]);
            EXPECT_EQ(mpi_normalize(slow.data(), shape[0] + shape[1]), rn);
            EXPECT_EQ(slow, fast) << shape[0] << "x" << shape[1];
        }
    }
}

#ifdef QEL_HAVE_OPENSSL
TEST(MpintTest, ArithmeticMatchesOpenssl)
{
    std::mt19937_64 rng(12345);
    BN_CTX* ctx = BN_CTX_new();
    for (int iter = 0; iter < 300; iter++) {
        int an = 1 + rng() % 40;
        int bn = 1 + rng() % 40;
        Limbs a = random_limbs(rng, an), b = random_limbs(rng, bn);
        Bn A(a), B(b), R;
        Limbs r(an + bn + 2), q(an + 2);
        int rn, qn;

        mpi_add(r.data(), rn, a.data(), an, b.data(), bn);
        BN_add(R.bn, A.bn, B.bn);
        ASSERT_EQ(R.str(), hex(r.data(), rn));

        mpi_mul(r.data(), rn, a.data(), an, b.data(), bn);
        BN_mul(R.bn, A.bn, B.bn, ctx);
        ASSERT_EQ(R.str(), hex(r.data(), rn)) << an << "x" << bn;

        // Larger minus smaller.
        bool a_big = mpi_cmp(a.data(), an, b.data(), bn) >= 0;
        EXPECT_EQ(a_big, BN_cmp(A.bn, B.bn) >= 0);
        const Limbs &hi = a_big ? a : b, &lo = a_big ? b : a;
        mpi_sub(r.data(), rn, hi.data(), (int)hi.size(), lo.data(), (int)lo.size());
        BN_sub(R.bn, (a_big ? A : B).bn, (a_big ? B : A).bn);
        ASSERT_EQ(R.str(), hex(r.data(), rn));

        // Signed subtraction gives the sign.
        bool neg;
        mpi_sub(r.data(), rn, neg, a.data(), an, false, b.data(), bn, false);
        BN_sub(R.bn, A.bn, B.bn);
        ASSERT_EQ(BN_is_negative(R.bn) != 0, neg);

        // Quotient and remainder.
        Bn Q;
        mpi_div(q.data(), qn, r.data(), rn, a.data(), an, b.data(), bn);
        BN_div(Q.bn, R.bn, A.bn, B.bn, ctx);
        ASSERT_EQ(Q.str(), hex(q.data(), qn)) << an << "/" << bn;
        ASSERT_EQ(R.str(), hex(r.data(), rn));

        uint64_t small = b[0] | 1;
        uint64_t rem = mpi_div(q.data(), qn, a.data(), an, small);
        EXPECT_EQ(BN_mod_word(A.bn, small), rem);

        if (iter % 5 == 0) {  // OpenSSL's constant-time gcd is slow
            mpi_gcd(r.data(), rn, a.data(), an, b.data(), bn);
            BN_gcd(R.bn, A.bn, B.bn, ctx);
            ASSERT_EQ(R.str(), hex(r.data(), rn));
        }
    }

    for (int iter = 0; iter < 40; iter++) {
        int mn = 1 + rng() % 16;
        Limbs m = random_limbs(rng, mn), a = random_limbs(rng, 1 + rng() % 20),
              e = random_limbs(rng, 1 + rng() % 3);
        m[0] |= 1;
        Bn M(m), A(a), E(e), R;
        Limbs r(mn + 2);
        int rn;
        mpi_power_mod(r.data(), rn, a.data(), (int)a.size(), e.data(), (int)e.size(), m.data(), mn);
        BN_mod_exp(R.bn, A.bn, E.bn, M.bn, ctx);
        ASSERT_EQ(R.str(), hex(r.data(), rn));

        bool ok = mpi_inverse(r.data(), rn, a.data(), (int)a.size(), m.data(), mn);
        BIGNUM* inv = BN_mod_inverse(nullptr, A.bn, M.bn, ctx);
        ASSERT_EQ(inv != nullptr, ok);
        if (inv) {
            R.set(r.data(), rn);
            EXPECT_EQ(0, BN_cmp(R.bn, inv));
            BN_free(inv);
        }
    }

    // Integer and modular square roots.
    for (int iter = 0; iter < 30; iter++) {
        Limbs a = random_limbs(rng, 1 + rng() % 12);
        Limbs r(a.size() + 2);
        int rn;
        mpi_square_root(r.data(), rn, a.data(), (int)a.size());
        Bn A(a), R, S;
        R.set(r.data(), rn);
        BN_sqr(S.bn, R.bn, ctx);
        EXPECT_LE(BN_cmp(S.bn, A.bn), 0);
        BN_add_word(R.bn, 1);
        BN_sqr(S.bn, R.bn, ctx);
        EXPECT_GT(BN_cmp(S.bn, A.bn), 0);
    }
    // Primes of both kinds: p = 3 mod 4 takes the short path, p = 1 mod 4
    // (here with a high power of two in p - 1) takes Tonelli-Shanks.
    const char* primes[] = {"FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF",
                            "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF000000000000000000000001",
                            "10001"};
    for (const char* ph : primes) {
        uint64_t p[8];
        int pn;
        ASSERT_TRUE(mpi_from_hex(p, pn, ph));
        Bn P;
        P.set(p, pn);
        for (int iter = 0; iter < 10; iter++) {
            Limbs x = random_limbs(rng, pn);
            Bn X(x), SQ;
            BN_mod_sqr(SQ.bn, X.bn, P.bn, ctx);
            Limbs sq(pn + 1), r(pn + 1);
            int sqn = (int)((BN_num_bytes(SQ.bn) + 7) / 8);
            std::vector<unsigned char> be(BN_num_bytes(SQ.bn));
            BN_bn2bin(SQ.bn, be.data());
            mpi_from_bytes(sq.data(), sqn, be.data(), (int)be.size());
            int rn;
            ASSERT_TRUE(mpi_square_root(r.data(), rn, sq.data(), sqn, p, pn)) << ph;
            Bn R, R2;
            R.set(r.data(), rn);
            BN_mod_sqr(R2.bn, R.bn, P.bn, ctx);
            EXPECT_EQ(0, BN_cmp(R2.bn, SQ.bn)) << ph;
        }
        // p - 1 is never a square modulo a p = 3 mod 4; 3 is none modulo 65537.
        if ((p[0] & 3) == 3) {
            Limbs pm1(p, p + pn);
            pm1[0] -= 1;
            Limbs r(pn + 1);
            int rn;
            EXPECT_FALSE(mpi_square_root(r.data(), rn, pm1.data(), pn, p, pn));
        }
    }
    uint64_t three[1] = {3}, f4[1] = {65537}, r[2];
    int rn;
    EXPECT_FALSE(mpi_square_root(r, rn, three, 1, f4, 1));

    // Primality against OpenSSL on random odd numbers and on products.
    for (int iter = 0; iter < 60; iter++) {
        Limbs a = random_limbs(rng, 1 + rng() % 3);
        a[0] |= 1;
        Bn A(a);
        EXPECT_EQ(BN_check_prime(A.bn, ctx, nullptr) == 1, mpi_is_prime(a.data(), (int)a.size(), 16))
            << hex(a.data(), (int)a.size());
    }
    BN_CTX_free(ctx);
}
#endif

TEST(MpintTest, WrapperSignsAndText)
{
    MPInt a(5UL), b(7UL);
    a.sub(&b);
    EXPECT_TRUE(a.is_negative());
    char text[64];
    a.to_str(text, true);
    EXPECT_STREQ("-0x0000000000000002", text);
    a.neg();
    EXPECT_FALSE(a.is_negative());
    EXPECT_EQ(2u, a.get_uint64());

    // A negative quotient times the divisor plus the remainder gives the dividend.
    MPInt c;
    ASSERT_TRUE(c.from_str("-123456789012345678901234567890"));
    MPInt d(&c), seven(7UL), rem, zero;
    ASSERT_TRUE(d.div(&seven, &rem));
    MPInt check(&d);
    check.mul(&seven);
    check.add(&rem);
    EXPECT_EQ(0, check.cmp(&c));
    EXPECT_FALSE(d.div(&zero, &rem));

    // Bytes: a 16-byte counter incremented across its carry gives 01 00 .. 00.
    unsigned char counter[16], out[17];
    std::memset(counter, 0xFF, 16);
    counter[0] = 0;
    MPInt ctr;
    ctr.from_bytes(counter, 16, 0);
    ctr.add(1UL);
    int length, negative;
    ctr.to_bytes(out, length, negative);
    ASSERT_EQ(16, length);
    EXPECT_EQ(0, negative);
    counter[0] = 1;
    std::memset(counter + 1, 0, 15);
    EXPECT_EQ(0, std::memcmp(out, counter, 16));
}

// Keys and padding seeds must not come from the 31-bit Lehmer generator: its
// limbs (two draws each) always have bits 31 and 63 clear, and its whole
// output follows from one 31-bit state.
TEST(MpintTest, SecretsUseEveryBit)
{
    Base::Random fallback(1);
    uint64_t seen = 0;
    for (int i = 0; i < 16; i++) {
        uint64_t limbs[4];
        int n;
        mpi_gen_secret(&fallback, 255, limbs, n);
        ASSERT_EQ(4, n);
        EXPECT_EQ(254, mpi_get_bits(limbs, n) - 1);
        for (int j = 0; j < 3; j++)
            seen |= limbs[j];
    }
    EXPECT_TRUE(seen & (1ULL << 31));
    EXPECT_TRUE(seen & (1ULL << 63));
    // Two generators with the same seed give the same numbers; secrets differ.
    Base::Random r1(5), r2(5);
    uint64_t a[4], b[4];
    int an, bn;
    mpi_gen_random(&r1, 256, a, an);
    mpi_gen_random(&r2, 256, b, bn);
    EXPECT_EQ(0, std::memcmp(a, b, sizeof(a)));
    mpi_gen_secret(&r1, 256, a, an);
    mpi_gen_secret(&r2, 256, b, bn);
    EXPECT_NE(0, std::memcmp(a, b, sizeof(a)));
}

#include "cipher/aes.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

using namespace CipherTest;

namespace {

std::string aes_block(const std::string& key_hex, const std::string& plain_hex, bool decode = false) {
    Bytes key = from_hex(key_hex), in = from_hex(plain_hex), out(16);
    Cipher::Aes aes(key.data(), int(key.size()));
    if (decode)
        aes.decode(out.data(), in.data());
    else
        aes.encode(out.data(), in.data());
    return to_hex(out);
}

const char* const SP_KEY = "2b7e151628aed2a6abf7158809cf4f3c";
const char* const SP_PLAIN =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

}  // namespace

TEST(Aes, Fips197Blocks) {
    // Appendix B and Appendix C.1 to C.3, both directions.
    EXPECT_EQ(aes_block(SP_KEY, "3243f6a8885a308d313198a2e0370734"), "3925841d02dc09fbdc118597196a0b32");
    const std::string plain = "00112233445566778899aabbccddeeff";
    const std::string k128 = "000102030405060708090a0b0c0d0e0f";
    const std::string k192 = k128 + "1011121314151617";
    const std::string k256 = k128 + "101112131415161718191a1b1c1d1e1f";
    EXPECT_EQ(aes_block(k128, plain), "69c4e0d86a7b0430d8cdb78070b4c55a");
    EXPECT_EQ(aes_block(k192, plain), "dda97ca4864cdfe06eaf70a0ec0d7191");
    EXPECT_EQ(aes_block(k256, plain), "8ea2b7ca516745bfeafc49904b496089");
    EXPECT_EQ(aes_block(k128, "69c4e0d86a7b0430d8cdb78070b4c55a", true), plain);
    EXPECT_EQ(aes_block(k192, "dda97ca4864cdfe06eaf70a0ec0d7191", true), plain);
    EXPECT_EQ(aes_block(k256, "8ea2b7ca516745bfeafc49904b496089", true), plain);
}

TEST(Aes, Sp80038aModes) {
    Bytes key = from_hex(SP_KEY), plain = from_hex(SP_PLAIN), out(80);
    Cipher::Aes aes(key.data(), 16);
    int length = -1;
    ASSERT_TRUE(aes.encode_ecb(out.data(), length, plain.data(), 64, false));
    EXPECT_EQ(length, 64);
    EXPECT_EQ(to_hex(out.data(), 32),
              "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf");

    Bytes iv = from_hex("000102030405060708090a0b0c0d0e0f");
    ASSERT_TRUE(aes.encode_cbc(out.data(), length, plain.data(), 64, false, iv.data(), 16));
    EXPECT_EQ(length, 64);
    EXPECT_EQ(to_hex(out.data(), 64),
              "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
              "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7");

    Bytes counter = from_hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    ASSERT_TRUE(aes.encode_ctr(out.data(), length, plain.data(), 64, counter.data(), 16));
    EXPECT_EQ(length, 64);
    EXPECT_EQ(to_hex(out.data(), 64),
              "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
              "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee");
}

TEST(Aes, PaddingLengthsAndIvRules) {
    std::mt19937 rng(5);
    Bytes key = random_bytes(rng, 16), data = random_bytes(rng, 64), out(96), back(96);
    Cipher::Aes aes(key.data(), 16);
    int length = -1;

    // 16 bytes with padding give 32, without 16; a null dst only sizes.
    EXPECT_TRUE(aes.encode_ecb(out.data(), length, data.data(), 16, true));
    EXPECT_EQ(length, 32);
    EXPECT_TRUE(aes.encode_ecb(nullptr, length, data.data(), 17, true));
    EXPECT_EQ(length, 32);
    EXPECT_TRUE(aes.encode_ecb(out.data(), length, data.data(), 16, false));
    EXPECT_EQ(length, 16);
    EXPECT_FALSE(aes.encode_ecb(out.data(), length, data.data(), 15, false));
    EXPECT_EQ(length, 0);
    EXPECT_FALSE(aes.decode_ecb(out.data(), length, data.data(), 17, true));
    EXPECT_FALSE(aes.encode_ecb(out.data(), length, data.data(), -16, false));

    // Every tail length pads to the next block and comes back.
    for (int n = 0; n <= 33; ++n) {
        ASSERT_TRUE(aes.encode_cbc(out.data(), length, data.data(), n, true, data.data() + 40, 16));
        EXPECT_EQ(length, (n / 16 + 1) * 16);
        int encoded = length;
        ASSERT_TRUE(aes.decode_cbc(back.data(), length, out.data(), encoded, true, data.data() + 40, 16));
        ASSERT_EQ(length, n);
        EXPECT_EQ(to_hex(back.data(), size_t(n)), to_hex(data.data(), size_t(n)));
        // The pad bytes themselves are the PKCS #7 value.
        ASSERT_TRUE(aes.decode_cbc(back.data(), length, out.data(), encoded, false, data.data() + 40, 16));
        EXPECT_EQ(length, encoded);
        for (int i = n; i < encoded; ++i)
            EXPECT_EQ(back[size_t(i)], encoded - n);
    }

    // A wrong IV size fails with length 0, in all modes and with a null dst.
    EXPECT_FALSE(aes.encode_cbc(out.data(), length, data.data(), 16, true, data.data(), 8));
    EXPECT_EQ(length, 0);
    length = 5;
    EXPECT_FALSE(aes.decode_cbc(nullptr, length, data.data(), 16, true, nullptr, 32));
    EXPECT_EQ(length, 0);
    EXPECT_FALSE(aes.encode_ctr(out.data(), length, data.data(), 16, data.data(), 15));
    EXPECT_FALSE(aes.decode_ctr(out.data(), length, data.data(), 16, data.data(), 17));

    // A null IV is sixteen zero bytes.
    Bytes zero(16, 0);
    ASSERT_TRUE(aes.encode_cbc(out.data(), length, data.data(), 40, true, nullptr, 16));
    ASSERT_TRUE(aes.encode_cbc(back.data(), length, data.data(), 40, true, zero.data(), 16));
    EXPECT_EQ(to_hex(out.data(), 48), to_hex(back.data(), 48));
    ASSERT_TRUE(aes.encode_ctr(out.data(), length, data.data(), 40, nullptr, 16));
    ASSERT_TRUE(aes.encode_ctr(back.data(), length, data.data(), 40, zero.data(), 16));
    EXPECT_EQ(to_hex(out.data(), 40), to_hex(back.data(), 40));
}

TEST(Aes, LaxUnpaddingStaysInBounds) {
    Bytes key(16, 7), iv(16, 3);
    Cipher::Aes aes(key.data(), 16);
    // A block whose last byte is 5 loses 5 bytes, whatever the other pad bytes hold.
    Bytes plain(32, 0xee);
    plain[31] = 5;
    Bytes cipher(32), back(32);
    int length = 0;
    ASSERT_TRUE(aes.encode_cbc(cipher.data(), length, plain.data(), 32, false, iv.data(), 16));
    ASSERT_TRUE(aes.decode_cbc(back.data(), length, cipher.data(), 32, true, iv.data(), 16));
    EXPECT_EQ(length, 27);
    // A last byte larger than the input gives 0, never a negative length.
    plain[31] = 200;
    ASSERT_TRUE(aes.encode_ecb(cipher.data(), length, plain.data(), 32, false));
    ASSERT_TRUE(aes.decode_ecb(back.data(), length, cipher.data(), 32, true));
    EXPECT_EQ(length, 0);
    plain[31] = 32;
    ASSERT_TRUE(aes.encode_ecb(cipher.data(), length, plain.data(), 32, false));
    ASSERT_TRUE(aes.decode_ecb(back.data(), length, cipher.data(), 32, true));
    EXPECT_EQ(length, 0);
    // An empty input with padding decodes to nothing and reads nothing.
    length = 9;
    EXPECT_TRUE(aes.decode_cbc(back.data(), length, nullptr, 0, true, iv.data(), 16));
    EXPECT_EQ(length, 0);
    // A decoder's null-dst size is the room it needs: the whole input.
    EXPECT_TRUE(aes.decode_ecb(nullptr, length, cipher.data(), 32, true));
    EXPECT_EQ(length, 32);
}

TEST(Aes, CounterModeAndInPlace) {
    std::mt19937 rng(9);
    Bytes key = random_bytes(rng, 32), data = random_bytes(rng, 100), out(100), back(100);
    Cipher::Aes aes(key.data(), 32);
    int length = 0;
    // 17 bytes use two counter values: the second block is keyed by iv + 1.
    Bytes iv = from_hex("000102030405060708090a0b0c0d0eff");
    ASSERT_TRUE(aes.encode_ctr(out.data(), length, data.data(), 17, iv.data(), 16));
    EXPECT_EQ(length, 17);
    Bytes stream(16), next = from_hex("000102030405060708090a0b0c0d0f00");
    aes.encode(stream.data(), next.data());
    EXPECT_EQ(out[16], data[16] ^ stream[0]);
    ASSERT_TRUE(aes.decode_ctr(back.data(), length, out.data(), 17, iv.data(), 16));
    EXPECT_EQ(to_hex(back.data(), 17), to_hex(data.data(), 17));

    // The counter carries through all sixteen bytes and wraps at 2^128.
    Bytes top(16, 0xff), zero(16, 0);
    ASSERT_TRUE(aes.encode_ctr(out.data(), length, data.data(), 32, top.data(), 16));
    aes.encode(stream.data(), zero.data());
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(out[size_t(16 + i)], data[size_t(16 + i)] ^ stream[size_t(i)]);

    // dst equal to src works in every mode.
    for (int mode = 0; mode < 3; ++mode) {
        Bytes work = data;
        work.resize(112);
        int n = 0;
        bool ok = mode == 0   ? aes.encode_ecb(work.data(), n, work.data(), 100, true)
                  : mode == 1 ? aes.encode_cbc(work.data(), n, work.data(), 100, true, iv.data(), 16)
                              : aes.encode_ctr(work.data(), n, work.data(), 100, iv.data(), 16);
        ASSERT_TRUE(ok);
        ok = mode == 0   ? aes.decode_ecb(work.data(), n, work.data(), n, true)
             : mode == 1 ? aes.decode_cbc(work.data(), n, work.data(), n, true, iv.data(), 16)
                         : aes.decode_ctr(work.data(), n, work.data(), n, iv.data(), 16);
        ASSERT_TRUE(ok);
        EXPECT_EQ(n, 100);
        EXPECT_EQ(to_hex(work.data(), 100), to_hex(data)) << mode;
    }

    // encode_func is encode.
    Cipher::Aes::encode_func(&aes, out.data(), data.data());
    aes.encode(back.data(), data.data());
    EXPECT_EQ(to_hex(out.data(), 16), to_hex(back.data(), 16));
}

TEST(Aes, OddKeySizesAreZeroExtended) {
    Bytes key = from_hex("000102030405060708090a0b0c0d0e0f1011121314151617"), out(16), ref(16);
    Bytes plain = from_hex("00112233445566778899aabbccddeeff");
    // 20 bytes act as 24 with four zero bytes behind.
    Bytes padded(key.begin(), key.begin() + 20);
    padded.resize(24, 0);
    Cipher::Aes odd(key.data(), 20), even(padded.data(), 24);
    odd.encode(out.data(), plain.data());
    even.encode(ref.data(), plain.data());
    EXPECT_EQ(to_hex(out), to_hex(ref));
    // A null key is a zero key of 16 bytes.
    Bytes zero(16, 0);
    Cipher::Aes none(nullptr, 16), zeros(zero.data(), 16);
    none.encode(out.data(), plain.data());
    zeros.encode(ref.data(), plain.data());
    EXPECT_EQ(to_hex(out), to_hex(ref));
}

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

enum Mode { ECB, CBC, CTR };

// One pass of our cipher in a mode, in place when in_place is set.
Bytes ours_run(Cipher::Aes& aes, Mode mode, bool encrypt, const Bytes& iv, const Bytes& in,
               bool padding, bool in_place) {
    Bytes out(in.size() + 16);
    std::copy(in.begin(), in.end(), out.begin());
    const unsigned char* src = in_place ? out.data() : in.data();
    int n = int(in.size()), length = -1;
    bool ok = false;
    switch (mode) {
    case ECB:
        ok = encrypt ? aes.encode_ecb(out.data(), length, src, n, padding)
                     : aes.decode_ecb(out.data(), length, src, n, padding);
        break;
    case CBC:
        ok = encrypt ? aes.encode_cbc(out.data(), length, src, n, padding, iv.data(), 16)
                     : aes.decode_cbc(out.data(), length, src, n, padding, iv.data(), 16);
        break;
    case CTR:
        ok = encrypt ? aes.encode_ctr(out.data(), length, src, n, iv.data(), 16)
                     : aes.decode_ctr(out.data(), length, src, n, iv.data(), 16);
        break;
    }
    EXPECT_TRUE(ok);
    out.resize(ok ? size_t(length) : 0);
    return out;
}

#ifdef QEL_HAVE_OPENSSL
Bytes openssl_run(Mode mode, const Bytes& key, const Bytes& iv, const Bytes& in, bool padding) {
    const EVP_CIPHER* cipher = nullptr;
    int bits = int(key.size()) * 8;
    if (mode == ECB) cipher = bits == 128 ? EVP_aes_128_ecb() : bits == 192 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
    if (mode == CBC) cipher = bits == 128 ? EVP_aes_128_cbc() : bits == 192 ? EVP_aes_192_cbc() : EVP_aes_256_cbc();
    if (mode == CTR) cipher = bits == 128 ? EVP_aes_128_ctr() : bits == 192 ? EVP_aes_192_ctr() : EVP_aes_256_ctr();
    Bytes out(in.size() + 32);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n1 = 0, n2 = 0;
    bool ok = EVP_EncryptInit_ex(ctx, cipher, nullptr, key.data(), mode == ECB ? nullptr : iv.data()) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, padding && mode != CTR ? 1 : 0) == 1 &&
              EVP_EncryptUpdate(ctx, out.data(), &n1, in.data(), int(in.size())) == 1 &&
              EVP_EncryptFinal_ex(ctx, out.data() + n1, &n2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    EXPECT_TRUE(ok);
    out.resize(ok ? size_t(n1 + n2) : 0);
    return out;
}
#endif

}  // namespace

// The instruction path and the table path give the same bytes in every mode,
// for every key size, for lengths around the eight-block groups of the
// instruction path and off the block size, in place or not, and with counters
// that carry out of their low half or wrap at 2^128 inside a group. Where
// OpenSSL is at hand it is a third, independent opinion.
TEST(Aes, HardwareAndTablesAgree) {
    std::mt19937 rng(21);
    Bytes probe_key(16, 1);
    if (!Cipher::Aes(probe_key.data(), 16).uses_hardware())
        GTEST_SKIP() << "no AES instructions on this CPU: only the tables run";
    EXPECT_FALSE(Cipher::Aes(probe_key.data(), 16, false).uses_hardware());
    const int lengths[] = {0, 1, 15, 16, 17, 112, 127, 128, 129, 143, 144, 255, 256, 257, 4096, 4101};
    const std::string ivs[] = {
        "",  // random
        "ffffffffffffffffffffffffffffffff",  // wraps to zero at the second block
        "0102030405060708fffffffffffffffb",  // carries into the high half mid-group
        "00000000000000000000000000000000",
        "fffffffffffffffffffffffffffffff9",  // wraps at 2^128 at the last block of a group
    };
    for (int key_size : {16, 24, 32}) {
        Bytes key = random_bytes(rng, size_t(key_size));
        Cipher::Aes fast(key.data(), key_size), slow(key.data(), key_size, false);
        for (int n : lengths) {
            for (const std::string& iv_hex : ivs) {
                Bytes iv = iv_hex.empty() ? random_bytes(rng, 16) : from_hex(iv_hex);
                Bytes plain = random_bytes(rng, size_t(n));
                for (Mode mode : {ECB, CBC, CTR}) {
                    for (bool padding : {false, true}) {
                        if (mode == CTR && padding) continue;
                        if (mode != CTR && !padding && n % 16) continue;
                        std::string where = "key " + std::to_string(key_size) + " n " +
                                            std::to_string(n) + " mode " + std::to_string(mode) +
                                            " iv " + to_hex(iv) + " padding " + std::to_string(padding);
                        bool in_place = n % 2 == 1;
                        Bytes a = ours_run(fast, mode, true, iv, plain, padding, in_place);
                        Bytes b = ours_run(slow, mode, true, iv, plain, padding, !in_place);
                        ASSERT_EQ(to_hex(a), to_hex(b)) << where;
#ifdef QEL_HAVE_OPENSSL
                        ASSERT_EQ(to_hex(a), to_hex(openssl_run(mode, key, iv, plain, padding))) << where;
#endif
                        Bytes back_fast = ours_run(fast, mode, false, iv, a, padding, !in_place);
                        Bytes back_slow = ours_run(slow, mode, false, iv, a, padding, in_place);
                        ASSERT_EQ(to_hex(back_fast), to_hex(plain)) << where;
                        ASSERT_EQ(to_hex(back_slow), to_hex(plain)) << where;
                    }
                }
            }
        }
        // Single blocks both ways.
        Bytes block = random_bytes(rng, 16), x(16), y(16);
        fast.encode(x.data(), block.data());
        slow.encode(y.data(), block.data());
        EXPECT_EQ(to_hex(x), to_hex(y));
        fast.decode(x.data(), block.data());
        slow.decode(y.data(), block.data());
        EXPECT_EQ(to_hex(x), to_hex(y));
    }
}

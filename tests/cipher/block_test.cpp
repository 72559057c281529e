// AES, DES, triple DES and SM4: published answers, the padding and IV rules
// of the block modes, and AES's instruction path against its tables.
#include "cipher/aes.h"
#include "cipher/des.h"
#include "cipher/sm4.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

using namespace CipherTest;

namespace {

template <class C>
void check_known(C& c, const std::vector<const char*>& row) {
    std::string mode = row[1];
    Bytes iv = from_hex(row[3]), plain = from_hex(row[4]), expect = from_hex(row[5]);
    if (mode == "block") {
        Bytes out(expect.size());
        c.encode(out.data(), plain.data());
        EXPECT_EQ(to_hex(out), row[5]) << row[2];
        c.decode(out.data(), expect.data());
        EXPECT_EQ(to_hex(out), row[4]) << row[2];
        return;
    }
    EXPECT_EQ(to_hex(run(c, mode, true, iv, plain, false)), row[5]) << mode;
    EXPECT_EQ(to_hex(run(c, mode, false, iv, expect, false)), row[4]) << mode;
}

// The rules every cipher's modes share: padding sizes, a partial block
// without padding, IV sizes, a null IV as zeros, PKCS #7 pad bytes.
template <class C>
void check_rules(C& c) {
    const int B = C::BLOCK_SIZE;
    std::mt19937 rng(5);
    Bytes data = random_bytes(rng, size_t(4 * B)), out(size_t(6 * B)), zero(size_t(B), 0);
    int length = -1;
    EXPECT_TRUE(c.encode_ecb(out.data(), length, data.data(), B, true));
    EXPECT_EQ(length, 2 * B);
    EXPECT_TRUE(c.encode_ecb(nullptr, length, data.data(), B + 1, true));  // a null dst only sizes
    EXPECT_EQ(length, 2 * B);
    EXPECT_FALSE(c.encode_ecb(out.data(), length, data.data(), B - 1, false));
    EXPECT_EQ(length, 0);
    EXPECT_FALSE(c.decode_ecb(out.data(), length, data.data(), B + 1, true));
    EXPECT_FALSE(c.encode_ecb(out.data(), length, data.data(), -B, false));
    // A wrong IV size fails with length 0, in all modes and with a null dst.
    EXPECT_FALSE(c.encode_cbc(out.data(), length, data.data(), B, true, data.data(), B / 2));
    EXPECT_EQ(length, 0);
    length = 5;
    EXPECT_FALSE(c.decode_cbc(nullptr, length, data.data(), B, true, nullptr, 2 * B));
    EXPECT_EQ(length, 0);
    EXPECT_FALSE(c.encode_ctr(out.data(), length, data.data(), B, data.data(), B - 1));
    EXPECT_FALSE(c.decode_ctr(out.data(), length, data.data(), B, data.data(), B + 1));
    // Every tail length pads to the next block with PKCS #7 bytes and comes back.
    Bytes iv(data.begin(), data.begin() + B);
    for (int n = 0; n <= 2 * B + 1; ++n) {
        Bytes plain(data.begin(), data.begin() + n);
        Bytes coded = run(c, "cbc", true, iv, plain, true);
        ASSERT_EQ(int(coded.size()), (n / B + 1) * B);
        EXPECT_EQ(to_hex(run(c, "cbc", false, iv, coded, true)), to_hex(plain));
        Bytes raw = run(c, "cbc", false, iv, coded, false);
        for (size_t i = size_t(n); i < raw.size(); ++i)
            EXPECT_EQ(raw[i], raw.size() - size_t(n));
    }
    // A null IV is zeros.
    Bytes plain(data.begin(), data.begin() + 3 * B - 3);
    for (const char* mode : {"cbc", "ctr"})
        EXPECT_EQ(to_hex(run(c, mode, true, Bytes(), plain, true)), to_hex(run(c, mode, true, zero, plain, true)));
}

}  // namespace

TEST(BlockCiphers, KnownAnswers) {
    for (auto& row : known("aes")) {
        Bytes key = from_hex(row[2]);
        for (bool hardware : {true, false}) {
            Cipher::Aes aes(key.data(), int(key.size()), hardware);
            check_known(aes, row);
        }
    }
    for (auto& row : known("des")) {
        Bytes key = from_hex(row[2]);
        Cipher::Des des(key.data());
        check_known(des, row);
    }
    for (auto& row : known("3des")) {
        Bytes key = from_hex(row[2]);
        Cipher::TripleDes tdes(key.data(), key.data() + 8, key.data() + 16);
        check_known(tdes, row);
    }
    for (auto& row : known("sm4")) {
        Bytes key = from_hex(row[2]);
        Cipher::Sm4 sm4(key.data());
        check_known(sm4, row);
        // GB/T 32907 A.2: the same block enciphered 1,000,000 times.
        Bytes block = from_hex(row[4]);
        for (int i = 0; i < 1000000; ++i)
            sm4.encode(block.data(), block.data());
        EXPECT_EQ(to_hex(block), "595298c7c6fd271f0402f804c33d3f66");
    }
}

TEST(BlockCiphers, ModeRules) {
    Bytes key(32, 7);
    Cipher::Aes aes(key.data(), 16), slow(key.data(), 32, false);
    Cipher::Des des(key.data());
    Cipher::TripleDes tdes(key.data(), key.data() + 8, key.data() + 16);
    Cipher::Sm4 sm4(key.data());
    check_rules(aes);
    check_rules(slow);
    check_rules(des);
    check_rules(tdes);
    check_rules(sm4);
}

TEST(BlockCiphers, DesProcessAndTripleDesOverride) {
    // process works on the block as a big-endian number; other modes give 0.
    Bytes k1 = from_hex("0123456789abcdef"), k2 = from_hex("23456789abcdef01"), k3 = from_hex("456789abcdef0123");
    Cipher::Des des(from_hex("133457799bbcdff1").data());
    EXPECT_EQ(des.process(0x0123456789abcdefUL, 'e'), 0x85e813540f0ab405UL);
    EXPECT_EQ(des.process(0x85e813540f0ab405UL, 'd'), 0x0123456789abcdefUL);
    EXPECT_EQ(des.process(0x0123456789abcdefUL, 'x'), 0UL);
    // Through a Des pointer the triple override is what runs, in the modes too.
    Cipher::TripleDes tdes(k1.data(), k2.data(), k3.data());
    Cipher::Des* base = &tdes;
    EXPECT_EQ(base->process(0x5468652071756663UL, 'e'), 0xa826fd8ce53b855fUL);
    EXPECT_EQ(base->process(0xa826fd8ce53b855fUL, 'd'), 0x5468652071756663UL);
    // Three equal keys reduce to single DES.
    Cipher::TripleDes same(k1.data(), k1.data(), k1.data());
    Cipher::Des single(k1.data());
    Bytes iv = from_hex("1234567890abcdef"), plain(24, 'q');
    EXPECT_EQ(to_hex(run(same, "cbc", true, iv, plain, true)), to_hex(run(single, "cbc", true, iv, plain, true)));
}

TEST(Aes, LaxUnpaddingStaysInBounds) {
    Bytes key(16, 7), iv(16, 3);
    Cipher::Aes aes(key.data(), 16);
    // A last byte of 5 drops 5 bytes whatever the other pad bytes hold; a
    // last byte larger than the input gives 0, never a negative length.
    for (int last : {5, 200, 32}) {
        Bytes plain(32, 0xee);
        plain[31] = (unsigned char)last;
        Bytes coded = run(aes, "cbc", true, iv, plain, false);
        EXPECT_EQ(int(run(aes, "cbc", false, iv, coded, true).size()), last == 5 ? 27 : 0) << last;
    }
    // An empty padded input decodes to nothing and reads nothing; a decoder's
    // null-dst size is the whole input.
    Bytes back(32);
    int length = 9;
    EXPECT_TRUE(aes.decode_cbc(back.data(), length, nullptr, 0, true, iv.data(), 16));
    EXPECT_EQ(length, 0);
    EXPECT_TRUE(aes.decode_ecb(nullptr, length, back.data(), 32, true));
    EXPECT_EQ(length, 32);
}

TEST(Aes, OddKeySizesAreZeroExtended) {
    Bytes key = from_hex("000102030405060708090a0b0c0d0e0f10111213"), out(16), ref(16), plain(16, 0x5a);
    Bytes padded = key;
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
    const char* ivs[] = {"", "ffffffffffffffffffffffffffffffff", "0102030405060708fffffffffffffffb",
                         "00000000000000000000000000000000", "fffffffffffffffffffffffffffffff9"};
    for (int key_size : {16, 24, 32}) {
        Bytes key = random_bytes(rng, size_t(key_size));
        Cipher::Aes fast(key.data(), key_size), slow(key.data(), key_size, false);
        for (int n : lengths) {
            for (const char* iv_hex : ivs) {
                Bytes iv = *iv_hex ? from_hex(iv_hex) : random_bytes(rng, 16);
                Bytes plain = random_bytes(rng, size_t(n));
                for (std::string mode : {"ecb", "cbc", "ctr"}) for (bool padding : {false, true}) {
                    if (mode == "ctr" ? padding : !padding && n % 16) continue;
                    std::string where = mode + " key " + std::to_string(key_size) + " n " + std::to_string(n) +
                                        " iv " + to_hex(iv);
                    bool in_place = n % 2 == 1;
                    Bytes a = run(fast, mode, true, iv, plain, padding, in_place);
                    ASSERT_EQ(to_hex(a), to_hex(run(slow, mode, true, iv, plain, padding, !in_place))) << where;
#ifdef QEL_HAVE_OPENSSL
                    const EVP_CIPHER* evp = EVP_get_cipherbyname(
                        ("aes-" + std::to_string(key_size * 8) + "-" + mode).c_str());
                    bool ok = false;
                    ASSERT_EQ(to_hex(a), to_hex(evp_run(evp, key, mode == "ecb" ? Bytes() : iv, plain, padding, ok)))
                        << where;
#endif
                    ASSERT_EQ(to_hex(run(fast, mode, false, iv, a, padding, !in_place)), to_hex(plain)) << where;
                    ASSERT_EQ(to_hex(run(slow, mode, false, iv, a, padding, in_place)), to_hex(plain)) << where;
                }
            }
        }
        Bytes block = random_bytes(rng, 16), x(16), y(16);
        fast.decode(x.data(), block.data());
        slow.decode(y.data(), block.data());
        EXPECT_EQ(to_hex(x), to_hex(y));
    }
}

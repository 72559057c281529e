#include "cipher/des.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

using namespace CipherTest;

namespace {

std::string des_block(const std::string& key_hex, const std::string& in_hex, char mode) {
    Bytes key = from_hex(key_hex), in = from_hex(in_hex), out(8);
    Cipher::Des des(key.data());
    if (mode == 'e')
        des.encode(out.data(), in.data());
    else
        des.decode(out.data(), in.data());
    return to_hex(out);
}

}  // namespace

TEST(Des, KnownAnswers) {
    EXPECT_EQ(des_block("133457799bbcdff1", "0123456789abcdef", 'e'), "85e813540f0ab405");
    EXPECT_EQ(des_block("133457799bbcdff1", "85e813540f0ab405", 'd'), "0123456789abcdef");
    EXPECT_EQ(des_block("0e329232ea6d0d73", "8787878787878787", 'e'), "0000000000000000");
    // SP 800-17 variable plaintext and variable key, first entries.
    EXPECT_EQ(des_block("0101010101010101", "8000000000000000", 'e'), "95f8a5e5dd31d900");
    EXPECT_EQ(des_block("0101010101010101", "4000000000000000", 'e'), "dd7f121ca5015619");
    EXPECT_EQ(des_block("8001010101010101", "0000000000000000", 'e'), "95a8d72813daa94d");
    // Parity bits don't matter.
    EXPECT_EQ(des_block("0000000000000000", "8000000000000000", 'e'), "95f8a5e5dd31d900");

    // process works on the block as a big-endian number; other modes give 0.
    Bytes key = from_hex("133457799bbcdff1");
    Cipher::Des des(key.data());
    EXPECT_EQ(des.process(0x0123456789abcdefUL, 'e'), 0x85e813540f0ab405UL);
    EXPECT_EQ(des.process(0x85e813540f0ab405UL, 'd'), 0x0123456789abcdefUL);
    EXPECT_EQ(des.process(0x0123456789abcdefUL, 'x'), 0UL);
}

TEST(Des, Fips81Modes) {
    Bytes key = from_hex("0123456789abcdef"), iv = from_hex("1234567890abcdef");
    Bytes plain = from_text("Now is the time for all "), out(32), back(32);
    Cipher::Des des(key.data());
    int length = 0;
    ASSERT_TRUE(des.encode_ecb(out.data(), length, plain.data(), 24, false));
    EXPECT_EQ(length, 24);
    EXPECT_EQ(to_hex(out.data(), 24), "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53");
    ASSERT_TRUE(des.encode_cbc(out.data(), length, plain.data(), 24, false, iv.data(), 8));
    EXPECT_EQ(to_hex(out.data(), 24), "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6");
    ASSERT_TRUE(des.decode_cbc(back.data(), length, out.data(), 24, false, iv.data(), 8));
    EXPECT_EQ(to_hex(back.data(), 24), to_hex(plain));

    // Padding adds a whole block to 24 bytes; the IV must be 8 bytes.
    ASSERT_TRUE(des.encode_cbc(out.data(), length, plain.data(), 24, true, iv.data(), 8));
    EXPECT_EQ(length, 32);
    ASSERT_TRUE(des.decode_cbc(back.data(), length, out.data(), 32, true, iv.data(), 8));
    EXPECT_EQ(length, 24);
    EXPECT_FALSE(des.encode_cbc(out.data(), length, plain.data(), 24, true, iv.data(), 16));
    EXPECT_EQ(length, 0);
    EXPECT_FALSE(des.encode_ctr(out.data(), length, plain.data(), 24, iv.data(), 16));
    EXPECT_FALSE(des.decode_ecb(back.data(), length, out.data(), 31, false));

    // CTR of 9 bytes: the second block is keyed by iv + 1, carried across bytes.
    Bytes counter = from_hex("00000000000000ff"), next = from_hex("0000000000000100");
    ASSERT_TRUE(des.encode_ctr(out.data(), length, plain.data(), 9, counter.data(), 8));
    EXPECT_EQ(length, 9);
    Bytes stream(8);
    des.encode(stream.data(), next.data());
    EXPECT_EQ(out[8], plain[8] ^ stream[0]);
    ASSERT_TRUE(des.decode_ctr(back.data(), length, out.data(), 9, counter.data(), 8));
    EXPECT_EQ(to_hex(back.data(), 9), to_hex(plain.data(), 9));
}

TEST(TripleDes, Sp80067ExampleAndKeyingOptions) {
    Bytes k1 = from_hex("0123456789abcdef"), k2 = from_hex("23456789abcdef01"),
          k3 = from_hex("456789abcdef0123");
    Bytes plain = from_text("The qufck brown fox jump"), out(32), back(32);
    Cipher::TripleDes tdes(k1.data(), k2.data(), k3.data());
    int length = 0;
    ASSERT_TRUE(tdes.encode_ecb(out.data(), length, plain.data(), 24, false));
    EXPECT_EQ(to_hex(out.data(), 24), "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900");
    ASSERT_TRUE(tdes.decode_ecb(back.data(), length, out.data(), 24, false));
    EXPECT_EQ(to_hex(back.data(), 24), to_hex(plain));

    // Three equal keys reduce to single DES, in every mode through process.
    Cipher::TripleDes same(k1.data(), k1.data(), k1.data());
    Cipher::Des single(k1.data());
    Bytes iv = from_hex("1234567890abcdef"), ref(32);
    ASSERT_TRUE(same.encode_cbc(out.data(), length, plain.data(), 24, true, iv.data(), 8));
    ASSERT_TRUE(single.encode_cbc(ref.data(), length, plain.data(), 24, true, iv.data(), 8));
    EXPECT_EQ(to_hex(out), to_hex(ref));

    // Through a Des pointer the override is what runs.
    Cipher::Des* base = &tdes;
    EXPECT_EQ(base->process(0x5468652071756663UL, 'e'), 0xa826fd8ce53b855fUL);
    EXPECT_EQ(base->process(0xa826fd8ce53b855fUL, 'd'), 0x5468652071756663UL);
    EXPECT_EQ(base->process(0x5468652071756663UL, 'x'), 0UL);
}

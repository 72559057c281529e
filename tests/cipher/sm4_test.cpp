#include "cipher/sm4.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

using namespace CipherTest;

TEST(Sm4, StandardExamples) {
    // GB/T 32907, appendix A: one block, then the same block enciphered
    // 1,000,000 times with the same key.
    Bytes key = from_hex("0123456789abcdeffedcba9876543210"), block = key, out(16);
    Cipher::Sm4 sm4(key.data());
    sm4.encode(out.data(), block.data());
    EXPECT_EQ(to_hex(out), "681edf34d206965e86b3e94f536e4246");
    sm4.decode(out.data(), out.data());
    EXPECT_EQ(to_hex(out), to_hex(key));
    for (int i = 0; i < 1000000; ++i)
        sm4.encode(block.data(), block.data());
    EXPECT_EQ(to_hex(block), "595298c7c6fd271f0402f804c33d3f66");
}

TEST(Sm4, ModesRoundTripAndRules) {
    std::mt19937 rng(77);
    Bytes key = random_bytes(rng, 16), iv = random_bytes(rng, 16), data = random_bytes(rng, 70);
    Bytes out(96), back(96);
    Cipher::Sm4 sm4(key.data());
    int length = 0;
    ASSERT_TRUE(sm4.encode_ecb(out.data(), length, data.data(), 16, true));
    EXPECT_EQ(length, 32);
    ASSERT_TRUE(sm4.encode_cbc(out.data(), length, data.data(), 70, true, iv.data(), 16));
    EXPECT_EQ(length, 80);
    ASSERT_TRUE(sm4.decode_cbc(back.data(), length, out.data(), 80, true, iv.data(), 16));
    EXPECT_EQ(length, 70);
    EXPECT_EQ(to_hex(back.data(), 70), to_hex(data));
    EXPECT_FALSE(sm4.encode_cbc(out.data(), length, data.data(), 70, true, iv.data(), 8));
    EXPECT_EQ(length, 0);

    // CBC chains: the second block is E(P2 xor C1).
    ASSERT_TRUE(sm4.encode_cbc(out.data(), length, data.data(), 32, false, iv.data(), 16));
    Bytes x(16), c2(16);
    for (int i = 0; i < 16; ++i)
        x[size_t(i)] = data[size_t(16 + i)] ^ out[size_t(i)];
    sm4.encode(c2.data(), x.data());
    EXPECT_EQ(to_hex(out.data() + 16, 16), to_hex(c2));

    // CTR of 17 bytes, a null IV equal to zeros, and encode_func.
    Bytes zero(16, 0);
    ASSERT_TRUE(sm4.encode_ctr(out.data(), length, data.data(), 17, nullptr, 16));
    EXPECT_EQ(length, 17);
    ASSERT_TRUE(sm4.decode_ctr(back.data(), length, out.data(), 17, zero.data(), 16));
    EXPECT_EQ(to_hex(back.data(), 17), to_hex(data.data(), 17));
    Bytes one = zero, stream(16);
    one[15] = 1;
    Cipher::Sm4::encode_func(&sm4, stream.data(), one.data());
    EXPECT_EQ(out[16], data[16] ^ stream[0]);
}

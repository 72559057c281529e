#include "network/channelcipher.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

using Network::ChannelCipher;

namespace {

std::vector<unsigned char> pattern(int n, int seed) {
    std::vector<unsigned char> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[size_t(i)] = static_cast<unsigned char>(i * 31 + seed * 7 + 1);
    return v;
}

}  // namespace

TEST(ChannelCipher, WordXorCoversWordsAndTail) {
    ChannelCipher c;
    const unsigned long key = 0x1122334455667788UL;
    ASSERT_TRUE(c.set(1, key));
    EXPECT_EQ(c.get_type(), 1);
    // The key area is the key twice in native order.
    unsigned long halves[2];
    memcpy(halves, c.get_key(), 16);
    EXPECT_EQ(halves[0], key);
    EXPECT_EQ(halves[1], key);

    std::vector<unsigned char> in = pattern(13, 1), out(13), back(13);
    ASSERT_TRUE(c.encode(out.data(), in.data(), 13));
    uint64_t w;
    memcpy(&w, in.data(), 8);
    w ^= key;
    EXPECT_EQ(0, memcmp(out.data(), &w, 8));
    unsigned char kb[8];
    memcpy(kb, &key, 8);
    for (int i = 8; i < 13; ++i) EXPECT_EQ(out[size_t(i)], in[size_t(i)] ^ kb[i - 8]) << i;
    ASSERT_TRUE(c.decode(back.data(), out.data(), 13));
    EXPECT_EQ(in, back);

    // Key 0 still changes word 1 and later, since word i is XORed with key + i.
    ASSERT_TRUE(c.set(1, 0));
    std::vector<unsigned char> zeros(24, 0), z(24);
    ASSERT_TRUE(c.encode(z.data(), zeros.data(), 24));
    uint64_t words[3];
    memcpy(words, z.data(), 24);
    EXPECT_EQ(words[0], 0u);
    EXPECT_EQ(words[1], 1u);
    EXPECT_EQ(words[2], 2u);
}

TEST(ChannelCipher, BlockTypesRoundTripAndRestartPerFrame) {
    for (unsigned char type = 2; type <= 4; ++type) {
        ChannelCipher c;
        ASSERT_TRUE(c.set(type, 0x0123456789abcdefUL));
        for (int n : {1, 7, 8, 15, 16, 17, 100, 4022, 8194}) {
            std::vector<unsigned char> in = pattern(n, type), a(static_cast<size_t>(n)), b(static_cast<size_t>(n)), back(static_cast<size_t>(n));
            ASSERT_TRUE(c.encode(a.data(), in.data(), n));
            ASSERT_TRUE(c.encode(b.data(), in.data(), n));
            EXPECT_EQ(a, b) << "each frame starts from the IV";
            EXPECT_NE(a, in);
            ASSERT_TRUE(c.decode(back.data(), a.data(), n));
            EXPECT_EQ(back, in) << int(type) << " " << n;
            // In place works too.
            ASSERT_TRUE(c.encode(in.data(), in.data(), n));
            EXPECT_EQ(in, a);
        }
    }
}

TEST(ChannelCipher, UnknownTypeKeepsCipherInForce) {
    ChannelCipher c;
    ASSERT_TRUE(c.set(3, 42));
    std::vector<unsigned char> in = pattern(40, 3), first(40), later(40);
    ASSERT_TRUE(c.encode(first.data(), in.data(), 40));
    EXPECT_FALSE(c.set(9, 777));
    EXPECT_EQ(c.get_type(), 3);
    unsigned long stored;
    memcpy(&stored, c.get_key(), 8);
    EXPECT_EQ(stored, 777u) << "the key area changes all the same";
    ASSERT_TRUE(c.encode(later.data(), in.data(), 40));
    EXPECT_EQ(first, later) << "the object keeps the key it was made with";

    ChannelCipher plain;
    std::vector<unsigned char> same(40);
    ASSERT_TRUE(plain.encode(same.data(), in.data(), 40));
    EXPECT_EQ(same, in);
    EXPECT_TRUE(plain.set(0, 5));
    EXPECT_EQ(plain.get_type(), 0);
}

#ifdef QEL_HAVE_OPENSSL
TEST(ChannelCipher, AesAndSm4MatchOpenSslCounterMode) {
    struct Case {
        unsigned char type;
        const EVP_CIPHER* (*cipher)();
    } cases[] = {{3, EVP_aes_128_ctr}, {4, EVP_sm4_ctr}};
    for (const Case& k : cases) {
        const EVP_CIPHER* ev = k.cipher();
        if (!ev) continue;
        ChannelCipher c;
        const unsigned long key = 0xfeedfacecafebeefUL;
        ASSERT_TRUE(c.set(k.type, key));
        std::vector<unsigned char> in = pattern(1234, 9), mine(1234), theirs(1234);
        ASSERT_TRUE(c.encode(mine.data(), in.data(), 1234));
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        ASSERT_EQ(1, EVP_EncryptInit_ex(ctx, ev, nullptr, c.get_key(), ChannelCipher::IV));
        int n = 0, m = 0;
        ASSERT_EQ(1, EVP_EncryptUpdate(ctx, theirs.data(), &n, in.data(), 1234));
        ASSERT_EQ(1, EVP_EncryptFinal_ex(ctx, theirs.data() + n, &m));
        EVP_CIPHER_CTX_free(ctx);
        EXPECT_EQ(mine, theirs) << int(k.type);
    }
    EXPECT_EQ(0, memcmp(ChannelCipher::IV, "q7m2.xkrv.zpl.tb", 16));
}
#endif

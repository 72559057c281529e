#include "network/channelcipher.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

using Network::ChannelCipher;
typedef std::vector<unsigned char> Bytes;

namespace {

Bytes pattern(int n, int seed) {
    Bytes v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[size_t(i)] = static_cast<unsigned char>(i * 31 + seed * 7 + 1);
    return v;
}

}  // namespace

// Word i is XORed with key + i; a tail shorter than a word with the key's bytes.
TEST(ChannelCipher, WordXorCoversWordsAndTail) {
    ChannelCipher c;
    const unsigned long key = 0x1122334455667788UL;
    ASSERT_TRUE(c.set(1, key));
    Bytes in = pattern(21, 1), out(21), back(21);
    ASSERT_TRUE(c.encode(out.data(), in.data(), 21));
    uint64_t w[2];
    memcpy(w, in.data(), 16);
    w[0] ^= key;
    w[1] ^= key + 1;
    EXPECT_EQ(0, memcmp(out.data(), w, 16));
    unsigned char kb[8];
    memcpy(kb, &key, 8);
    for (int i = 16; i < 21; ++i) EXPECT_EQ(out[size_t(i)], in[size_t(i)] ^ kb[i - 16]) << i;
    ASSERT_TRUE(c.decode(back.data(), out.data(), 21));
    EXPECT_EQ(in, back);
}

TEST(ChannelCipher, BlockTypesRoundTripAndRestartPerFrame) {
    for (unsigned char type = 2; type <= 4; ++type) {
        ChannelCipher c;
        ASSERT_TRUE(c.set(type, 0x0123456789abcdefUL));
        for (int n : {1, 7, 8, 15, 16, 17, 100, 4022, 8194}) {
            Bytes in = pattern(n, type), a(in.size()), b(in.size()), back(in.size());
            ASSERT_TRUE(c.encode(a.data(), in.data(), n));
            ASSERT_TRUE(c.encode(b.data(), in.data(), n));
            EXPECT_EQ(a, b) << "each frame starts from the IV";
            EXPECT_NE(a, in);
            ASSERT_TRUE(c.decode(back.data(), a.data(), n));
            EXPECT_EQ(back, in) << int(type) << " " << n;
            ASSERT_TRUE(c.encode(in.data(), in.data(), n));  // in place
            EXPECT_EQ(in, a);
        }
    }
}

// A refused type leaves the cipher in force with the key it was made with.
TEST(ChannelCipher, UnknownTypeKeepsCipherInForce) {
    ChannelCipher c;
    ASSERT_TRUE(c.set(3, 42));
    Bytes in = pattern(40, 3), first(40), later(40);
    ASSERT_TRUE(c.encode(first.data(), in.data(), 40));
    EXPECT_FALSE(c.set(9, 777));
    EXPECT_EQ(c.get_type(), 3);
    ASSERT_TRUE(c.encode(later.data(), in.data(), 40));
    EXPECT_EQ(first, later);
    ChannelCipher plain;
    ASSERT_TRUE(plain.encode(later.data(), in.data(), 40));
    EXPECT_EQ(later, in);
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
        ASSERT_TRUE(c.set(k.type, 0xfeedfacecafebeefUL));
        Bytes in = pattern(1234, 9), mine(1234), theirs(1234);
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

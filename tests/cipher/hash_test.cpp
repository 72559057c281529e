#include "cipher/md5.h"
#include "cipher/sha1.h"
#include "cipher/sm3.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

#include <cstring>

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

using namespace CipherTest;

namespace {

template <class H>
std::string digest_of(const Bytes& data) {
    H h;
    h.update(data.data(), int(data.size()));
    h.final();
    // The digest is read from the object's start, as callers do.
    return to_hex(reinterpret_cast<const unsigned char*>(&h), H::DIGEST_SIZE);
}

template <class H>
std::string digest_of(const std::string& text) {
    return digest_of<H>(from_text(text));
}

// Feeds data in pieces whose sizes come from rng, 0 included.
template <class H>
std::string digest_in_pieces(const Bytes& data, std::mt19937& rng) {
    H h;
    size_t at = 0;
    while (at < data.size()) {
        size_t n = rng() % 150;
        if (n > data.size() - at)
            n = data.size() - at;
        h.update(data.data() + at, int(n));
        at += n;
    }
    h.final();
    return to_hex(h.digest(), H::DIGEST_SIZE);
}

}  // namespace

TEST(Hash, Md5PublishedValues) {
    // RFC 1321, appendix A.5
    EXPECT_EQ(digest_of<Cipher::Md5>(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(digest_of<Cipher::Md5>("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(digest_of<Cipher::Md5>("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digest_of<Cipher::Md5>("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(digest_of<Cipher::Md5>("abcdefghijklmnopqrstuvwxyz"),
              "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(digest_of<Cipher::Md5>(
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(digest_of<Cipher::Md5>("1234567890123456789012345678901234567890"
                                     "1234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Hash, Sha1PublishedValues) {
    // FIPS 180 examples
    EXPECT_EQ(digest_of<Cipher::Sha1>(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(digest_of<Cipher::Sha1>("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(digest_of<Cipher::Sha1>("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    Cipher::Sha1 h;
    std::string block(1000, 'a');
    for (int i = 0; i < 1000; ++i)
        h.update(block.data(), int(block.size()));
    h.final();
    EXPECT_EQ(to_hex(h.digest(), 20), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Hash, Sm3PublishedValues) {
    // GB/T 32905 examples 1 and 2, and the empty input
    EXPECT_EQ(digest_of<Cipher::Sm3>("abc"),
              "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0");
    std::string sixteen_abcd;
    for (int i = 0; i < 16; ++i)
        sixteen_abcd += "abcd";
    EXPECT_EQ(digest_of<Cipher::Sm3>(sixteen_abcd),
              "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732");
    EXPECT_EQ(digest_of<Cipher::Sm3>(""),
              "1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b");
}

TEST(Hash, PaddingPathsPiecesResetAndCopy) {
    std::mt19937 rng(11);
    // 55 bytes fit the length in the last block, 56 and 64 need one more.
    for (size_t n : {55, 56, 63, 64, 65, 119, 120, 128}) {
        Bytes data = random_bytes(rng, n);
        EXPECT_EQ(digest_in_pieces<Cipher::Md5>(data, rng), digest_of<Cipher::Md5>(data)) << n;
        EXPECT_EQ(digest_in_pieces<Cipher::Sha1>(data, rng), digest_of<Cipher::Sha1>(data)) << n;
        EXPECT_EQ(digest_in_pieces<Cipher::Sm3>(data, rng), digest_of<Cipher::Sm3>(data)) << n;
    }
    // Two halves equal one piece; zero and negative lengths do nothing.
    Bytes data = random_bytes(rng, 1000);
    Cipher::Sm3 h;
    h.update(data.data(), 500);
    h.update(data.data(), 0);
    h.update(data.data(), -7);
    h.update(nullptr, 0);
    h.update(data.data() + 500, 500);
    h.final();
    EXPECT_EQ(to_hex(h.digest(), 32), digest_of<Cipher::Sm3>(data));
    // reset() starts over.
    h.reset();
    h.update("abc", 3);
    h.final();
    EXPECT_EQ(to_hex(h.digest(), 32),
              "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0");
    // A running state copied as bytes goes on like the original (MGF1 relies on it).
    Cipher::Sha1 running;
    running.update(data.data(), 77);
    alignas(Cipher::Sha1) unsigned char raw[sizeof(Cipher::Sha1)];
    memcpy(raw, &running, sizeof(running));
    Cipher::Sha1 copy;
    memcpy(&copy, raw, sizeof(copy));
    running.update(data.data() + 77, 100);
    copy.update(data.data() + 77, 100);
    running.final();
    copy.final();
    EXPECT_EQ(to_hex(copy.digest(), 20), to_hex(running.digest(), 20));
    EXPECT_EQ(to_hex(copy.digest(), 20), digest_of<Cipher::Sha1>(Bytes(data.begin(), data.begin() + 177)));
}

#ifdef QEL_HAVE_OPENSSL
namespace {

std::string evp_digest(const EVP_MD* md, const Bytes& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), out, &n, md, nullptr), 1);
    return to_hex(out, n);
}

}  // namespace

TEST(Hash, AgreesWithOpenSsl) {
    EVP_MD* sm3 = EVP_MD_fetch(nullptr, "SM3", nullptr);
    std::mt19937 rng(2024);
    for (int round = 0; round < 60; ++round) {
        size_t n = round < 3 ? size_t(round) : rng() % 10001;
        Bytes data = random_bytes(rng, n);
        EXPECT_EQ(digest_in_pieces<Cipher::Md5>(data, rng), evp_digest(EVP_md5(), data)) << n;
        EXPECT_EQ(digest_in_pieces<Cipher::Sha1>(data, rng), evp_digest(EVP_sha1(), data)) << n;
        if (sm3) {
            EXPECT_EQ(digest_in_pieces<Cipher::Sm3>(data, rng), evp_digest(sm3, data)) << n;
        }
    }
    if (!sm3)
        GTEST_SKIP() << "OpenSSL has no SM3 here; checked MD5 and SHA-1 only";
    EVP_MD_free(sm3);
}
#endif

// MD5, SHA-1 and SM3: published digests, the padding boundaries fed in
// pieces, reset and byte copies of a running state, and OpenSSL as an oracle.
#include "cipher/md5.h"
#include "cipher/sha1.h"
#include "cipher/sm3.h"

#include "tests/cipher/testutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace CipherTest;

namespace {

// The digest of data fed in pieces whose sizes come from rng, 0 included,
// read from the object's start as callers do.
template <class H>
std::string digest(const Bytes& data, std::mt19937* rng = nullptr) {
    H h;
    for (size_t at = 0, n = 0; at < data.size(); at += n) {
        n = std::min(rng ? (*rng)() % 150 : data.size(), data.size() - at);
        h.update(data.data() + at, int(n));
    }
    h.final();
    return to_hex(reinterpret_cast<const unsigned char*>(&h), H::DIGEST_SIZE);
}

template <class H>
void check_known(const char* kind) {
    for (auto& row : known(kind)) {
        Bytes piece = from_hex(row[1]), data;
        for (unsigned long i = test_data::number(row[2]); i > 0; --i)
            data.insert(data.end(), piece.begin(), piece.end());
        EXPECT_EQ(digest<H>(data), row[3]) << kind << " " << row[1];
    }
}

}  // namespace

TEST(Hash, PublishedValues) {
    check_known<Cipher::Md5>("md5");
    check_known<Cipher::Sha1>("sha1");
    check_known<Cipher::Sm3>("sm3");
}

TEST(Hash, PaddingPathsPiecesResetAndCopy) {
    std::mt19937 rng(11);
    // 55 bytes fit the length in the last block, 56 and 64 need one more.
    for (size_t n : {55, 56, 63, 64, 65, 119, 120, 128}) {
        Bytes data = random_bytes(rng, n);
        EXPECT_EQ(digest<Cipher::Md5>(data, &rng), digest<Cipher::Md5>(data)) << n;
        EXPECT_EQ(digest<Cipher::Sha1>(data, &rng), digest<Cipher::Sha1>(data)) << n;
        EXPECT_EQ(digest<Cipher::Sm3>(data, &rng), digest<Cipher::Sm3>(data)) << n;
    }
    // Zero and negative lengths do nothing; reset() starts over.
    Bytes data = random_bytes(rng, 1000);
    Cipher::Sm3 h;
    h.update(data.data(), 0);
    h.update(data.data(), -7);
    h.update(nullptr, 0);
    h.update(data.data(), 1000);
    h.final();
    EXPECT_EQ(to_hex(h.digest(), 32), digest<Cipher::Sm3>(data));
    h.reset();
    h.update(data.data(), 10);
    h.final();
    EXPECT_EQ(to_hex(h.digest(), 32), digest<Cipher::Sm3>(Bytes(data.begin(), data.begin() + 10)));
    // A running state copied as bytes goes on like the original (MGF1 relies on it).
    Cipher::Sha1 running;
    running.update(data.data(), 77);
    alignas(Cipher::Sha1) unsigned char raw[sizeof(Cipher::Sha1)];
    memcpy(raw, &running, sizeof(running));
    Cipher::Sha1 copy;
    memcpy(&copy, raw, sizeof(copy));
    copy.update(data.data() + 77, 100);
    copy.final();
    EXPECT_EQ(to_hex(copy.digest(), 20), digest<Cipher::Sha1>(Bytes(data.begin(), data.begin() + 177)));
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
        EXPECT_EQ(digest<Cipher::Md5>(data, &rng), evp_digest(EVP_md5(), data)) << n;
        EXPECT_EQ(digest<Cipher::Sha1>(data, &rng), evp_digest(EVP_sha1(), data)) << n;
        if (sm3) {
            EXPECT_EQ(digest<Cipher::Sm3>(data, &rng), evp_digest(sm3, data)) << n;
        }
    }
    if (!sm3)
        GTEST_SKIP() << "OpenSSL has no SM3 here; checked MD5 and SHA-1 only";
    EVP_MD_free(sm3);
}
#endif

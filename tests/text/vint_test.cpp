#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/data_file.h"
#include "text/vint.h"

using Base::VInt;

// Each value in both encoders where it fits: the known bytes, the length
// found from the bytes alone (0 while the last byte is missing), and back.
TEST(VInt, EncodingsAndRoundTrips) {
    for (auto& row : test_data::rows("text/data/vint.txt")) {
        unsigned long v = std::strtoul(row[0], nullptr, 10);
        bool low_first = std::strcmp(row[1], "low") == 0;
        unsigned char buf[12] = {};
        int n = VInt::encode_vint64(v, buf, low_first);
        char hex[32] = "-";
        for (int i = 0; row[2][0] != '-' && i < n; ++i) std::snprintf(hex + 2 * i, 3, "%02x", buf[i]);
        EXPECT_STREQ(hex, row[2]) << v;
        EXPECT_EQ(VInt::get_bytes_num(buf, sizeof(buf)), n) << v;
        EXPECT_EQ(VInt::get_bytes_num(buf, n - 1), 0) << v;
        EXPECT_EQ(VInt::decode_vint64(buf, n, low_first), v) << v << " " << row[1];
        if (v <= 0xFFFFFFFFul) {
            unsigned char b32[5];
            ASSERT_EQ(VInt::encode_vint32(static_cast<unsigned int>(v), b32, low_first), n);
            EXPECT_EQ(0, memcmp(b32, buf, n));
            EXPECT_EQ(VInt::decode_vint32(b32, n, low_first), v);
        }
    }
    unsigned char buf[10];
    EXPECT_EQ(VInt::encode_vint64(ULONG_MAX, buf, false), 10);
    const unsigned char ff[2] = {0xFF, 0xFF};
    EXPECT_EQ(VInt::get_bytes_num(ff, 2), 0);
    EXPECT_EQ(VInt::get_bytes_num(ff, 0), 0);
}

TEST(VInt, Zigzag) {
    EXPECT_EQ(VInt::encode_zigzag32(0), 0u);
    EXPECT_EQ(VInt::encode_zigzag32(-1), 1u);
    EXPECT_EQ(VInt::encode_zigzag32(1), 2u);
    EXPECT_EQ(VInt::encode_zigzag32(-2), 3u);
    for (int v : {0, 1, -1, 12345, -12345, INT_MAX, INT_MIN}) EXPECT_EQ(VInt::decode_zigzag32(VInt::encode_zigzag32(v)), v);
    for (long v : {0L, -1L, 1L, LONG_MAX, LONG_MIN, -9876543210L})
        EXPECT_EQ(VInt::decode_zigzag64(VInt::encode_zigzag64(v)), v);
    EXPECT_EQ(VInt::encode_zigzag64(LONG_MIN), ULONG_MAX);
}

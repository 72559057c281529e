#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "text/vint.h"

using Base::VInt;

namespace {

std::vector<unsigned char> enc32(unsigned int v, bool low_first) {
    unsigned char buf[5];
    int n = VInt::encode_vint32(v, buf, low_first);
    return std::vector<unsigned char>(buf, buf + n);
}

}  // namespace

TEST(VInt, KnownEncodings) {
    EXPECT_EQ(enc32(0, true), (std::vector<unsigned char>{0x00}));
    EXPECT_EQ(enc32(127, true), (std::vector<unsigned char>{0x7F}));
    EXPECT_EQ(enc32(128, true), (std::vector<unsigned char>{0x80, 0x01}));
    EXPECT_EQ(enc32(128, false), (std::vector<unsigned char>{0x81, 0x00}));
    EXPECT_EQ(enc32(840, false), (std::vector<unsigned char>{0x86, 0x48}));
    EXPECT_EQ(enc32(4294967295u, true).size(), 5u);
    unsigned char buf[10];
    EXPECT_EQ(VInt::encode_vint64(ULONG_MAX, buf, true), 10);
    EXPECT_EQ(VInt::encode_vint64(ULONG_MAX, buf, false), 10);
}

TEST(VInt, RoundTripsBothOrders) {
    const unsigned long values[] = {0, 1, 127, 128, 16383, 16384, 2097151, 268435455, 268435456, 4294967295ul,
                                    4294967296ul, 34359738367ul, 0x0123456789ABCDEFul, ULONG_MAX};
    for (bool low_first : {true, false}) {
        for (unsigned long v : values) {
            unsigned char buf[12] = {};
            int n = VInt::encode_vint64(v, buf, low_first);
            EXPECT_EQ(VInt::get_bytes_num(buf, sizeof(buf)), n) << v;
            EXPECT_EQ(VInt::get_bytes_num(buf, n - 1), 0) << v;  // the last byte is missing
            EXPECT_EQ(VInt::decode_vint64(buf, n, low_first), v) << v << " " << low_first;
            if (v <= 0xFFFFFFFFul) {
                unsigned char b32[5];
                int m = VInt::encode_vint32(static_cast<unsigned int>(v), b32, low_first);
                ASSERT_EQ(m, n);
                EXPECT_EQ(0, memcmp(b32, buf, n));
                EXPECT_EQ(VInt::decode_vint32(b32, m, low_first), v);
            }
        }
    }
    const unsigned char ff[2] = {0xFF, 0xFF};
    EXPECT_EQ(VInt::get_bytes_num(ff, 2), 0);
    const unsigned char seven_f[1] = {0x7F};
    EXPECT_EQ(VInt::get_bytes_num(seven_f, 0), 0);
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

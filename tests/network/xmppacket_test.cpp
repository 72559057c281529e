// Xmp headers, field headers and control frames, byte for byte.
#include "network/xmppacket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using Network::XmpPacket;
typedef std::vector<unsigned char> Bytes;

static Bytes bytes(const char* p, int n) { return Bytes(p, p + n); }

TEST(XmpPacket, HeadersAreBigEndian) {
    char wire[4];
    XmpPacket::Header h = {XmpPacket::TYPE_DATA, 0, 0x1234}, back = {9, 9, 9};
    XmpPacket::to_stream(&h, wire);
    EXPECT_EQ((Bytes{0x02, 0x00, 0x12, 0x34}), bytes(wire, 4));
    XmpPacket::from_stream(&back, wire);
    EXPECT_EQ(0, std::memcmp(&h, &back, sizeof(h)));
    XmpPacket::FieldHeader f = {0xFFFE, 0x8001}, fb = {0, 0};
    XmpPacket::to_stream(&f, wire);
    EXPECT_EQ((Bytes{0xFF, 0xFE, 0x80, 0x01}), bytes(wire, 4));
    XmpPacket::from_stream(&fb, wire);
    EXPECT_EQ(0xFFFE, fb.FieldId);
    EXPECT_EQ(0x8001, fb.FieldLength);
}

TEST(XmpPacket, ControlFrames) {
    char wire[16];
    std::memset(wire, 0x55, sizeof(wire));
    ASSERT_EQ(6, XmpPacket::write_heartbeat(wire));
    EXPECT_EQ((Bytes{0x00, 0x02, 0x00, 0x00, 0x05, 0x00, 0x55}), bytes(wire, 7));
    unsigned int seconds = 99;
    EXPECT_FALSE(XmpPacket::read_heartbeat_interval(wire, 6, seconds));
    EXPECT_EQ(99u, seconds);
    ASSERT_EQ(10, XmpPacket::write_heartbeat_interval(wire, 0x01020304));
    EXPECT_EQ((Bytes{0x00, 0x06, 0x00, 0x00, 0x07, 0x04, 0x01, 0x02, 0x03, 0x04}), bytes(wire, 10));
    ASSERT_TRUE(XmpPacket::read_heartbeat_interval(wire, 10, seconds));
    EXPECT_EQ(0x01020304u, seconds);
    EXPECT_FALSE(XmpPacket::read_heartbeat_interval(wire, 9, seconds));
    // Only the exact shape of tag 7 counts: other tag, value length,
    // ExtLength, Length, Type.
    for (int at : {4, 5, 1, 3, 0}) {
        char odd[10];
        std::memcpy(odd, wire, 10);
        odd[at] ^= 1;
        EXPECT_FALSE(XmpPacket::read_heartbeat_interval(odd, 10, seconds)) << at;
    }
}

TEST(XmpPacket, DataFrameShape) {
    // 26 bytes: Xmp (Length 22), Crp, an empty Qelc packet.
    std::vector<char> frame(26, 0);
    frame[0] = 2;
    frame[3] = 22;
    frame[4] = 1;
    EXPECT_TRUE(XmpPacket::is_data_frame(frame.data(), 26));
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 25));  // cut short
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 3));
    // An extension (it would shift a flow record's fixed offsets), another
    // Type, no room for the Crp header.
    for (auto change : {std::make_pair(1, 4), std::make_pair(0, 17), std::make_pair(3, 1)}) {
        std::vector<char> odd = frame;
        odd[size_t(change.first)] = char(change.second);
        EXPECT_FALSE(XmpPacket::is_data_frame(odd.data(), 26)) << change.first;
    }
}

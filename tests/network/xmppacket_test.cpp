// Xmp headers, field headers and control frames, byte for byte.
#include "network/xmppacket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using Network::XmpPacket;

namespace {

std::vector<unsigned char> bytes(const char* p, int n)
{
    return std::vector<unsigned char>(reinterpret_cast<const unsigned char*>(p),
                                      reinterpret_cast<const unsigned char*>(p) + n);
}

}  // namespace

TEST(XmpPacket, HeadersAreBigEndian)
{
    char wire[4];
    XmpPacket::Header h = {XmpPacket::TYPE_DATA, 0, 0x1234};
    XmpPacket::to_stream(&h, wire);
    EXPECT_EQ((std::vector<unsigned char>{0x02, 0x00, 0x12, 0x34}), bytes(wire, 4));
    XmpPacket::Header back = {9, 9, 9};
    XmpPacket::from_stream(&back, wire);
    EXPECT_EQ(2, back.Type);
    EXPECT_EQ(0, back.ExtLength);
    EXPECT_EQ(0x1234, back.Length);

    XmpPacket::FieldHeader f = {0x0011, 0x00D2};
    XmpPacket::to_stream(&f, wire);
    EXPECT_EQ((std::vector<unsigned char>{0x00, 0x11, 0x00, 0xD2}), bytes(wire, 4));
    XmpPacket::FieldHeader fb = {0, 0};
    const unsigned char high[4] = {0xFF, 0xFE, 0x80, 0x01};
    XmpPacket::from_stream(&fb, reinterpret_cast<const char*>(high));
    EXPECT_EQ(0xFFFE, fb.FieldId);
    EXPECT_EQ(0x8001, fb.FieldLength);

    EXPECT_EQ(4100, XmpPacket::MAX_PACKAGE_SIZE);
    EXPECT_EQ(4096, XmpPacket::MAX_BODY_SIZE);
}

TEST(XmpPacket, ControlFrames)
{
    char wire[16];
    std::memset(wire, 0x55, sizeof(wire));
    ASSERT_EQ(6, XmpPacket::write_heartbeat(wire));
    EXPECT_EQ((std::vector<unsigned char>{0x00, 0x02, 0x00, 0x00, 0x05, 0x00}), bytes(wire, 6));
    EXPECT_EQ(0x55, wire[6]);
    unsigned int seconds = 99;
    EXPECT_FALSE(XmpPacket::read_heartbeat_interval(wire, 6, seconds));
    EXPECT_EQ(99u, seconds);

    ASSERT_EQ(10, XmpPacket::write_heartbeat_interval(wire, 0x01020304));
    EXPECT_EQ((std::vector<unsigned char>{0x00, 0x06, 0x00, 0x00, 0x07, 0x04, 0x01, 0x02, 0x03, 0x04}),
              bytes(wire, 10));
    ASSERT_TRUE(XmpPacket::read_heartbeat_interval(wire, 10, seconds));
    EXPECT_EQ(0x01020304u, seconds);
    EXPECT_FALSE(XmpPacket::read_heartbeat_interval(wire, 9, seconds));

    // Only the exact shape of tag 7 counts.
    const unsigned char odd[][10] = {
        {0x00, 0x06, 0x00, 0x00, 0x08, 0x04, 0, 0, 0, 1},  // other tag
        {0x00, 0x06, 0x00, 0x00, 0x07, 0x03, 0, 0, 0, 1},  // other value length
        {0x00, 0x07, 0x00, 0x00, 0x07, 0x04, 0, 0, 0, 1},  // other ExtLength
        {0x00, 0x06, 0x00, 0x01, 0x07, 0x04, 0, 0, 0, 1},  // not a control frame
        {0x02, 0x06, 0x00, 0x00, 0x07, 0x04, 0, 0, 0, 1},
    };
    for (const auto& frame : odd) EXPECT_FALSE(XmpPacket::read_heartbeat_interval(reinterpret_cast<const char*>(frame), 10, seconds));
}

TEST(XmpPacket, DataFrameShape)
{
    // 26 bytes: Xmp (Length 22), Crp, an empty Qelc packet.
    std::vector<char> frame(26, 0);
    frame[0] = 2;
    frame[3] = 22;
    frame[4] = 1;
    EXPECT_TRUE(XmpPacket::is_data_frame(frame.data(), 26));
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 25));  // cut short
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 3));
    frame[1] = 4;  // an extension would shift the fixed offsets of a flow record
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 26));
    frame[1] = 0;
    frame[0] = 17;
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 26));
    frame[0] = 2;
    frame[3] = 1;  // no room for the Crp header
    EXPECT_FALSE(XmpPacket::is_data_frame(frame.data(), 26));
}

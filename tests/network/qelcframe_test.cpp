// Frames with real records: a ReqOrderInsert frame byte for byte against
// data/order_insert.txt through the generated and the generic coders, and
// the iterator's decoding forms on whole, short and cut-off records.
#include "network/qelcpacket.h"
#include "network/xmppacket.h"

#include "record/gen/qelfield.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/support/data_file.h"

using Network::QelcPacket;
using Network::XmpPacket;

namespace {

typedef std::vector<unsigned char> Bytes;

QelInputOrderField sample_order()
{
    QelInputOrderField r;
    std::memset(&r, 0, sizeof(r));
    std::strcpy(r.ParticipantID, "0001");
    std::strcpy(r.ClientID, "00010203");
    std::strcpy(r.UserID, "trader01");
    std::strcpy(r.InstrumentID, "IF2612");
    r.OrderPriceType = '2';
    r.Direction = '0';
    std::strcpy(r.CombOffsetFlag, "0");
    std::strcpy(r.CombHedgeFlag, "1");
    r.LimitPrice = 4123.4;
    r.VolumeTotalOriginal = 5;
    r.TimeCondition = '3';
    std::strcpy(r.GTDDate, "20261123");
    r.VolumeCondition = '1';
    r.MinVolume = 1;
    r.ContingentCondition = '1';
    r.StopPrice = 1.5;
    r.ForceCloseReason = '0';
    std::strcpy(r.OrderLocalID, "000000012345");
    r.IsAutoSuspend = 1;
    std::strcpy(r.BusinessUnit, "desk-7");
    r.BusinessLocalID = 0x01020304;
    std::strcpy(r.IPAddress, "10.0.0.17");
    std::strcpy(r.MacAddress, "00:1A:2B:3C:4D:5E");
    return r;
}

// The frame of sample_order() as written out by hand.
Bytes expected_frame()
{
    Bytes frame;
    for (const auto& row : test_data::rows("network/data/order_insert.txt")) {
        Bytes piece = test_data::hex(row[0]);
        frame.insert(frame.end(), piece.begin(), piece.end());
    }
    return frame;
}

// Builds a request frame the way a flow writer does: prefix with a
// placeholder length, attach, header values, one record, commit, Length.
int build_order_frame(std::vector<char>& frame, QelcPacket::ToStreamCoder coder)
{
    frame.assign(XmpPacket::MAX_PACKAGE_SIZE, 0x77);
    XmpPacket::Header xmp = {XmpPacket::TYPE_DATA, 0, XmpPacket::MAX_BODY_SIZE};
    XmpPacket::to_stream(&xmp, frame.data());
    frame[4] = 1;
    frame[5] = 0;
    QelcPacket packet(0, 0, 'L');
    packet.get_header().Subject = 1;
    packet.attach(frame.data() + 6);
    packet.get_header().PacketId = get_qel_packet_id("ReqOrderInsert");
    packet.get_header().set_sequence(3);
    packet.get_header().RequestId = 42;
    QelInputOrderField order = sample_order();
    if (packet.add_field(&QelInputOrderField::DESC, &order, coder) == nullptr) return -1;
    int n = packet.commit();
    xmp.Length = static_cast<unsigned short>(n + 2);
    XmpPacket::to_stream(&xmp, frame.data());
    return n + 6;
}

}  // namespace

TEST(QelcFrame, ReqOrderInsertIsByteExact)
{
    const Bytes expect = expected_frame();
    ASSERT_EQ(240u, expect.size());

    // The generated coder and the generic one give the same frame.
    for (QelcPacket::ToStreamCoder coder : {&QelInputOrderField::to_stream, QelcPacket::ToStreamCoder(nullptr)}) {
        std::vector<char> frame;
        ASSERT_EQ(240, build_order_frame(frame, coder));
        EXPECT_EQ(expect, Bytes(frame.begin(), frame.begin() + 240));
        EXPECT_EQ(0x77, frame[240]);  // nothing written behind the frame
        EXPECT_TRUE(XmpPacket::is_data_frame(frame.data(), 240));
    }

    // Read back as a receiver does, from a copy of exactly the frame's size.
    std::vector<char> frame;
    build_order_frame(frame, nullptr);
    std::vector<char> exact(frame.begin(), frame.begin() + 240);
    XmpPacket::Header xmp;
    XmpPacket::from_stream(&xmp, exact.data());
    QelcPacket::Header host;
    QelcPacket::from_stream(&host, exact.data() + 6 + xmp.ExtLength);
    EXPECT_EQ(3ul, host.get_sequence());
    EXPECT_EQ(xmp.Length, host.BodyLength + 22);
    EXPECT_EQ(exact.data(), QelcPacket::get_xmp_header(exact.data() + 26));
    const QelInputOrderField order = sample_order();
    for (int form = 0; form < 2; ++form) {
        QelcPacket::Iterator it(&host, exact.data() + 26);
        ASSERT_EQ(QelInputOrderField::DESC.id, it.next());
        QelInputOrderField back;
        std::memset(&back, 0, sizeof(back));
        int members = form == 0 ? it.get_field(&back, &QelInputOrderField::DESC, true)
                                : it.get_field(&back, &QelInputOrderField::from_stream, true);
        EXPECT_EQ(24, members);
        EXPECT_EQ(0, std::memcmp(&order, &back, sizeof(order))) << "form " << form;
        EXPECT_EQ(QelcPacket::END, it.next());
    }
}

TEST(QelcFrame, ShortAndCutRecords)
{
    // A record of an older, shorter version: only whole members are taken.
    std::vector<char> area(QelcPacket::HEADER_SIZE + QelcPacket::MAX_BODY_SIZE);
    QelcPacket packet(0x1005, 0, 'L');
    packet.attach(area.data());
    Bytes value = expected_frame();
    value.erase(value.begin(), value.begin() + 30);
    char* a = packet.add_field(QelInputOrderField::DESC.id, 102);  // through LimitPrice
    ASSERT_NE(nullptr, a);
    std::memcpy(a, value.data(), 102);
    // The null-record form reserves the area and leaves it alone.
    char* b = packet.add_field(&QelInputOrderField::DESC, nullptr);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(a + 102 + 4, b);
    std::memcpy(b, value.data(), 210);
    packet.commit();
    EXPECT_EQ(2, packet.get_header().FieldCount);
    EXPECT_EQ(106 + 214, packet.get_header().BodyLength);

    std::vector<char> body(packet.get_body(), packet.get_body() + packet.get_header().BodyLength);
    QelcPacket::Iterator it(&packet.get_header(), body.data());
    QelInputOrderField full = sample_order();
    QelInputOrderField back;
    ASSERT_EQ(17, it.next());
    std::memset(&back, 0x5A, sizeof(back));
    EXPECT_EQ(10, it.get_field(&back, &QelInputOrderField::from_stream, true));
    EXPECT_EQ(0, std::memcmp(&full, &back, 94));  // the texts and chars ahead of LimitPrice
    EXPECT_EQ(full.LimitPrice, back.LimitPrice);
    for (size_t i = 104; i < sizeof(back); ++i) ASSERT_EQ(0, reinterpret_cast<unsigned char*>(&back)[i]) << i;
    ASSERT_EQ(17, it.next());
    std::memset(&back, 0, sizeof(back));
    EXPECT_EQ(24, it.get_field(&back, &QelInputOrderField::DESC, true));
    EXPECT_EQ(0, std::memcmp(&full, &back, sizeof(back)));
    // Past the end there is no record: decoding zeroes and gives 0.
    ASSERT_EQ(QelcPacket::END, it.next());
    std::memset(&back, 0x5A, sizeof(back));
    EXPECT_EQ(0, it.get_field(&back, &QelInputOrderField::DESC, true));
    EXPECT_EQ(0, back.ParticipantID[0]);

    // A body cut inside the second record yields the first only.
    QelcPacket::Header cut = packet.get_header();
    cut.BodyLength = 106 + 100;
    std::vector<char> shorter(body.begin(), body.begin() + cut.BodyLength);
    QelcPacket::Iterator walker(&cut, shorter.data());
    EXPECT_EQ(17, walker.next());
    EXPECT_EQ(QelcPacket::END, walker.next());
}

// Frames with real records: a ReqOrderInsert frame compared byte for byte
// with one written out by hand from the record tables, the generic record
// coders with their fixed-point and short-record rules, and the iterator's
// decoding forms on whole, short and cut-off records.
#include "network/crppacket.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"

#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <memory>
#include <vector>

using Network::QelcPacket;
using Network::XmpPacket;

namespace {

typedef std::vector<unsigned char> Bytes;

void put(Bytes& b, int at, const char* text) { std::memcpy(b.data() + at, text, std::strlen(text)); }

void put(Bytes& b, int at, const Bytes& raw) { std::memcpy(b.data() + at, raw.data(), raw.size()); }

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

// The stream form of sample_order(), placed by the stream offsets of the
// record table.
Bytes expected_order_stream()
{
    Bytes v(210, 0);
    put(v, 13, "0001");
    put(v, 24, "00010203");
    put(v, 35, "trader01");
    put(v, 51, "IF2612");
    put(v, 82, "20");
    put(v, 84, "0");
    put(v, 89, "1");
    put(v, 94, Bytes{0x40, 0xB0, 0x1B, 0x66, 0x66, 0x66, 0x66, 0x66});  // 4123.4
    put(v, 102, Bytes{0, 0, 0, 5});
    put(v, 106, "3");
    put(v, 107, "20261123");
    put(v, 116, "1");
    put(v, 117, Bytes{0, 0, 0, 1});
    put(v, 121, "1");
    put(v, 122, Bytes{0x3F, 0xF8, 0, 0, 0, 0, 0, 0});  // 1.5
    put(v, 130, "0");
    put(v, 131, "000000012345");
    put(v, 144, Bytes{0, 0, 0, 1});
    put(v, 148, "desk-7");
    put(v, 169, Bytes{1, 2, 3, 4});
    put(v, 173, "10.0.0.17");
    put(v, 189, "00:1A:2B:3C:4D:5E");
    return v;
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

std::unique_ptr<Base::FieldDesc> probe_desc()
{
    std::unique_ptr<Base::FieldDesc> d(new Base::FieldDesc(0x7001, "Probe"));
    d->add_member(Base::DT_UINT16, 2, "T16", "Small", false);        // offset 0
    d->add_member(Base::DT_FIXEDPOINT3, 8, "TMoney", "Money", false);  // offset 2
    d->add_member(Base::DT_STRING, 5, "TText", "Text", false);        // offset 10
    d->add_member(Base::DT_FIXEDPOINT8, 8, "TRate", "Rate", false);   // offset 15
    d->add_member(Base::DT_INT32, 4, "T32", "Count", false);          // offset 23
    return d;
}

// The probe record: no padding, since it was built member by member.
struct Probe {
    unsigned char bytes[27];
    long fixed(int at) const { long v; std::memcpy(&v, bytes + at, 8); return v; }
    double real(int at) const { double v; std::memcpy(&v, bytes + at, 8); return v; }
    void set_real(int at, double v) { std::memcpy(bytes + at, &v, 8); }
};

}  // namespace

TEST(QelcFrame, ReqOrderInsertIsByteExact)
{
    const Bytes head = {
        0x02, 0x00, 0x00, 0xEC,                          // Xmp: Type 2, ExtLength 0, Length 214 + 22
        0x01, 0x00,                                      // Crp: Version 1, plain
        0x04, 'L',  0x00, 0x01,                          // Version, Chain, Subject 1
        0x00, 0x00, 0x10, 0x05,                          // PacketId ReqOrderInsert
        0x00, 0x00, 0x00, 0x03, 0x00,                    // sequence 3
        0x01, 0x00, 0xD6,                                // FieldCount 1, BodyLength 214
        0x00, 0x00, 0x00, 0x2A,                          // RequestId 42
        0x00, 0x11, 0x00, 0xD2,                          // record 17, 210 bytes
    };
    Bytes expect = head;
    Bytes value = expected_order_stream();
    expect.insert(expect.end(), value.begin(), value.end());
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
    Bytes value = expected_order_stream();
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

// The packet layer's coders are the record layer's generic ones, whose
// rules have their own tests; here each entry point is checked once on a
// record with fixed-point members of three and eight decimals.
TEST(XmpPacketCoders, EachFormOnce)
{
    std::unique_ptr<Base::FieldDesc> desc = probe_desc();
    ASSERT_EQ(27, desc->stream_size);
    Bytes st(27, 0);
    put(st, 0, Bytes{0x12, 0x34});
    put(st, 2, Bytes{0xBF, 0xD3, 0x33, 0x33, 0x33, 0x33, 0x33, 0x33});   // -0.3
    put(st, 10, "abcd");
    put(st, 15, Bytes{0x7F, 0xEF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});  // null
    put(st, 23, Bytes{0xFF, 0xFF, 0xFF, 0xFE});

    // Stream to internal and back, exactly; null stays null.
    Probe internal;
    std::memset(&internal, 0xAA, sizeof(internal));
    EXPECT_EQ(5, XmpPacket::from_stream(desc.get(), &internal, st.data(), 27, false));
    EXPECT_EQ(-300, internal.fixed(2));
    EXPECT_EQ(Base::FIXED_POINT_NULL, internal.fixed(15));
    Bytes round(27, 0xAA);
    XmpPacket::to_stream(desc.get(), &internal, round.data(), sizeof(internal));
    EXPECT_EQ(st, round);
    // A record of size 0 gives an all-zero stream.
    XmpPacket::to_stream(desc.get(), &internal, round.data(), 0);
    EXPECT_EQ(Bytes(27, 0), round);

    // Raw: the doubles only swapped.
    Probe external;
    EXPECT_EQ(5, XmpPacket::from_stream(desc.get(), &external, st.data(), 27, true));
    EXPECT_EQ(-0.3, external.real(2));
    EXPECT_EQ(DBL_MAX, external.real(15));

    // Internal to struct and back, with a copy and in place; 0.29 with eight
    // decimals is 29000000, not 28999999.
    Probe converted;
    XmpPacket::to_struct(desc.get(), &internal, &converted, sizeof(internal));
    EXPECT_EQ(0, std::memcmp(&external, &converted, sizeof(external)));
    converted.set_real(15, 0.29);
    Probe again;
    EXPECT_EQ(5, XmpPacket::from_struct(desc.get(), &again, &converted, sizeof(converted)));
    EXPECT_EQ(29000000, again.fixed(15));
    EXPECT_EQ(-300, again.fixed(2));
    Probe in_place = internal;
    XmpPacket::to_struct(desc.get(), &in_place);
    EXPECT_EQ(0, std::memcmp(&external, &in_place, sizeof(external)));
    XmpPacket::from_struct(desc.get(), &in_place);
    EXPECT_EQ(0, std::memcmp(&internal, &in_place, sizeof(internal)));

    // No members: nothing is touched and nothing is counted.
    Base::FieldDesc empty(0x7002, "Empty");
    Probe p;
    std::memset(&p, 0xAA, sizeof(p));
    EXPECT_EQ(0, XmpPacket::from_stream(&empty, &p, st.data(), 27, false));
    EXPECT_EQ(0, XmpPacket::from_struct(&empty, &p, st.data(), 27));
    XmpPacket::to_stream(&empty, st.data(), &p, 27);
    for (int i = 0; i < 27; ++i) ASSERT_EQ(0xAA, p.bytes[i]) << i;
}

TEST(QelcFrame, CompressedOrderFrameRoundTrip)
{
    // As a channel sends it: the packet from offset 6, Length - 2 bytes,
    // coded with the frame-sized capacity, and taken back by a receiver that
    // demands 20 + BodyLength decoded bytes.
    std::vector<char> frame;
    const int size = build_order_frame(frame, nullptr);
    const int capacity = 2 * XmpPacket::MAX_PACKAGE_SIZE - 6;
    std::vector<unsigned char> coded(capacity);
    int coded_len = capacity;
    ASSERT_EQ(0, Network::CrpPacket::encode_zero(coded.data(), coded_len,
                                                 reinterpret_cast<const unsigned char*>(frame.data()) + 6, size - 6));
    EXPECT_LT(coded_len, size - 6);
    coded.resize(coded_len);
    std::vector<unsigned char> plain(capacity);
    int plain_len = capacity;
    ASSERT_EQ(0, Network::CrpPacket::decode_zero(plain.data(), plain_len, coded.data(), coded_len));
    QelcPacket::Header host;
    QelcPacket::from_stream(&host, reinterpret_cast<const char*>(plain.data()));
    EXPECT_EQ(20 + host.BodyLength, plain_len);
    EXPECT_EQ(0, std::memcmp(plain.data(), frame.data() + 6, plain_len));
}

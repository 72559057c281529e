// Qelc packet building and walking: header bytes, the 255-record and
// 4000-byte limits, the 40-bit sequence number, and bodies cut off or forged,
// each in a heap buffer of its exact size so that AddressSanitizer sees any
// read past it.
#include "network/qelcpacket.h"

#include "network/xmppacket.h"
#include "record/fielddesc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

using Network::QelcPacket;
using Network::XmpPacket;

namespace {

typedef std::vector<unsigned char> Bytes;

// Copies a committed packet's body into a buffer of exactly its length and
// walks it; returns the ids seen.
std::vector<unsigned short> walk(const QelcPacket::Header& header, const char* body)
{
    std::vector<char> exact(body, body + header.BodyLength);
    QelcPacket::Iterator it(&header, exact.data());
    std::vector<unsigned short> ids;
    for (unsigned short id = it.next(); id != QelcPacket::END; id = it.next()) ids.push_back(id);
    return ids;
}

}  // namespace

TEST(QelcPacket, HeaderBytesAndSequence)
{
    QelcPacket::Header h;
    h.Version = 4;
    h.Chain = 'C';
    h.Subject = 0x0102;
    h.PacketId = 0x00001005;
    h.set_sequence(0x12AABBCCDDul);
    h.FieldCount = 3;
    h.BodyLength = 0x0F9F;
    h.RequestId = 0xDEADBEEF;
    char wire[20];
    QelcPacket::to_stream(&h, wire);
    const Bytes expect = {0x04, 'C',  0x01, 0x02, 0x00, 0x00, 0x10, 0x05, 0xAA, 0xBB,
                          0xCC, 0xDD, 0x12, 0x03, 0x0F, 0x9F, 0xDE, 0xAD, 0xBE, 0xEF};
    EXPECT_EQ(expect, Bytes(wire, wire + 20));
    QelcPacket::Header back;
    std::memset(&back, 0, sizeof(back));
    QelcPacket::from_stream(&back, wire);
    EXPECT_EQ(0, std::memcmp(&h, &back, sizeof(h)));
    EXPECT_EQ(0x12AABBCCDDul, back.get_sequence());

}

// Records laid out byte for byte behind the header, nothing written behind
// them, and walked back from the stream form and from a host header.
TEST(QelcPacket, BuildAndWalk)
{
    QelcPacket packet(0x1005, 77, 'C');
    EXPECT_EQ(nullptr, packet.add_field(1, 1));  // no buffer yet
    EXPECT_EQ(0, packet.commit());
    std::vector<char> frame(XmpPacket::MAX_PACKAGE_SIZE, 0x5A);
    packet.attach(frame.data() + 6);
    EXPECT_EQ(frame.data(), QelcPacket::get_xmp_header(packet.get_body()));
    // An empty packet commits to its header alone and walks to the end at once.
    ASSERT_EQ(20, packet.commit());
    EXPECT_TRUE(walk(packet.get_header(), packet.get_body()).empty());

    std::memcpy(packet.add_field(0x0003, 3), "abc", 3);
    ASSERT_NE(nullptr, packet.add_field(0x0011, 0));
    std::memcpy(packet.add_field(0xFFFE, 2), "\x01\x02", 2);
    ASSERT_EQ(20 + 7 + 4 + 6, packet.commit());
    const Bytes body = {0x00, 0x03, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x11, 0x00, 0x00,
                        0xFF, 0xFE, 0x00, 0x02, 0x01, 0x02, 0x5A};
    EXPECT_EQ(body, Bytes(frame.data() + 26, frame.data() + 26 + body.size()));
    EXPECT_EQ(3, frame[6 + 13]);  // FieldCount

    QelcPacket::Header host;
    QelcPacket::from_stream(&host, frame.data() + 6);
    QelcPacket::Iterator it(&host, frame.data() + 26);
    unsigned short size = 9;
    EXPECT_EQ(nullptr, it.get_field(size));  // no current record before next()
    EXPECT_EQ(0, size);
    ASSERT_EQ(0x0003, it.next());
    EXPECT_EQ(0, std::memcmp(it.get_field(size), "abc", 3));
    EXPECT_EQ(3, size);
    ASSERT_EQ(0x0011, it.next());
    EXPECT_NE(nullptr, it.get_field(size));
    EXPECT_EQ(0, size);
    ASSERT_EQ(0xFFFE, it.next());
    EXPECT_EQ(frame.data() + 26 + 15, it.get_field(size));
    EXPECT_EQ(QelcPacket::END, it.next());
    EXPECT_EQ(nullptr, it.get_field(size));
    EXPECT_EQ(QelcPacket::END, it.next());
    // A host header with its body directly behind it.
    std::vector<char> joined(20 + host.BodyLength);
    std::memcpy(joined.data(), &host, 20);
    std::memcpy(joined.data() + 20, frame.data() + 26, host.BodyLength);
    QelcPacket::Iterator behind(reinterpret_cast<const QelcPacket::Header*>(joined.data()), nullptr);
    EXPECT_EQ(0x0003, behind.next());
}

TEST(QelcPacket, Limits)
{
    std::vector<char> area(QelcPacket::HEADER_SIZE + QelcPacket::MAX_BODY_SIZE);
    QelcPacket packet(1, 0, 'L');

    // 255 records are accepted, the 256th is refused however small.
    packet.attach(area.data());
    for (int i = 0; i < 255; ++i) ASSERT_NE(nullptr, packet.add_field(static_cast<unsigned short>(i), 0)) << i;
    EXPECT_EQ(nullptr, packet.add_field(255, 0));
    EXPECT_EQ(255, packet.get_header().FieldCount);
    EXPECT_EQ(255 * 4, packet.get_header().BodyLength);
    packet.commit();
    std::vector<unsigned short> ids = walk(packet.get_header(), packet.get_body());
    ASSERT_EQ(255u, ids.size());
    for (int i = 0; i < 255; ++i) ASSERT_EQ(i, ids[i]);

    // 4000 body bytes are accepted, 4001 refused, and a refusal changes nothing.
    packet.attach(area.data());
    EXPECT_EQ(0, packet.get_header().FieldCount);
    ASSERT_NE(nullptr, packet.add_field(1, 1000 - 4));
    ASSERT_NE(nullptr, packet.add_field(2, 1000 - 4));
    ASSERT_NE(nullptr, packet.add_field(3, 1000 - 4));
    EXPECT_EQ(nullptr, packet.add_field(4, 1000 - 4 + 1));
    EXPECT_EQ(3, packet.get_header().FieldCount);
    EXPECT_EQ(3000, packet.get_header().BodyLength);
    EXPECT_EQ(nullptr, packet.add_field(4, 65535));
    char* last = packet.add_field(4, 1000 - 4);
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(area.data() + area.size(), last + 996);  // ends at the buffer's end
    EXPECT_EQ(4000, packet.get_header().BodyLength);
    EXPECT_EQ(nullptr, packet.add_field(5, 0));
    EXPECT_EQ(4020, packet.commit());
    EXPECT_EQ((std::vector<unsigned short>{1, 2, 3, 4}), walk(packet.get_header(), packet.get_body()));
}

TEST(QelcPacket, TruncatedAndForgedBodies)
{
    // Two records, 0x0010 with 5 bytes and 0x0020 with 3: 16 body bytes.
    const Bytes body = {0x00, 0x10, 0x00, 0x05, 1, 2, 3, 4, 5, 0x00, 0x20, 0x00, 0x03, 6, 7, 8};
    QelcPacket::Header h;
    std::memset(&h, 0, sizeof(h));
    // Every cut: the walk yields the whole records before the cut and stops.
    for (int cut = 0; cut <= static_cast<int>(body.size()); ++cut) {
        std::vector<char> exact(body.begin(), body.begin() + cut);
        h.BodyLength = static_cast<unsigned short>(cut);
        QelcPacket::Iterator it(&h, exact.data());
        std::vector<unsigned short> ids;
        for (unsigned short id = it.next(); id != QelcPacket::END; id = it.next()) {
            unsigned short size;
            const char* v = it.get_field(size);
            ASSERT_LE(v + size, exact.data() + cut);
            ids.push_back(id);
        }
        std::vector<unsigned short> expect;
        if (cut >= 9) expect.push_back(0x10);
        if (cut >= 16) expect.push_back(0x20);
        EXPECT_EQ(expect, ids) << "cut " << cut;
        EXPECT_LE(it.get_position(), cut);
    }
    // A record that claims more than is left ends the walk behind its header.
    std::vector<char> liar = {0x00, 0x10, 0x7F, 0x7F, 1, 2};
    h.BodyLength = 6;
    QelcPacket::Iterator it(&h, liar.data());
    EXPECT_EQ(QelcPacket::END, it.next());
    EXPECT_EQ(4, it.get_position());

    // A record named by the end mark is no current record: every form of
    // get_field gives nothing and reads nothing (ASan), the record zeroed.
    std::vector<char> end_mark = {char(0xFF), char(0xFF), 0x00, 0x04, 0, 0, 0, 0};
    h.BodyLength = 8;
    QelcPacket::Iterator marked(&h, end_mark.data());
    EXPECT_EQ(QelcPacket::END, marked.next());
    unsigned short size = 99;
    EXPECT_EQ(nullptr, marked.get_field(size));
    EXPECT_EQ(0, size);
    std::unique_ptr<Base::FieldDesc> desc(new Base::FieldDesc(0x7001, "Probe"));
    desc->add_member(Base::DT_STRING, 8, "TText", "Text", false);
    char record[8];
    std::memset(record, 0x55, sizeof(record));
    EXPECT_EQ(0, marked.get_field(record, desc.get(), false));
    for (char c : record) EXPECT_EQ(0, c);

    // Random bodies: the walk never leaves the buffer and always ends.
    std::mt19937 rng(11);
    for (int round = 0; round < 2000; ++round) {
        int n = static_cast<int>(rng() % 80);
        std::vector<char> raw(n);
        for (auto& c : raw) c = static_cast<char>(rng() % 4 == 0 ? rng() : rng() % 8);
        h.BodyLength = static_cast<unsigned short>(n);
        QelcPacket::Iterator walker(&h, raw.data());
        int steps = 0;
        while (walker.next() != QelcPacket::END) {
            unsigned short size;
            const char* v = walker.get_field(size);
            if (v != nullptr) {
                ASSERT_LE(v + size, raw.data() + n);
            }
            ASSERT_LE(++steps, n / 4);
        }
    }
}

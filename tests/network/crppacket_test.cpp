// Zero compression: the listed encodings, capacities at the edge, a
// round-trip property on random and record-shaped inputs, and hostile coded
// inputs in exactly sized heap buffers so that AddressSanitizer sees any
// read or write past them.
#include "network/crppacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

using Network::CrpPacket;

namespace {

typedef std::vector<unsigned char> Bytes;

int encode(const Bytes& src, Bytes& out, int capacity)
{
    out.assign(capacity, 0xAA);
    int len = capacity;
    int rc = CrpPacket::encode_zero(out.data(), len, src.data(), static_cast<int>(src.size()));
    if (rc == 0) out.resize(len);
    else EXPECT_EQ(capacity, len);  // a refusal leaves the capacity in dst_len
    return rc;
}

int decode(const Bytes& src, Bytes& out, int capacity)
{
    out.assign(capacity, 0xAA);
    int len = capacity;
    int rc = CrpPacket::decode_zero(out.data(), len, src.data(), static_cast<int>(src.size()));
    if (rc == 0) out.resize(len);
    else EXPECT_EQ(capacity, len);
    return rc;
}

Bytes zeros(int n) { return Bytes(n, 0); }

// A record-like buffer: short texts in wide zero-filled arrays, a few
// integers, a double or two, and now and then bytes of the escape range.
Bytes record_shaped(std::mt19937& rng, int size)
{
    Bytes b(size, 0);
    int at = 0;
    while (at < size) {
        int width = 1 + static_cast<int>(rng() % 31);
        int text = static_cast<int>(rng() % (width + 1));
        for (int i = 0; i < text && at + i < size; ++i) {
            unsigned v = rng() % 100;
            b[at + i] = v < 80 ? static_cast<unsigned char>('0' + rng() % 75)
                               : static_cast<unsigned char>(rng() % 256);
        }
        at += width;
    }
    return b;
}

}  // namespace

TEST(CrpPacket, HeaderCopiesTwoBytes)
{
    CrpPacket::Header h = {CrpPacket::VERSION, CrpPacket::METHOD_ZERO};
    char wire[2];
    CrpPacket::to_stream(&h, wire);
    EXPECT_EQ(1, wire[0]);
    EXPECT_EQ(3, wire[1]);
    CrpPacket::Header back = {0, 0};
    CrpPacket::from_stream(&back, wire);
    EXPECT_EQ(1, back.Version);
    EXPECT_EQ(3, back.Method);
}

TEST(CrpPacket, ListedEncodings)
{
    Bytes out;
    ASSERT_EQ(0, encode(zeros(16), out, 100));
    EXPECT_EQ((Bytes{0xEF, 0xE1}), out);
    ASSERT_EQ(0, encode(zeros(15), out, 100));
    EXPECT_EQ((Bytes{0xEF}), out);
    ASSERT_EQ(0, encode(zeros(1), out, 100));
    EXPECT_EQ((Bytes{0xE1}), out);
    ASSERT_EQ(0, encode(zeros(31), out, 100));
    EXPECT_EQ((Bytes{0xEF, 0xEF, 0xE1}), out);

    ASSERT_EQ(0, encode(Bytes{0xE5}, out, 100));
    EXPECT_EQ((Bytes{0xE0, 0xE5}), out);
    ASSERT_EQ(0, encode(Bytes{0xE0}, out, 100));
    EXPECT_EQ((Bytes{0xE0, 0xE0}), out);
    ASSERT_EQ(0, encode(Bytes{0xEF, 0xDF, 0xF0}, out, 100));
    EXPECT_EQ((Bytes{0xE0, 0xEF, 0xDF, 0xF0}), out);
    ASSERT_EQ(0, encode(Bytes{'A', 0, 0, 'B', 0}, out, 100));
    EXPECT_EQ((Bytes{'A', 0xE2, 'B', 0xE1}), out);

    ASSERT_EQ(0, decode(Bytes{0xE0, 0xE5}, out, 100));
    EXPECT_EQ((Bytes{0xE5}), out);
    ASSERT_EQ(0, decode(Bytes{0xEF, 0xE1}, out, 100));
    EXPECT_EQ(zeros(16), out);
    // The decoder copies a plain zero although the encoder never writes one.
    ASSERT_EQ(0, decode(Bytes{0x00, 'x'}, out, 100));
    EXPECT_EQ((Bytes{0x00, 'x'}), out);
}

TEST(CrpPacket, CapacityEdges)
{
    Bytes out;
    // Empty input succeeds whatever the capacity, even 0 and with null dst.
    for (int cap : {0, -1, 5}) {
        int len = cap;
        EXPECT_EQ(0, CrpPacket::encode_zero(nullptr, len, nullptr, 0));
        EXPECT_EQ(0, len);
        len = cap;
        EXPECT_EQ(0, CrpPacket::decode_zero(nullptr, len, nullptr, 0));
        EXPECT_EQ(0, len);
    }
    // Non-empty input with no room.
    EXPECT_EQ(-2, encode(Bytes{'a'}, out, 0));
    EXPECT_EQ(-2, decode(Bytes{'a'}, out, 0));

    // An escape due with exactly one free byte is refused, after the bytes
    // before it were written.
    ASSERT_EQ(-2, encode(Bytes{'a', 'b', 0xE7}, out, 3));
    EXPECT_EQ('a', out[0]);
    EXPECT_EQ('b', out[1]);
    ASSERT_EQ(0, encode(Bytes{'a', 'b', 0xE7}, out, 4));
    EXPECT_EQ((Bytes{'a', 'b', 0xE0, 0xE7}), out);
    // Output full while input remains.
    EXPECT_EQ(-2, encode(Bytes{'a', 'b', 'c'}, out, 2));
    ASSERT_EQ(0, encode(Bytes{'a', 'b', 'c'}, out, 3));

    // A run longer than the room left.
    EXPECT_EQ(-2, decode(Bytes{0xEF}, out, 14));
    ASSERT_EQ(0, decode(Bytes{0xEF}, out, 15));
    EXPECT_EQ(zeros(15), out);
    EXPECT_EQ(-2, decode(Bytes{'a', 0xE3}, out, 3));
    ASSERT_EQ(0, decode(Bytes{'a', 0xE3}, out, 4));
    // Output full while coded input remains.
    EXPECT_EQ(-2, decode(Bytes{'a', 'b'}, out, 1));
    EXPECT_EQ(-2, decode(Bytes{0xE0, 'a', 0xE1}, out, 1));
}

TEST(CrpPacket, FinalLoneEscapeIsRefused)
{
    Bytes out;
    // The coded input sits in a vector of its exact size: were the decoder
    // to fetch the literal behind the last byte, AddressSanitizer would stop.
    EXPECT_EQ(-2, decode(Bytes{0xE0}, out, 100));
    EXPECT_EQ(-2, decode(Bytes{'a', 'b', 0xE0}, out, 100));
    EXPECT_EQ(-2, decode(Bytes{0xEF, 0xE0}, out, 100));
    ASSERT_EQ(0, decode(Bytes{0xE0, 0xE0}, out, 100));
    EXPECT_EQ((Bytes{0xE0}), out);
}

TEST(CrpPacket, RoundTripProperty)
{
    std::mt19937 rng(20261123);
    Bytes coded, back;
    for (int round = 0; round < 3000; ++round) {
        int size = static_cast<int>(rng() % 4100) + 1;
        Bytes src;
        switch (round % 3) {
        case 0:  // uniform bytes
            src.resize(size);
            for (auto& b : src) b = static_cast<unsigned char>(rng());
            break;
        case 1:  // record-shaped
            src = record_shaped(rng, size);
            break;
        default:  // mostly the special values: zeros and the escape range
            src.resize(size);
            for (auto& b : src) {
                unsigned v = rng() % 4;
                b = v == 0 ? 0 : v == 1 ? static_cast<unsigned char>(0xE0 + rng() % 16)
                                        : static_cast<unsigned char>(rng());
            }
            break;
        }
        // Twice the input is always room enough.
        ASSERT_EQ(0, encode(src, coded, 2 * size)) << "round " << round;
        ASSERT_LE(coded.size(), 2 * src.size());
        ASSERT_EQ(coded.end(), std::find(coded.begin(), coded.end(), 0));
        // Exact capacity suffices, one less does not.
        Bytes again;
        ASSERT_EQ(0, encode(src, again, static_cast<int>(coded.size())));
        ASSERT_EQ(coded, again);
        ASSERT_EQ(-2, encode(src, again, static_cast<int>(coded.size()) - 1));

        ASSERT_EQ(0, decode(coded, back, size)) << "round " << round;
        ASSERT_EQ(src, back) << "round " << round;
        if (size > 1) {
            ASSERT_EQ(-2, decode(coded, back, size - 1));
        }
    }
    // The frame-sized capacity of the channel holds the worst case of the
    // largest frame: every byte of the packet escaped.
    Bytes worst(4100 - 6, 0xE9);
    ASSERT_EQ(0, encode(worst, coded, 8194));
    EXPECT_EQ(2 * worst.size(), coded.size());
}

TEST(CrpPacket, HostileCodedInput)
{
    std::mt19937 rng(7);
    Bytes out;
    for (int round = 0; round < 5000; ++round) {
        int size = static_cast<int>(rng() % 64) + 1;
        Bytes src(size);
        for (auto& b : src) {
            unsigned v = rng() % 3;
            b = v == 0 ? static_cast<unsigned char>(0xE0 + rng() % 16) : static_cast<unsigned char>(rng());
        }
        int cap = static_cast<int>(rng() % 128);
        int rc = decode(src, out, cap);
        if (rc == 0) {
            ASSERT_LE(static_cast<int>(out.size()), cap);
            // What decodes re-encodes to the canonical form of the same bytes.
            Bytes coded, back;
            ASSERT_EQ(0, encode(out, coded, 2 * static_cast<int>(out.size()) + 1));
            ASSERT_EQ(0, decode(coded, back, static_cast<int>(out.size()) + 1));
            ASSERT_EQ(out, back);
        }
    }
}

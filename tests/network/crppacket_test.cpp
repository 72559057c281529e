// Zero compression: the listed encodings and capacity edges (a table in
// data/), a round trip on random and record-shaped inputs, and hostile coded
// inputs, all in buffers of their exact size so that ASan sees any overrun.
#include "network/crppacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/support/data_file.h"

using Network::CrpPacket;

namespace {

typedef std::vector<unsigned char> Bytes;

int code(bool encode, const Bytes& src, Bytes& out, int capacity) {
    out.assign(size_t(std::max(capacity, 0)), 0xAA);
    int len = capacity;
    int rc = encode ? CrpPacket::encode_zero(out.data(), len, src.data(), int(src.size()))
                    : CrpPacket::decode_zero(out.data(), len, src.data(), int(src.size()));
    if (rc == 0) {
        out.resize(size_t(len));
    } else {
        EXPECT_EQ(capacity, len);  // a refusal leaves the capacity in dst_len
    }
    return rc;
}

}  // namespace

TEST(CrpPacket, ListedEncodingsAndCapacityEdges) {
    auto rows = test_data::rows("network/data/zero_coding.txt");
    ASSERT_EQ(rows.size(), 27u);
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r[0]) + " " + r[1] + " " + r[2]);
        Bytes out, want = test_data::hex(r[4]);
        ASSERT_EQ(code(r[0][0] == 'e', test_data::hex(r[1]), out, atoi(r[2])), atoi(r[3]));
        if (atoi(r[3]) == 0) {
            EXPECT_EQ(out, want);
        } else {
            EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin()));
        }
    }
    // Empty input succeeds whatever the capacity, even with no buffer.
    for (int cap : {0, -1, 5}) {
        int len = cap;
        EXPECT_EQ(0, CrpPacket::encode_zero(nullptr, len, nullptr, 0));
        EXPECT_EQ(0, len);
        len = cap;
        EXPECT_EQ(0, CrpPacket::decode_zero(nullptr, len, nullptr, 0));
        EXPECT_EQ(0, len);
    }
}

TEST(CrpPacket, RoundTripProperty) {
    std::mt19937 rng(20261123);
    Bytes coded, again, back;
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        int size = int(rng() % 4100) + 1;
        Bytes src(size_t(size), 0);
        for (int at = 0; at < size;) {
            if (round % 3 == 1) {  // record-shaped: short texts in wide zero-filled arrays
                int width = 1 + int(rng() % 31), text = int(rng() % unsigned(width + 1));
                for (int i = 0; i < text && at + i < size; ++i)
                    src[size_t(at + i)] = rng() % 100 < 80 ? static_cast<unsigned char>('0' + rng() % 75)
                                                           : static_cast<unsigned char>(rng());
                at += width;
            } else {  // uniform, or mostly zeros and the escape range
                unsigned v = round % 3 == 0 ? 3 : rng() % 4;
                src[size_t(at++)] = v == 0 ? 0 : v == 1 ? static_cast<unsigned char>(0xE0 + rng() % 16)
                                                        : static_cast<unsigned char>(rng());
            }
        }
        // Twice the input is room enough; the exact size suffices, one less does not.
        ASSERT_EQ(0, code(true, src, coded, 2 * size));
        ASSERT_EQ(coded.end(), std::find(coded.begin(), coded.end(), 0));
        ASSERT_EQ(0, code(true, src, again, int(coded.size())));
        ASSERT_EQ(coded, again);
        ASSERT_EQ(-2, code(true, src, again, int(coded.size()) - 1));
        ASSERT_EQ(0, code(false, coded, back, size));
        ASSERT_EQ(src, back);
        if (size > 1) {
            ASSERT_EQ(-2, code(false, coded, back, size - 1));
        }
    }
    // The channel's frame-sized capacity holds the largest packet all escaped.
    ASSERT_EQ(0, code(true, Bytes(4100 - 6, 0xE9), coded, 8194));
    EXPECT_EQ(2u * (4100 - 6), coded.size());
}

TEST(CrpPacket, HostileCodedInput) {
    std::mt19937 rng(7);
    Bytes out, coded, back;
    for (int round = 0; round < 5000; ++round) {
        Bytes src(rng() % 64 + 1);
        for (auto& b : src)
            b = rng() % 3 == 0 ? static_cast<unsigned char>(0xE0 + rng() % 16) : static_cast<unsigned char>(rng());
        int cap = int(rng() % 128);
        if (code(false, src, out, cap) != 0) continue;
        ASSERT_LE(int(out.size()), cap);
        // What decodes re-encodes to the canonical form of the same bytes.
        ASSERT_EQ(0, code(true, out, coded, 2 * int(out.size()) + 1));
        ASSERT_EQ(0, code(false, coded, back, int(out.size()) + 1));
        ASSERT_EQ(out, back);
    }
}

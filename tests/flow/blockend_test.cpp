// Records that fill a flow's block to within a few bytes of its end: each
// one must come back whole, byte for byte, and none may be lost or doubled,
// whatever the block keeps at its end for its own bookkeeping.
#include "flow/dataflow.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using Base::DataFlow;

namespace {

const unsigned short BIG = 60000;

// Record i of a flow: its bytes, from i and the size.
std::string record_of(unsigned long i, unsigned short size) {
    std::string r(size, '\0');
    for (unsigned int j = 0; j < size; j++) r[j] = static_cast<char>(i * 131 + j * 7 + size);
    return r;
}

// Writes the sizes in turn, then reads every record back and compares it.
void round_trip(DataFlow& flow, const std::vector<unsigned short>& sizes) {
    for (unsigned long i = 0; i < sizes.size(); i++) {
        std::string r = record_of(i, sizes[i]);
        char* at = flow.alloc_object(sizes[i]);
        ASSERT_NE(at, nullptr);
        std::memcpy(at, r.data(), r.size());
        flow.commit_object(sizes[i], false);
    }
    ASSERT_EQ(flow.get_count(), sizes.size());
    DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    unsigned long i = 0;
    while (const DataFlow::Item* item = it.next()) {
        ASSERT_LT(i, sizes.size()) << "a record too many";
        ASSERT_EQ(item->length, sizes[i]) << "record " << i;
        ASSERT_TRUE(std::memcmp(item->data, record_of(i, sizes[i]).data(), sizes[i]) == 0)
            << "record " << i << " of " << sizes[i] << " bytes differs";
        i++;
    }
    EXPECT_EQ(i, sizes.size());
}

}  // namespace

// Big records fill most of a block, and the last record of the block is cut
// so that records and their length slots (of 4 or of 8 bytes a record) end
// 0 to 12 bytes short of the block's end; the same again in the next block,
// and a small record behind. Every shortfall of 1 to 8 bytes comes up.
TEST(FlowBlockEnd, RecordsEndingJustShortOfABlockComeBackWhole) {
    unsigned int first = 0, block = 0;
    DataFlow probe(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    probe.get_size(first, block);
    ASSERT_EQ(first, block);
    for (unsigned int slot : {4u, 8u}) {
        unsigned int big = block / (BIG + slot);
        if (block - big * (BIG + slot) < 64) big--;  // leaves room for a last record
        for (unsigned int short_by = 0; short_by <= 12; short_by++) {
            SCOPED_TRACE("slot " + std::to_string(slot) + ", short by " + std::to_string(short_by));
            unsigned int last = block - short_by - big * BIG - (big + 1) * slot;
            ASSERT_TRUE(last >= 1 && last <= 65535u) << last;
            std::vector<unsigned short> sizes;
            for (int round = 0; round < 2; round++) {
                sizes.insert(sizes.end(), big, BIG);
                sizes.push_back(static_cast<unsigned short>(last));
            }
            sizes.push_back(1);
            DataFlow flow(1, block, block, nullptr, nullptr, 0, nullptr, false, false);
            round_trip(flow, sizes);
            if (HasFatalFailure()) return;
        }
    }
}

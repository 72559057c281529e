#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "containers/blockmem.h"
#include "containers/memory.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/stress.h"

namespace {

unsigned long total_of(const Base::Memory& m) {
    unsigned long total = 0, used = 0;
    m.get_size(total, used);
    return total;
}

}  // namespace

TEST(Memory, ChunksSparesAndBorrowedAreas) {
    Base::Memory m(60, 64);  // the first chunk is rounded up to 64 and zeroed
    char* a = static_cast<char*>(m.alloc(40));
    for (int i = 0; i < 40; i++) ASSERT_EQ(a[i], 0);
    EXPECT_EQ(m.alloc(24), a + 40);  // no alignment beyond the running offset
    EXPECT_EQ(total_of(m), 64u);
    // More than next_size: a chunk of that very size, rounded up to 8; the
    // next small piece does not fit behind it (3 bytes left): a new chunk.
    memset(m.alloc(101), 0x5a, 101);
    EXPECT_EQ(total_of(m), 64u + 104u);
    m.alloc(8);
    EXPECT_EQ(total_of(m), 64u + 104u + 64u);
    // A spare chunk made by restore(null) is used before a new one is made;
    // one too small goes back, and a new chunk is made.
    m.restore(nullptr, 200);
    m.alloc(56);
    static_cast<char*>(m.alloc(150))[149] = 1;
    EXPECT_EQ(total_of(m), 432u);
    m.restore(nullptr, 16);
    m.alloc(100);
    EXPECT_EQ(total_of(m), 432u + 16u + 104u);
    // A borrowed area serves later pieces but is not ours to free.
    alignas(8) static char area[512];
    Base::Memory borrowing(8, 8);
    borrowing.alloc(8);
    borrowing.restore(area, sizeof(area));
    EXPECT_EQ(borrowing.alloc(300), area);
    EXPECT_EQ(borrowing.alloc(200), area + 300);
    // clear(): every chunk becomes spare and is used again, nothing new made.
    unsigned long before = total_of(m), total = 0, used = 1;
    m.clear();
    m.get_size(total, used);
    EXPECT_EQ(used, 0u);
    for (int i = 0; i < 10; i++) m.alloc(48);
    EXPECT_EQ(total_of(m), before);
}

TEST(Memory, ConcurrentPiecesAreDisjoint) {
    // Small chunks make the threads race for installing new ones often.
    const int threads = 4;
    const int pieces = kStressItems / 10;
    Base::Memory m(256, 1024);
    std::vector<std::vector<uint64_t*>> got(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < pieces; i++) {
                unsigned long size = 16 + 8 * (i % 5);
                uint64_t* p = static_cast<uint64_t*>(m.alloc(size));
                for (unsigned long w = 0; w < size / 8; w++) p[w] = uint64_t(t) << 32 | i;
                got[t].push_back(p);
            }
        });
    }
    for (auto& w : workers) w.join();
    std::vector<std::pair<char*, unsigned long>> ranges;
    for (int t = 0; t < threads; t++) {
        for (int i = 0; i < pieces; i++) {
            unsigned long size = 16 + 8 * (i % 5);
            uint64_t* p = got[t][i];
            for (unsigned long w = 0; w < size / 8; w++)
                ASSERT_EQ(p[w], uint64_t(t) << 32 | i) << "a piece was handed out twice";
            ranges.emplace_back(reinterpret_cast<char*>(p), size);
        }
    }
    std::sort(ranges.begin(), ranges.end());
    for (size_t i = 1; i < ranges.size(); i++)
        ASSERT_LE(ranges[i - 1].first + ranges[i - 1].second, ranges[i].first);
    unsigned long total = 0, used = 0;
    m.get_size(total, used);
    EXPECT_GE(total, (unsigned long)threads * pieces * 16);
}

class BlockMemBoth : public ::testing::TestWithParam<bool> {
protected:
    // With a pool, or with the general heap.
    Base::Memory* pool() { return GetParam() ? &memory : nullptr; }
    Base::Memory memory{4096, 4096};
};

// A large alloc, then commit of what was really used: the next piece
// continues right behind the committed end.
TEST_P(BlockMemBoth, CommitHandsBackWhatWasNotUsed) {
    Base::BlockMem mem(0, 64, 3, pool(), false);
    char* big = static_cast<char*>(mem.alloc(50));
    mem.commit(big + 10);
    EXPECT_EQ(mem.alloc(8), big + 10);
}

TEST_P(BlockMemBoth, OldestBlockIsReusedOnceWhollyFreed) {
    Base::BlockMem mem(64, 64, 3, pool(), false);
    char* p[4];
    for (int i = 0; i < 4; i++) p[i] = static_cast<char*>(mem.alloc(32));
    EXPECT_EQ(p[1], p[0] + 32);  // p0, p1 in the first block; p2, p3 in the second
    EXPECT_EQ(p[3], p[2] + 32);

    // Half of the first block freed: not yet reusable, a third block is made.
    mem.free(p[0], 32);
    long before = test_allocations();
    char* q = static_cast<char*>(mem.alloc(32));
    EXPECT_NE(q, p[0]);
    if (!GetParam()) {
        EXPECT_GT(test_allocations(), before);
    }

    // Both pieces of the first block freed (the last one ends exactly at the
    // block's end): the block moves behind current and is used next.
    mem.free(p[1], 32);
    mem.alloc(32);  // fills the third block
    before = test_allocations();
    EXPECT_EQ(mem.alloc(32), p[0]);
    EXPECT_EQ(mem.alloc(32), p[1]);
    EXPECT_EQ(test_allocations(), before);
}

TEST_P(BlockMemBoth, ClearKeepsBlocksAndReserveAddsThem) {
    Base::BlockMem mem(64, 64, 6, pool(), false);
    std::vector<void*> first_round;
    for (int i = 0; i < 6; i++) first_round.push_back(mem.alloc(40));
    for (int i = 0; i < 6; i += 2)  // blocks start on 2^6 bytes
        EXPECT_EQ(reinterpret_cast<uintptr_t>(first_round[i]) % 64, 0u);
    long before = test_allocations();
    unsigned long pool_before = 0, unused = 0;
    if (pool()) memory.get_size(pool_before, unused);
    mem.clear();
    for (int i = 0; i < 6; i++) EXPECT_EQ(mem.alloc(40), first_round[i]);
    EXPECT_EQ(test_allocations(), before);

    // reserve() makes the blocks now, so later allocs make none.
    mem.reserve(3);
    long after_reserve = test_allocations();
    for (int i = 0; i < 3; i++) mem.alloc(64);
    EXPECT_EQ(test_allocations(), after_reserve);
    if (pool()) {
        unsigned long pool_after = 0;
        memory.get_size(pool_after, unused);
        EXPECT_EQ(pool_after, pool_before);  // the 4096-byte chunk still holds them
    }
}

TEST_P(BlockMemBoth, ReaderWalksAllocationsAndFreesBehindItself) {
    Base::BlockMem mem(48, 48, 3, pool(), true);
    Base::BlockMem::Reader reader(&mem);
    EXPECT_EQ(reader.read(8), nullptr);
    for (uint64_t i = 0; i < 12; i++) *static_cast<uint64_t*>(mem.alloc(16)) = i;  // 3 a block
    for (uint64_t i = 0; i < 12; i++) {
        uint64_t* v = static_cast<uint64_t*>(reader.read(16));
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(*v, i);
    }
    EXPECT_EQ(reader.read(16), nullptr);
    // The reader marked the three blocks it left as freed: allocation now
    // reuses the oldest one instead of making a new block.
    long before = test_allocations();
    char* again = static_cast<char*>(mem.alloc(48));
    EXPECT_EQ(test_allocations(), before);
    memset(again, 7, 48);
    // The reader goes on with what follows, in the reused block.
    EXPECT_EQ(reader.read(48), again);
    EXPECT_EQ(reader.read(1), nullptr);
}

INSTANTIATE_TEST_SUITE_P(PoolAndHeap, BlockMemBoth, ::testing::Values(true, false));

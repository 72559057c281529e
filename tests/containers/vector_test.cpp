#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "containers/array.h"
#include "containers/heap.h"
#include "containers/memory.h"
#include "containers/vector.h"
#include "tests/support/stress.h"

namespace {

struct Record {
    uint64_t id;
    uint64_t triple;
    uint64_t inverse;
};

Record make_record(uint64_t i) { return Record{i, i * 3, ~i}; }

bool complete(const Record* r, uint64_t i) {
    return r->id == i && r->triple == i * 3 && r->inverse == ~i;
}

}  // namespace

TEST(Vector, SetPastTheCountFillsZerosAndPointersAreKept) {
    Base::Vector w(24, 0, 1, nullptr);
    EXPECT_EQ(w.get_block_elements(), 1024u);
    Record r = make_record(7);
    w.set(5, &r);  // fills five zero elements first
    EXPECT_EQ(w.get_count(), 6u);
    for (unsigned i = 0; i < 5; i++) {
        const Record* z = static_cast<const Record*>(w.get(i));
        ASSERT_NE(z, nullptr);
        EXPECT_EQ(z->id | z->triple | z->inverse, 0u);
    }
    EXPECT_TRUE(complete(static_cast<const Record*>(w.get(5)), 7));
    w.set_value(6, &r);  // set_value ignores count: get(count) stays null
    EXPECT_EQ(w.get(6), nullptr);
    w.set(2, &r);  // below count: overwrite, count unchanged
    EXPECT_EQ(w.get_count(), 6u);
    EXPECT_TRUE(complete(static_cast<const Record*>(w.get(2)), 7));
    Base::Vector p(0, 0, 0, nullptr);  // pointer elements are kept by value
    int a = 0;
    p.set(0, &a);
    p.set(1, nullptr);
    EXPECT_EQ(p.get(0), &a);
    EXPECT_EQ(p.get(1), nullptr);
    EXPECT_EQ(p.get_count(), 2u);
}

TEST(Vector, ElementsNeverMoveWhileGrowing) {
    // Small blocks (16 elements, 256 per bucket) so that growth crosses many
    // blocks and buckets; with a pool and with the general heap.
    Base::Memory memory(1 << 16, 1 << 16);
    for (Base::Memory* pool : {&memory, (Base::Memory*)nullptr}) {
        Base::Vector v(24, 16, 1, pool);
        const unsigned n = 20000;
        std::vector<const void*> where(n);
        for (unsigned i = 0; i < n; i++) {
            Record r = make_record(i);
            v.set(i, &r);
            where[i] = v.get(i);
        }
        for (unsigned i = 0; i < n; i++) {
            ASSERT_EQ(v.get(i), where[i]) << i;
            ASSERT_TRUE(complete(static_cast<const Record*>(where[i]), i)) << i;
        }
    }
}

TEST(Vector, ReaderOnAnotherThreadSeesOnlyCompleteElements) {
    const unsigned n = kStressItems;
    Base::Vector v(24, 64, 1, nullptr);
    bool ok = true;
    unsigned checked = 0;
    std::thread reader([&] {
        unsigned next = 0;
        while (next < n) {
            unsigned count = v.get_count();
            for (; next < count; next++) {
                const Record* r = static_cast<const Record*>(v.get(next));
                if (r == nullptr || !complete(r, next)) {
                    ok = false;
                    return;
                }
                checked++;
            }
            if (next < n) std::this_thread::yield();
        }
    });
    for (unsigned i = 0; i < n; i++) {
        Record r = make_record(i);
        v.set(v.get_count(), &r);
    }
    reader.join();
    EXPECT_TRUE(ok) << "a reader saw an element before it was complete";
    EXPECT_EQ(checked, n);
}

TEST(Vector, RecycledBlocksAreReusedAndClearDoesNotShareThem) {
    Base::Vector v(8, 16, 1, nullptr);
    for (uint64_t i = 0; i < 48; i++) v.set(i, &i);  // three blocks
    const void* block0 = v.get(0);
    const void* block1 = v.get(16);
    EXPECT_FALSE(v.recycle(5));  // nothing below the first block
    EXPECT_TRUE(v.recycle(40));  // blocks 0 and 1 go
    EXPECT_FALSE(v.recycle(40));
    for (uint64_t i = 48; i < 64; i++) v.set(i, &i);  // block 3 reuses one
    const void* block3 = v.get(48);
    EXPECT_TRUE(block3 == block1 || block3 == block0);

    // After clear the writer starts again from 0: no two live blocks may be
    // the same memory, or later elements overwrite earlier ones.
    Base::Vector w(8, 16, 1, nullptr);
    for (uint64_t i = 0; i < 48; i++) w.set(i, &i);
    EXPECT_TRUE(w.recycle(47));
    w.clear();
    for (uint64_t i = 0; i < 80; i++) {
        uint64_t value = 1000 + i;
        w.set(i, &value);
    }
    for (uint64_t i = 0; i < 80; i++)
        ASSERT_EQ(*static_cast<const uint64_t*>(w.get(i)), 1000 + i) << i;
}

TEST(Array, SetGetRecycleAndClear) {
    Base::Array a(24, 10, 2, nullptr);  // blocks of at least 4096 elements
    Record r = make_record(3);
    EXPECT_EQ(a.get(0), nullptr);
    a.set(3, &r);
    EXPECT_EQ(a.get_count(), 4u);
    EXPECT_TRUE(complete(static_cast<const Record*>(a.get(3)), 3));
    const Record* z = static_cast<const Record*>(a.get(1));
    EXPECT_EQ(z->id | z->triple | z->inverse, 0u);
    EXPECT_EQ(a.get(4), nullptr);
    // 20-byte elements lie 24 bytes apart, and only 20 bytes are copied.
    Base::Array b(20, 0, 1, nullptr);
    b.set(1, &r);
    EXPECT_EQ(static_cast<char*>(b.get(1)) - static_cast<char*>(b.get(0)), 24);
    EXPECT_EQ(memcmp(b.get(1), &r, 20), 0);
    for (uint64_t i = 4; i < 3 * 4096; i++) {
        Record e = make_record(i);
        a.set(i, &e);
    }
    std::vector<const void*> where;
    for (uint64_t i = 0; i < 3 * 4096; i += 512) where.push_back(a.get(i));
    EXPECT_TRUE(a.recycle(2 * 4096));
    for (uint64_t i = 0; i < 3 * 4096; i += 512) ASSERT_EQ(a.get(i), where[i / 512]);
    a.clear();  // recycled blocks come back without overlapping live ones
    for (uint64_t i = 0; i < 4 * 4096; i++) {
        Record e = make_record(i + 5);
        a.set(i, &e);
    }
    for (uint64_t i = 0; i < 4 * 4096; i++)
        ASSERT_TRUE(complete(static_cast<const Record*>(a.get(i)), i + 5)) << i;
}

namespace {

struct Entry {
    uint64_t timer;
    uint64_t seq;
    uint64_t due;
};

// The earliest due time compares greater and so stays on top.
int compare_due(const void* a, const void* b) {
    uint64_t x = static_cast<const Entry*>(a)->due, y = static_cast<const Entry*>(b)->due;
    return x < y ? 1 : (x > y ? -1 : 0);
}

int compare_int_pointers(const void* a, const void* b) {
    int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
    return x > y ? 1 : (x < y ? -1 : 0);
}

}  // namespace

TEST(Heap, OrderWithEqualKeysAndEdges) {
    Base::Heap heap(compare_due, sizeof(Entry), 0, 0, nullptr);
    EXPECT_EQ(heap.pop(), nullptr);
    EXPECT_EQ(heap.top(), nullptr);

    // On a tie the new element stays below the old one.
    Entry first{1, 1, 50}, second{2, 2, 50};
    heap.push(&first);
    heap.push(&second);
    EXPECT_EQ(static_cast<Entry*>(heap.top())->seq, 1u);
    heap.pop();
    EXPECT_EQ(static_cast<Entry*>(heap.top())->seq, 2u);
    heap.pop();  // the one element left: empty now
    EXPECT_EQ(heap.top(), nullptr);

    // Many entries on few distinct due times: they come out in due order,
    // each exactly once.
    std::mt19937 random(12345);
    const int n = 5000;
    for (int i = 0; i < n; i++) {
        Entry e{uint64_t(i), uint64_t(i), random() % 40};
        heap.push(&e);
    }
    std::vector<int> seen(n, 0);
    uint64_t last_due = 0;
    for (int i = 0; i < n; i++) {
        const Entry* top = static_cast<const Entry*>(heap.top());
        ASSERT_NE(top, nullptr);
        ASSERT_GE(top->due, last_due);
        last_due = top->due;
        seen[top->seq]++;
        const Entry* after = static_cast<const Entry*>(heap.pop());
        if (heap.get_size() > 0) {
            EXPECT_EQ(after, heap.top());  // element 0 holds the new top
        }
    }
    EXPECT_EQ(heap.get_size(), 0u);
    for (int i = 0; i < n; i++) ASSERT_EQ(seen[i], 1) << i;

    // With pointer elements pop returns the old top itself.
    Base::Heap pointers(compare_int_pointers, 0, 0, 0, nullptr);
    int values[] = {4, 9, 1, 7, 9};
    for (int& v : values) pointers.push(&v);
    for (int i : {1, 4, 3, 0, 2}) EXPECT_EQ(pointers.pop(), &values[i]);  // the first 9 pushed first
    EXPECT_EQ(pointers.pop(), nullptr);
}

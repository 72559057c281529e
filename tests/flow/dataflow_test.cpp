// DataFlow core, iterators, readers and recycling, on real threads.
#include "flow/dataflow.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "flow/datamem.h"
#include "containers/memory.h"

using Base::DataFlow;
using Base::DataMem;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const unsigned long RECORDS = 14000;
#else
const unsigned long RECORDS = 40000;
#endif
const unsigned int MB = 0x100000;

// Record id's size and bytes: 8 bytes of id, then a pattern of the id.
unsigned short record_size(unsigned long id) {
    return static_cast<unsigned short>(8 + (id * 2654435761u >> 5) % 1200);
}

// Byte j of record id is (id + j) mod 256: a window into one table, so that
// fill and check are memcpy and memcmp.
const char* pattern() {
    static char table[2048];
    static bool made = [] {
        for (int k = 0; k < 2048; k++) table[k] = static_cast<char>(k);
        return true;
    }();
    (void)made;
    return table;
}

// Empty string when the record is right, else what is wrong.
std::string check_record(const char* p, unsigned short size, unsigned long id) {
    if (size != record_size(id)) return "size of " + std::to_string(id);
    unsigned long got;
    std::memcpy(&got, p, 8);
    if (got != id) return "id " + std::to_string(got) + " for " + std::to_string(id);
    if (std::memcmp(p + 8, pattern() + ((id + 8) & 0xff), size - 8u) != 0)
        return "byte of " + std::to_string(id);
    return "";
}

void write_record(DataFlow* flow, unsigned long id, bool notify) {
    unsigned short size = record_size(id);
    char* room = flow->alloc_object(size);
    std::memcpy(room, &id, 8);
    std::memcpy(room + 8, pattern() + ((id + 8) & 0xff), size - 8u);
    ASSERT_EQ(flow->commit_object(size, notify), id);
}

// A notify group that a reader thread sleeps on.
class SleepGroup : public Base::NotifyGroup {
public:
    void wakeup(bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        signalled = true;
        cond.notify_one();
    }
    void notify(Base::List*) override {}
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait_for(lock, std::chrono::milliseconds(5), [this] { return signalled; });
        signalled = false;
    }
    std::mutex mutex;
    std::condition_variable cond;
    bool signalled = false;
};

class VersionLog : public DataFlow::ReadCallback {
public:
    void on_read(unsigned long id, const void*, unsigned short) override { reads.push_back(id); }
    void on_version(unsigned int version) override { versions.push_back(version); }
    std::vector<unsigned long> reads;
    std::vector<unsigned int> versions;
};

// The iterator hands out records from to to - 1, each right.
void expect_records(DataFlow::Iterator& it, unsigned long from, unsigned long to) {
    for (unsigned long id = from; id < to; id++) {
        const DataFlow::Item* item = it.next();
        ASSERT_NE(item, nullptr) << id;
        ASSERT_EQ(check_record(item->data, item->length, id), "");
    }
}

int chain_length(DataMem* mem) {
    int n = 0;
    for (DataMem::Block* b = mem->head.load(); b; b = b->next.load()) n++;
    return n;
}

}  // namespace

TEST(DataFlow, BlocksCommitRollbackTruncate) {
    DataFlow flow(7, 100, 100, nullptr, nullptr, 0, nullptr, false, false);
    // A record that does not fit the rest of a block opens the next one.
    std::vector<char> big(60000, 'x');
    unsigned long id = 0;
    while (flow.mem->current.load() == flow.mem->head.load()) {
        std::memcpy(flow.alloc_object(60000), big.data(), 60000);
        flow.commit_object(60000, false);
        id++;
    }
    DataMem::Block* second = flow.mem->current.load();
    EXPECT_EQ(second->first.load(), id - 1);
    EXPECT_EQ(second->records.load(), 1u);
    EXPECT_EQ(flow.mem->head.load()->used.load(), (id - 1) * 60000);
    // truncate at the second block's first record leaves it current, empty.
    EXPECT_TRUE(flow.truncate(id - 1));
    EXPECT_EQ(flow.get_count(), id - 1);
    EXPECT_EQ(flow.mem->current.load(), second);
    EXPECT_EQ(second->used.load(), 0u);
    EXPECT_FALSE(flow.truncate(id + 5));

    // Manual commit: count waits for commit; rollback(null) drops the rest.
    DataFlow manual(1, 0, 0, nullptr, nullptr, 0, nullptr, false, true);
    for (unsigned long i = 0; i < 3; i++) write_record(&manual, i, false);
    EXPECT_EQ(manual.get_count(), 0u);
    manual.commit(false);
    EXPECT_EQ(manual.get_count(), 3u);
    unsigned long point;
    manual.set_check_point(&point);
    write_record(&manual, 3, false);
    write_record(&manual, 4, false);
    manual.rollback(nullptr);
    EXPECT_EQ(manual.mem->stored.load(), 3u);
    write_record(&manual, 3, false);
    manual.rollback(&point);
    write_record(&manual, 3, false);
    manual.commit(false);
    DataFlow::Iterator it(&manual, nullptr, nullptr, nullptr);
    expect_records(it, 0, 4);
    EXPECT_EQ(it.next(), nullptr);
}

TEST(DataFlow, SeekShiftClearStartId) {
    DataFlow empty(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow::Iterator none(&empty, nullptr, nullptr, nullptr);
    EXPECT_TRUE(none.seek(0));
    EXPECT_EQ(none.next(), nullptr);
    EXPECT_EQ(empty.shift(reinterpret_cast<void*>(9)), &empty);  // held nothing: only the version
    EXPECT_EQ(empty.get_version(), reinterpret_cast<void*>(9));

    DataFlow flow(1, 0, 0, nullptr, nullptr, 100, reinterpret_cast<void*>(1), false, false);
    for (unsigned long id = 100; id < 1100; id++) write_record(&flow, id, false);
    DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    EXPECT_EQ(it.get_position(), 100u);  // a new iterator starts at start_id
    EXPECT_FALSE(it.seek(99));
    ASSERT_TRUE(it.seek(700));
    expect_records(it, 700, 701);
    ASSERT_TRUE(it.seek(5000));  // clamped behind the last record
    EXPECT_EQ(it.get_position(), 1100u);
    EXPECT_EQ(it.next(), nullptr);
    write_record(&flow, 1100, false);
    expect_records(it, 1100, 1101);
    EXPECT_EQ(flow.shift(reinterpret_cast<void*>(1)), &flow);  // same version
    DataFlow* fresh = flow.shift(reinterpret_cast<void*>(2));
    ASSERT_NE(fresh, &flow);
    EXPECT_EQ(flow.get_next(), fresh);
    EXPECT_EQ(fresh->get_count(), 0u);

    // clear keeps the spares: a later burst reuses them.
    DataFlow burst(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    for (unsigned long id = 0; id < 6000; id++) write_record(&burst, id, false);
    int blocks = chain_length(burst.mem);
    burst.clear(500);
    EXPECT_EQ(burst.get_count(), 500u);
    for (unsigned long id = 500; id < 6500; id++) write_record(&burst, id, false);
    EXPECT_EQ(chain_length(burst.mem), blocks);
    DataFlow::Iterator again(&burst, nullptr, nullptr, nullptr);
    expect_records(again, 500, 6500);
}

TEST(DataFlow, RecycleMarksAllButTheLastTwoBlocks) {
    DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    for (unsigned long id = 0; id < 10000; id++) write_record(&flow, id, false);
    int blocks = chain_length(flow.mem);
    ASSERT_GE(blocks, 5);
    EXPECT_TRUE(flow.recycle(~0ul));
    int marked = 0;
    for (DataMem::Block* b = flow.mem->head.load(); b; b = b->next.load()) marked += b->is_recycled.load();
    EXPECT_EQ(marked, blocks - 2);
    EXPECT_FALSE(flow.recycle(~0ul));  // nothing more to mark
    // The writer takes marked blocks back instead of allocating.
    DataMem::Block* old_head = flow.mem->head.load();
    for (unsigned long id = 10000; id < 20000; id++) write_record(&flow, id, false);
    EXPECT_NE(flow.mem->head.load(), old_head);
    EXPECT_LE(chain_length(flow.mem), blocks + 2);
    DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    ASSERT_TRUE(it.seek(19000));
    expect_records(it, 19000, 20000);
}

// One writer, several readers on their own threads: each reader sees every
// id once, in order, with the right bytes, across many block changes. One
// reader sleeps on a notify group and is woken by the writer's commits.
TEST(DataFlow, OneWriterManyReadersOnThreads) {
    for (int pooled = 0; pooled < 2; pooled++) {
        Base::Memory pool(4 * MB, 4 * MB);
        DataFlow flow(3, 0, 0, pooled ? &pool : nullptr, nullptr, 0, nullptr, false, false);
        SleepGroup group;
        std::atomic<int> ready{0};
        std::vector<std::string> faults(4);
        std::vector<std::thread> readers;
        for (int r = 0; r < 4; r++) {
            readers.emplace_back([&, r] {
                DataFlow::Iterator it(&flow, r == 0 ? &group : nullptr, nullptr, nullptr);
                ready++;
                unsigned long expect = 0;
                while (expect < RECORDS) {
                    const DataFlow::Item* item = it.next();
                    if (!item) {
                        if (r == 0)
                            group.wait();
                        else
                            sched_yield();
                        continue;
                    }
                    std::string fault = check_record(item->data, item->length, expect);
                    if (!fault.empty()) {
                        faults[r] = fault;
                        return;
                    }
                    expect++;
                }
                if (it.next()) faults[r] = "a record too many";
            });
        }
        while (ready < 4) sched_yield();
        for (unsigned long id = 0; id < RECORDS; id++) write_record(&flow, id, true);
        for (auto& t : readers) t.join();
        for (int r = 0; r < 4; r++) EXPECT_EQ(faults[r], "") << "reader " << r;
        EXPECT_GE(chain_length(flow.mem), 8);  // many block changes
    }
}

// A recycler thread marks blocks behind the readers' cells while the writer
// reuses them; a slow reader holds everything back and must never be
// overtaken, and memory stays bounded.
TEST(DataFlow, RecyclingNeverOvertakesASlowReader) {
    DataFlow flow(5, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow::Recycler recycler(&flow, 0);
    unsigned long* slow_cell = recycler.alloc_reader();
    unsigned long* fast_cell = recycler.alloc_reader();
    EXPECT_EQ(*slow_cell, 0u);
    std::atomic<bool> done{false};
    std::atomic<int> behind{0};  // how far the slow reader may lag, in records
    std::string slow_fault, fast_fault;

    std::thread recycling([&] {
        while (!done) {
            recycler.invoke();
            sched_yield();
        }
    });
    auto reader = [&](unsigned long* cell, std::string* fault, bool slow) {
        DataFlow::Iterator it(&flow, nullptr, nullptr, cell);
        unsigned long expect = 0;
        while (expect < RECORDS) {
            const DataFlow::Item* item = it.next();
            if (!item) {
                sched_yield();
                continue;
            }
            *fault = check_record(item->data, item->length, expect);
            if (!fault->empty()) return;
            expect++;
            if (slow && expect % 64 == 0) std::this_thread::yield();
            // Halfway, the slow reader waits until the recycler has marked
            // blocks behind it, so that the rest is read beside recycling
            // however the threads were scheduled so far.
            if (slow && expect == RECORDS / 2)
                while (flow.get_recycle_count() == 0) std::this_thread::yield();
            if (slow) behind = static_cast<int>(expect);
        }
    };
    std::thread slow(reader, slow_cell, &slow_fault, true);
    std::thread fast(reader, fast_cell, &fast_fault, false);
    for (unsigned long id = 0; id < RECORDS; id++) {
        write_record(&flow, id, false);
        // Keep the writer within a few blocks of the slow reader, and of what
        // the recycler has handed back, so the chain bound below holds however
        // the threads are scheduled (a starved recycler would grow the chain).
        while (id > static_cast<unsigned long>(behind.load()) + 8000 || id > flow.get_recycle_count() + 12000)
            sched_yield();
    }
    slow.join();
    fast.join();
    done = true;
    recycling.join();
    EXPECT_EQ(slow_fault, "");
    EXPECT_EQ(fast_fault, "");
    EXPECT_GT(flow.get_recycle_count(), 0u);
    // At most 12000 records of about 600 bytes not yet recycled: a handful of
    // blocks, reused.
    EXPECT_LT(chain_length(flow.mem), 14);
    recycler.free_reader(fast_cell);
    recycler.free_reader(slow_cell);
}

// auto_recycle: the one reader marks blocks as it leaves them, the writer
// reuses them, and at the end of a version the reader frees the old flow.
TEST(DataFlow, AutoRecycleAndVersionHop) {
    DataFlow flow(2, 0, 0, nullptr, nullptr, 0, reinterpret_cast<void*>(1), true, false);
    VersionLog log;
    std::string fault;
    std::atomic<bool> versions_done{false};
    std::thread reader([&] {
        DataFlow::Iterator it(&flow, nullptr, &log, nullptr);
        unsigned long expect = 0;
        size_t seen = 0;
        for (;;) {
            const DataFlow::Item* item = it.next();
            if (log.versions.size() != seen) {  // hopped to the next version
                seen = log.versions.size();
                expect = 0;
            }
            if (!item) {
                sched_yield();
                continue;
            }
            fault = check_record(item->data, item->length, expect);
            if (!fault.empty()) return;
            if (++expect == RECORDS && seen == 2) break;
        }
        versions_done = true;
    });
    DataFlow* writing = &flow;
    for (int version = 1; version <= 3; version++) {
        if (version > 1) writing = writing->shift(reinterpret_cast<void*>(version));
        for (unsigned long id = 0; id < RECORDS; id++) {
            write_record(writing, id, false);
            while (id > writing->mem->recycled.load() + 6000) sched_yield();
        }
    }
    reader.join();
    EXPECT_EQ(fault, "");
    EXPECT_TRUE(versions_done);
    ASSERT_EQ(log.versions.size(), 2u);
    EXPECT_EQ(log.versions[0], 2u);
    EXPECT_EQ(log.versions[1], 3u);
    EXPECT_EQ(log.reads.size(), 3 * RECORDS);
    // The reader freed the exhausted flows of the chain.
    EXPECT_EQ(flow.mem->head.load(), nullptr);
    EXPECT_EQ(flow.get_next()->mem->head.load(), nullptr);
    EXPECT_LT(chain_length(writing->mem), 8);
}

// Records that fill a block to the last byte leave no table slot for the
// seal; records that leave a gap get one. Readers find the next block in
// both cases, and a reused block's old table does not mislead them.
TEST(DataFlow, BlockEndsWithAndWithoutSeal) {
    for (unsigned short size : {1020, 1000, 0}) {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
        DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
        unsigned long id = 0;
        for (int round = 0; round < 3; round++) {
            for (int i = 0; i < 2500; i++, id++) {
                unsigned short n = size ? size : static_cast<unsigned short>(id % 3 ? 0 : 2000);
                char* room = flow.alloc_object(n);
                std::memset(room, static_cast<int>(id & 0x7f), n);
                flow.commit_object(n, false);
            }
            for (unsigned long got = id - 2500; got < id; got++) {
                const DataFlow::Item* item = it.next();
                ASSERT_NE(item, nullptr) << got;
                unsigned short n = size ? size : static_cast<unsigned short>(got % 3 ? 0 : 2000);
                ASSERT_EQ(item->length, n);
                if (n) {
                    ASSERT_EQ(item->data[n - 1], static_cast<char>(got & 0x7f));
                }
            }
            EXPECT_EQ(it.next(), nullptr);
            flow.recycle(~0ul);  // later rounds write into reused blocks
        }
        if (size == 1020) {  // 1024 records fill a block exactly
            EXPECT_EQ(flow.mem->head.load()->used.load() + 4 * 1024u, flow.mem->head.load()->size);
        }
    }
}

// A reader that keeps up hands every block it leaves back to the writer,
// which writes on in those blocks: a long feed lives in the same two or
// three blocks, touches no fresh memory, and every record still reads right.
TEST(DataFlow, WriterLivesInTheBlocksItsReaderPassed) {
    DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, true, false);
    DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    std::vector<DataMem::Block*> seen;
    for (unsigned long id = 0; id < 60000; id++) {
        write_record(&flow, id, false);
        expect_records(it, id, id + 1);
        DataMem::Block* current = flow.mem->current.load();
        if (std::find(seen.begin(), seen.end(), current) == seen.end()) seen.push_back(current);
    }
    EXPECT_GT(flow.mem->recycled.load(), 50000u);  // many blocks went round
    EXPECT_LE(seen.size(), 3u);
    EXPECT_LE(chain_length(flow.mem), 3);
}

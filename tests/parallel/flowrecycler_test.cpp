// FlowRecycler on a running reactor: readers register from their own
// threads through blocking events, and the reactor's passes recycle behind
// them while they read.
#include "parallel/flowrecycler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "parallel/reactor.h"

using Base::DataFlow;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const unsigned long RECORDS = 8000;
#else
const unsigned long RECORDS = 30000;
#endif

unsigned short record_size(unsigned long id) {
    return static_cast<unsigned short>(16 + (id * 2654435761u >> 5) % 1000);
}

}  // namespace

TEST(FlowRecycler, ReadersRegisterAndTheReactorRecycles) {
    Parallel::Reactor reactor("recycler");
    ASSERT_TRUE(reactor.create(true, nullptr));
    DataFlow flow(6, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    Parallel::FlowRecycler recycler(&reactor, &flow, 200, "/nowhere/00000006.flow", 0);
    EXPECT_STREQ(recycler.get_path(), "/nowhere/00000006.flow");
    EXPECT_EQ(recycler.get_offsets(), nullptr);
    recycler.start();

    std::atomic<unsigned long> slowest{0};
    std::vector<std::string> faults(3);
    std::vector<std::thread> readers;
    std::atomic<int> registered{0};
    std::atomic<bool> failed{false};
    for (int r = 0; r < 3; r++) {
        readers.emplace_back([&, r] {
            unsigned long* cell = recycler.alloc_reader();
            registered++;
            {
                DataFlow::Iterator it(&flow, nullptr, nullptr, cell);
                for (unsigned long id = 0; id < RECORDS;) {
                    const DataFlow::Item* item = it.next();
                    if (!item) {
                        std::this_thread::yield();
                        continue;
                    }
                    unsigned long got;
                    std::memcpy(&got, item->data, 8);
                    if (got != id || item->length != record_size(id) ||
                        item->data[item->length - 1] != static_cast<char>(id)) {
                        faults[r] = "record " + std::to_string(id);
                        failed = true;
                        break;
                    }
                    id++;
                    if (r == 2) slowest = id;
                    if (r == 2 && id % 16 == 0) std::this_thread::yield();
                }
            }
            recycler.free_reader(cell);
        });
    }
    while (registered < 3) std::this_thread::yield();
    for (unsigned long id = 0; id < RECORDS; id++) {
        unsigned short size = record_size(id);
        char* room = flow.alloc_object(size);
        std::memset(room, static_cast<int>(id & 0xff), size);
        std::memcpy(room, &id, 8);
        flow.commit_object(size, true);
        while (id > slowest + 6000 && !failed) std::this_thread::yield();
    }
    for (auto& t : readers) t.join();
    for (int r = 0; r < 3; r++) EXPECT_EQ(faults[r], "") << "reader " << r;
    // With every reader gone, the next passes recycle all but the margin.
    for (int i = 0; i < 1000 && flow.get_recycle_count() < RECORDS / 2; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_GT(flow.get_recycle_count(), RECORDS / 2);

    int ignored = 0;
    EXPECT_EQ(recycler.on_event(1003, &ignored), 0);
    recycler.stop();
    reactor.stop();
    reactor.join();
}

#include "sync/sign.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/support/data_file.h"

namespace {

TEST(Sign, CountsSignalsAndClears) {
    Base::Sign sign(0);
    sign.set();
    sign.set();
    EXPECT_TRUE(sign.timed_wait(10, true));  // clear: takes both
    EXPECT_EQ(sign.get_count(), 0);
    sign.set();
    sign.set();
    EXPECT_TRUE(sign.timed_wait(10, false));  // takes one
    EXPECT_EQ(sign.get_count(), 1);
    EXPECT_TRUE(sign.timed_wait(0, false));
    EXPECT_FALSE(sign.timed_wait(1, false));  // an empty count times out and stays at 0
    EXPECT_EQ(sign.get_count(), 0);
    EXPECT_TRUE(sign.timed_multi_wait(10, 0));
    sign.set();
    EXPECT_FALSE(sign.timed_multi_wait(1, 2));  // one of two arrives
    EXPECT_EQ(sign.get_count(), 0);
    sign.set();
    sign.clear();
    EXPECT_EQ(sign.get_count(), 0);
    Base::Sign ready(3);
    EXPECT_TRUE(ready.timed_multi_wait(10, 3));
    EXPECT_EQ(ready.get_count(), 0);
}

TEST(Sign, DeadlineCarriesIntoSeconds) {
    using test_data::number;
    auto rows = test_data::rows("sync/data/deadlines.txt");
    ASSERT_EQ(rows.size(), 3u);
    for (auto& r : rows) {
        timespec now{time_t(number(r[0])), long(number(r[1]))};
        timespec t = Base::add_milliseconds(now, int(number(r[2])));
        EXPECT_EQ(t.tv_sec, time_t(number(r[3]))) << r[2];
        EXPECT_EQ(t.tv_nsec, long(number(r[4]))) << r[2];
    }
}

// Two threads in join and two sets in a row: both are released. A set
// that wakes only from an empty count leaves the second waiter asleep with
// the count at 1; the test then frees it itself and fails.
TEST(Sign, TwoSetsReleaseTwoWaiters) {
    for (int round = 0; round < 20; round++) {
        Base::Sign sign(0);
        std::atomic<int> done{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 2; i++) waiters.emplace_back([&] {
            sign.join();
            done.fetch_add(1);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // both waiting, most likely
        sign.set();
        sign.set();
        for (int ms = 0; ms < 5000 && done.load() < 2; ms++)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        bool both = done.load() == 2;
        EXPECT_TRUE(both) << "round " << round;
        while (done.load() < 2) {  // a lost wake-up: free the sleeper all the same
            sign.clear();
            sign.set();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        for (auto& t : waiters) t.join();
        if (!both) return;
    }
}

}  // namespace

#include "sync/sign.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

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
    struct Case { timespec now; int ms; long sec, nsec; };
    for (const Case& c : {Case{{5, 999000000}, 1, 6, 0}, Case{{5, 0}, 1999, 6, 999000000},
                          Case{{5, 500000000}, 10500, 16, 0}}) {
        timespec t = Base::add_milliseconds(c.now, c.ms);
        EXPECT_EQ(t.tv_sec, c.sec);
        EXPECT_EQ(t.tv_nsec, c.nsec);
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

#include "sync/mutex.h"
#include "sync/sign.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(Sign, CountsSignalsAndClears) {
    Base::Sign sign(0);
    sign.set();
    sign.set();
    EXPECT_TRUE(sign.timed_wait(10, true));
    EXPECT_EQ(sign.get_count(), 0);

    sign.set();
    sign.set();
    EXPECT_TRUE(sign.timed_wait(10, false));
    EXPECT_EQ(sign.get_count(), 1);

    // A positive count is taken without waiting; an empty one times out and
    // stays at 0.
    EXPECT_TRUE(sign.timed_wait(0, false));
    EXPECT_EQ(sign.get_count(), 0);
    EXPECT_FALSE(sign.timed_wait(1, false));
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
    timespec now{5, 999000000};
    timespec t = Base::add_milliseconds(now, 1);
    EXPECT_EQ(t.tv_sec, 6);
    EXPECT_EQ(t.tv_nsec, 0);
    t = Base::add_milliseconds(timespec{5, 0}, 1999);
    EXPECT_EQ(t.tv_sec, 6);
    EXPECT_EQ(t.tv_nsec, 999000000);
    t = Base::add_milliseconds(timespec{5, 500000000}, 10500);
    EXPECT_EQ(t.tv_sec, 16);
    EXPECT_EQ(t.tv_nsec, 0);
}

TEST(Sign, WakesWaitersOnOtherThreads) {
    // A set before the join is kept; sets from other threads release a join
    // and a multi wait; nothing is lost when they race the waiter.
    Base::Sign early(0);
    early.set();
    early.join();

    for (int round = 0; round < 200; round++) {
        Base::Sign sign(0);
        std::thread setter([&] { sign.set(); });
        sign.join();
        setter.join();
        EXPECT_EQ(sign.get_count(), 0);
    }

    Base::Sign many(0);
    std::vector<std::thread> setters;
    for (int i = 0; i < 4; i++) setters.emplace_back([&] { many.set(); });
    EXPECT_TRUE(many.timed_multi_wait(60000, 4));
    for (auto& t : setters) t.join();
    EXPECT_EQ(many.get_count(), 0);
}

TEST(Mutex, GuardsACounterAcrossThreads) {
    Base::Mutex mutex;
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; i++) {
            mutex.enter();
            counter += 1;
            mutex.leave();
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
}

}  // namespace

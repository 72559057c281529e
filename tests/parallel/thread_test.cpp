#include "parallel/thread.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/measure.h"
#include "base/switches.h"

namespace {

// Records its stages and runs three loop rounds, then stops itself.
class StageThread : public Parallel::Thread {
public:
    explicit StageThread(const char* name) : Thread(name) {}
    std::vector<std::string> stages;
    int rounds = 0;
    int seen_tid = 0;
    bool seen_current = false;

protected:
    void before_proc() override {
        stages.push_back("before");
        seen_tid = get_current();
        seen_current = is_current();
    }
    void loop_proc() override {
        if (++rounds == 3) stop();
    }
    void thread_proc() override {
        stages.push_back("thread");
        Thread::thread_proc();
    }
    void after_proc() override { stages.push_back("after"); }
    void exit_proc() override {
        stages.push_back("exit");
        Thread::exit_proc();
    }
};

TEST(Thread, RunsStagesInOrderAndPrintsItsName) {
    testing::internal::CaptureStdout();
    StageThread thread("worker");
    ASSERT_TRUE(thread.create(true, nullptr));
    EXPECT_FALSE(thread.is_current());
    ASSERT_TRUE(thread.join());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "thread [worker] [" + std::to_string(thread.get_id()) + "]\n");
    EXPECT_EQ(thread.stages, (std::vector<std::string>{"before", "thread", "after", "exit"}));
    EXPECT_EQ(thread.rounds, 3);
    EXPECT_EQ(thread.seen_tid, thread.get_id());
    EXPECT_TRUE(thread.seen_current);
    EXPECT_NE(thread.get_id(), Parallel::Thread::get_current());

    testing::internal::CaptureStdout();  // unnamed: prints nothing
    StageThread quiet(nullptr);
    ASSERT_TRUE(quiet.create(false, nullptr));
    ASSERT_TRUE(quiet.join());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    std::string long_name(200, 'n');  // cut to fit the name buffer
    StageThread cut(long_name.c_str());
    EXPECT_EQ(std::string(cut.get_name()), long_name.substr(0, Parallel::Thread::NAME_SIZE - 1));
}

TEST(Thread, GeneralCpuSetIsUpperHalfButLast) {
    cpu_set_t set;
    CPU_SET(0, &set);
    Parallel::init_general_cpu_set(&set, 8);
    EXPECT_EQ(CPU_COUNT(&set), 3);
    EXPECT_TRUE(CPU_ISSET(4, &set) && CPU_ISSET(5, &set) && CPU_ISSET(6, &set));
    EXPECT_FALSE(CPU_ISSET(7, &set));

    Parallel::init_general_cpu_set(&set, 1);
    EXPECT_EQ(CPU_COUNT(&set), 0);
    Parallel::init_general_cpu_set(&set, 3);
    EXPECT_EQ(CPU_COUNT(&set), 1);
    EXPECT_TRUE(CPU_ISSET(1, &set));
    Parallel::init_general_cpu_set(&set, 2000);
    EXPECT_EQ(CPU_COUNT(&set), 24);  // 1000 to 1023, nothing at 1024 or above
    EXPECT_TRUE(CPU_ISSET(1000, &set) && CPU_ISSET(1023, &set));
}

TEST(Thread, ClockThreadRefreshesTheCachedClock) {
    testing::internal::CaptureStdout();
    Parallel::ClockThread clock;
    EXPECT_STREQ(clock.get_name(), "clock_thread");
    uint64_t first = __atomic_load_n(&Base::g_global_clock, __ATOMIC_ACQUIRE);
    ASSERT_TRUE(clock.create(true, nullptr));
    bool advanced = false;
    for (int i = 0; i < 10000 && !advanced; i++) {
        advanced = __atomic_load_n(&Base::g_global_clock, __ATOMIC_ACQUIRE) > first;
        if (!advanced) Base::Measure::sleep(1);
    }
    clock.stop();
    ASSERT_TRUE(clock.join());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(advanced);

    // With the switch on, the reactors' reading is the cached value.
    Base::g_enable_global_clock = true;
    EXPECT_EQ(Base::read_clock(), __atomic_load_n(&Base::g_global_clock, __ATOMIC_ACQUIRE));
    Base::g_enable_global_clock = false;
    EXPECT_GE(Base::read_clock(), __atomic_load_n(&Base::g_global_clock, __ATOMIC_ACQUIRE));
}

}  // namespace

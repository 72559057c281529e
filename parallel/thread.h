// Parallel::Thread: a POSIX thread object with overridable stages.
//
// run() on the new thread records the kernel thread id, prints
// "thread [name] [tid]" when the thread has a name, sets running, and then
// calls before_proc, thread_proc, after_proc and exit_proc in that order.
// The default thread_proc calls loop_proc for as long as running is set.
// stop() only clears running; the owner stops, then joins, then destroys:
// the destructor does neither.
//
// Parallel::ClockThread keeps Base::g_global_clock (base/switches.h) fresh for
// readers that prefer a cached clock to a clock call; they use it when
// g_enable_global_clock is set. It sleeps 1 us between readings with the
// least timer slack, so a refresh comes as often as the kernel wakes a
// sleeper: every 10 to 30 us on an idle to busy machine, never once a
// microsecond, which would take a spinning core. Nothing in the library
// starts one.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <atomic>
#include <cstdint>

namespace Parallel {

// Fills a CPU mask for general threads: CPUs count / 2 up to count - 2, the
// upper half of the machine but its last CPU. Nothing set for count <= 1.
void init_general_cpu_set(cpu_set_t* set, long count);

class Thread {
public:
    static constexpr int NAME_SIZE = 64;

    explicit Thread(const char* name);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the thread. With wait set, returns only once the thread is
    // running. A non-null mask is applied to the new thread's kernel id after
    // the start (to the caller if that id is not known yet).
    bool create(bool wait, void* cpu_mask);
    void stop();  // clears running; does not wait
    bool join();  // pthread_join

    static int get_current();  // the caller's kernel thread id
    bool is_current() const;
    const char* get_name() const { return name; }
    int get_id() const { return tid.load(std::memory_order_relaxed); }
    bool is_running() const { return running.load(std::memory_order_relaxed) != 0; }

    static void* run(void* self);

protected:
    virtual void thread_proc();
    virtual void exit_proc();
    virtual void loop_proc();
    virtual void before_proc();
    virtual void after_proc();

    // Written by the thread on start and by the owner on stop, read by the
    // loop once a round: relaxed, as a plain byte would be, but race-free.
    std::atomic<uint8_t> running;
    pthread_t handle;
    std::atomic<int32_t> tid;
    char name[NAME_SIZE];

private:
    // Set once, right after running; create(true, ...) waits on it rather
    // than on running, which a short-lived thread may clear again before
    // the creator ever sees it set.
    std::atomic<uint8_t> started;
};

class ClockThread : public Thread {
public:
    ClockThread();

protected:
    void loop_proc() override;

private:
    bool slack_set;  // clock thread only
};

}  // namespace Parallel

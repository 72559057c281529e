#include "parallel/thread.h"

#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>

#include "base/measure.h"
#include "base/print.h"
#include "base/strings.h"
#include "base/switches.h"

namespace Parallel {

void init_general_cpu_set(cpu_set_t* set, long count) {
    std::memset(set, 0, sizeof(cpu_set_t));
    for (long cpu = count / 2; cpu <= count - 2 && cpu < 1024; cpu++) CPU_SET(cpu, set);
}

Thread::Thread(const char* thread_name) : running(0), handle(), tid(0), started(0) {
    name[0] = 0;
    // A name longer than the array is cut rather than overrunning it.
    if (thread_name) Base::str_ncpy(NAME_SIZE - 1, name, thread_name);
}

Thread::~Thread() {}

bool Thread::create(bool wait, void* cpu_mask) {
    bool created = pthread_create(&handle, nullptr, &Thread::run, this) == 0;
    if (created && wait) {
        // acquire: pairs with the release in run(), so tid is visible below.
        while (!started.load(std::memory_order_acquire)) Base::Measure::delay(100);
    }
    if (cpu_mask)
        sched_setaffinity(get_id(), 128, static_cast<cpu_set_t*>(cpu_mask));
    return created;
}

void Thread::stop() { running.store(0, std::memory_order_relaxed); }

bool Thread::join() { return pthread_join(handle, nullptr) == 0; }

int Thread::get_current() { return int(syscall(SYS_gettid)); }

bool Thread::is_current() const { return get_current() == get_id(); }

void* Thread::run(void* self) {
    Thread* thread = static_cast<Thread*>(self);
    thread->tid.store(get_current(), std::memory_order_relaxed);
    if (thread->name[0]) PRINT("thread [%s] [%d]\n", thread->name, thread->get_id());
    thread->running.store(1, std::memory_order_relaxed);
    // release: tid and running are visible to a creator that sees started.
    thread->started.store(1, std::memory_order_release);
    thread->before_proc();
    thread->thread_proc();
    thread->after_proc();
    thread->exit_proc();
    return nullptr;
}

void Thread::thread_proc() {
    while (running.load(std::memory_order_relaxed)) loop_proc();
}

void Thread::exit_proc() { pthread_exit(nullptr); }

void Thread::loop_proc() {}
void Thread::before_proc() {}
void Thread::after_proc() {}

ClockThread::ClockThread() : Thread("clock_thread"), slack_set(false) {
    Base::set_global_clock(Base::Measure::get_clock());
}

void ClockThread::loop_proc() {
    // Once, on the clock thread itself: a sleep may otherwise be stretched
    // by the default timer slack of 50 us.
    if (!slack_set) {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        slack_set = true;
    }
    Base::set_global_clock(Base::Measure::get_clock());
    timeval timeout{0, 1};
    select(0, nullptr, nullptr, nullptr, &timeout);
}

}  // namespace Parallel

// Base::Sign: a counting semaphore with an untimed join and timed waits on
// the monotonic clock, so that a step of the wall clock never stretches or
// cuts a nap.
//
// The count keeps signals that arrive while no one waits: a set() before a
// join() is not lost. set() may be called from any thread. A stack-local
// Sign is how a caller blocks until another thread has done a piece of work.
#pragma once

#include <pthread.h>
#include <ctime>

namespace Base {

// now + ms, with nanoseconds of 1e9 or more carried into the seconds.
timespec add_milliseconds(const timespec& now, int ms);

class Sign {
public:
    explicit Sign(int count);
    ~Sign();
    Sign(const Sign&) = delete;
    Sign& operator=(const Sign&) = delete;

    void set();   // count + 1, waking one waiter (any number may wait)
    void join();  // waits without limit for count >= 1, then count - 1

    // Waits up to ms for a signal. True on a signal (or on a spurious
    // wake-up); then count drops by one, or to 0 when clear is set. False
    // when the time ran out; the count is unchanged.
    bool timed_wait(int ms, bool clear);

    // Takes n signals, all before one deadline ms from now. False as soon as
    // the deadline passes; signals taken so far stay taken.
    bool timed_multi_wait(int ms, int n);

    void clear();         // count = 0
    int get_count();      // the count as it is now

private:
    timespec deadline(int ms) const;
    void take(bool clear);

    pthread_mutex_t mutex;
    pthread_cond_t cond;
    int count;
};

}  // namespace Base

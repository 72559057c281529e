// Base::Measure: the one source of time for pacing, timers and time stamps.
//
// The unit is the tick: 100 ns (10 ticks = 1 us, 10'000'000 ticks = 1 s).
// get_clock() is the wall clock of its first reading carried forward by the
// monotonic clock: it looks like ticks since 1970, never goes backwards and
// ignores later steps of the system clock. All members are static and may be
// called from any thread.
#pragma once

#include <cstdint>

namespace Base {

class Measure {
public:
    Measure() {}
    ~Measure() {}

    static uint64_t get_clock();          // ticks, monotonic, epoch-like
    static uint64_t get_coarse_clock();   // ticks of CLOCK_MONOTONIC_COARSE
    static uint64_t get_local_clock();    // ticks of CLOCK_REALTIME now

    // A tick reading as YYMMDDhhmmss followed by the 7 tick digits of the
    // second, in local time; to_clock is its inverse.
    static uint64_t get_time(uint64_t clock);
    static uint64_t to_clock(uint64_t time);

    static void delay(uint64_t ticks);     // spins without leaving the CPU
    static void sleep(unsigned int milliseconds);
};

}  // namespace Base

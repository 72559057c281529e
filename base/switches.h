// Process-wide switches and the cached clock.
//
// g_enable_notify_enhance turns on the enhanced notification mode (wake-ups
// rate-limited to one round per 2000 ticks, parked readers brought back by
// the group). g_enable_global_clock makes time readings use g_global_clock,
// a copy of Base::Measure::get_clock() that a clock thread refreshes, instead
// of reading the clock. Nothing in the library sets either switch; both are
// false unless a program sets them before it starts any thread.
#pragma once

#include <cstdint>

namespace Base {

extern bool g_enable_notify_enhance;
extern bool g_enable_global_clock;
extern uint64_t g_global_clock;  // ticks; set while the library loads

// Stores a fresh reading into g_global_clock (the clock thread's step).
void set_global_clock(uint64_t ticks);
// The time reading of the reactors and the notification classes: the cached
// clock if g_enable_global_clock, otherwise Base::Measure::get_clock().
uint64_t read_clock();

}  // namespace Base

#include "base/measure.h"

#include <atomic>
#include <ctime>
#include <unistd.h>

namespace Base {

namespace {

constexpr uint64_t TICKS_PER_SECOND = 10000000;

uint64_t read_ticks(clockid_t id) {
    timespec ts;
    clock_gettime(id, &ts);
    return uint64_t(ts.tv_sec) * TICKS_PER_SECOND + uint64_t(ts.tv_nsec) / 100;
}

// Stores the first reading of a clock once; a loser of the race keeps the
// winner's value, so every thread agrees on one zero point.
uint64_t first_reading(std::atomic<uint64_t>& slot, clockid_t id) {
    uint64_t value = slot.load(std::memory_order_acquire);
    if (value != 0) return value;
    uint64_t expected = 0;
    uint64_t reading = read_ticks(id);
    // Release on success: the zero point is whole before anyone loads it.
    // Acquire on failure: we take the winner's zero point, read before its
    // store and so before any reading this thread makes from here on.
    if (slot.compare_exchange_strong(expected, reading, std::memory_order_acq_rel,
                                     std::memory_order_acquire))
        return reading;
    return expected;
}

}  // namespace

uint64_t Measure::get_clock() {
    static std::atomic<uint64_t> begin_clock{0};
    static std::atomic<uint64_t> mono_clock{0};
    uint64_t begin = first_reading(begin_clock, CLOCK_REALTIME);
    uint64_t mono = first_reading(mono_clock, CLOCK_MONOTONIC);
    return read_ticks(CLOCK_MONOTONIC) + begin - mono;
}

uint64_t Measure::get_coarse_clock() { return read_ticks(CLOCK_MONOTONIC_COARSE); }

uint64_t Measure::get_local_clock() { return read_ticks(CLOCK_REALTIME); }

uint64_t Measure::get_time(uint64_t clock) {
    time_t seconds = time_t(clock / TICKS_PER_SECOND);
    tm parts;
    localtime_r(&seconds, &parts);
    uint64_t date = uint64_t(parts.tm_year - 100) * 10000 + uint64_t(parts.tm_mon + 1) * 100 +
                    uint64_t(parts.tm_mday);
    uint64_t hms = uint64_t(parts.tm_hour) * 10000 + uint64_t(parts.tm_min) * 100 +
                   uint64_t(parts.tm_sec);
    return (date * 1000000 + hms) * TICKS_PER_SECOND + clock % TICKS_PER_SECOND;
}

uint64_t Measure::to_clock(uint64_t value) {
    uint64_t date = value / 10000000000000ULL;
    uint64_t hms = (value / TICKS_PER_SECOND) % 1000000;
    tm parts = {};
    parts.tm_mday = int(date % 100);
    parts.tm_mon = int((date % 10000) / 100) - 1;
    parts.tm_year = int(date / 10000) + 100;
    parts.tm_hour = int(hms / 10000);
    parts.tm_min = int((hms / 100) % 100);
    parts.tm_sec = int(hms % 100);
    parts.tm_isdst = -1;
    return uint64_t(mktime(&parts)) * TICKS_PER_SECOND + value % TICKS_PER_SECOND;
}

void Measure::delay(uint64_t ticks) {
    uint64_t start = get_clock();
    uint64_t end = start + ticks;
    if (end <= start) return;  // zero, or the sum wrapped
    while (get_clock() < end) {
    }
}

void Measure::sleep(unsigned int milliseconds) { usleep(useconds_t(milliseconds) * 1000); }

}  // namespace Base

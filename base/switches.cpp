#include "base/switches.h"

#include "base/measure.h"

namespace Base {

bool g_enable_notify_enhance = false;
bool g_enable_global_clock = false;
uint64_t g_global_clock = Measure::get_clock();

void set_global_clock(uint64_t ticks) {
    // Release: pairs with the acquire in read_clock().
    __atomic_store_n(&g_global_clock, ticks, __ATOMIC_RELEASE);
}

uint64_t read_clock() {
    // Acquire: a reading never goes behind what its writer stored before.
    if (g_enable_global_clock) return __atomic_load_n(&g_global_clock, __ATOMIC_ACQUIRE);
    return Measure::get_clock();
}

}  // namespace Base

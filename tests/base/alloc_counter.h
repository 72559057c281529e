// Counts calls of the global operator new in the test program, so that tests
// can check that pooled containers reuse their nodes.
#pragma once

#include <atomic>

extern std::atomic<long> g_test_allocations;

inline long test_allocations() { return g_test_allocations.load(std::memory_order_relaxed); }

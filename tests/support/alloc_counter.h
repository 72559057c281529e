// Counts calls of the global operator new in the test program, so that tests
// can check that pooled containers reuse their nodes.
#pragma once

#include <atomic>

extern std::atomic<long> g_test_allocations;

// If set, the next call of operator new on any thread clears it and runs it
// first: a way to act in the middle of an operation that allocates.
extern std::atomic<void (*)()> g_test_allocation_hook;

inline long test_allocations() { return g_test_allocations.load(std::memory_order_relaxed); }

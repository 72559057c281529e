// Replaces the global operator new of the test program with a counting one.
#include <cstdlib>
#include <new>

#include "tests/support/alloc_counter.h"

std::atomic<long> g_test_allocations{0};
std::atomic<void (*)()> g_test_allocation_hook{nullptr};

void* operator new(std::size_t size) {
    // Relaxed: the hook is set and used by one test thread.
    if (g_test_allocation_hook.load(std::memory_order_relaxed) != nullptr) {
        void (*hook)() = g_test_allocation_hook.exchange(nullptr);
        if (hook != nullptr) hook();
    }
    // Relaxed: a plain tally, read by the test thread after its own calls.
    g_test_allocations.fetch_add(1, std::memory_order_relaxed);
    if (size == 0) size = 1;
    void* p = std::malloc(size);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

void* operator new(std::size_t size, std::align_val_t align) {
    // Relaxed: as above.
    g_test_allocations.fetch_add(1, std::memory_order_relaxed);
    std::size_t a = static_cast<std::size_t>(align);
    std::size_t rounded = (size + a - 1) / a * a;
    void* p = std::aligned_alloc(a, rounded == 0 ? a : rounded);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, std::align_val_t align) { return operator new(size, align); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

// LFQueue push and pop, with one and two producing threads.
//
// PushPop: every thread pushes one value and pops one, so both ends are
// contended. Produce: the benchmark threads only push while one consumer
// thread drains the queue, as the reactors' mailboxes are used.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "sync/lfqueue.h"

namespace {

Base::LFQueue g_queue(1024);

void BM_LFQueuePushPop(benchmark::State& state) {
    void* value = (void*)(uintptr_t)(state.thread_index() + 1);
    for (auto _ : state) {
        g_queue.push(value);
        benchmark::DoNotOptimize(g_queue.pop());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LFQueuePushPop)->Threads(1)->Threads(2)->UseRealTime();

std::atomic<bool> g_draining{false};
std::thread g_consumer;
uint64_t g_popped = 0;

void BM_LFQueueProduce(benchmark::State& state) {
    if (state.thread_index() == 0) {
        g_popped = 0;
        // Relaxed: the flag only starts and stops the drain loop; the join
        // below orders the rest.
        g_draining.store(true, std::memory_order_relaxed);
        g_consumer = std::thread([] {
            while (g_draining.load(std::memory_order_relaxed))
                while (g_queue.pop() != nullptr) g_popped++;
        });
    }
    void* value = (void*)(uintptr_t)(state.thread_index() + 1);
    for (auto _ : state) g_queue.push(value);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        g_draining.store(false, std::memory_order_relaxed);
        g_consumer.join();
        while (g_queue.pop() != nullptr) g_popped++;
    }
}
BENCHMARK(BM_LFQueueProduce)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

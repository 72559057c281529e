// One writer and one reader on two threads through a Base::DataFlow, beside
// boost::lockfree::spsc_queue carrying the same payloads in the same run.
//
// Throughput: the writer appends a batch of records as fast as it can, the
// reader spins and touches every record; items/s is records per second.
// Latency: the writer stamps a record with the monotonic clock, publishes
// it, and waits until the reader has taken it before the next; the reader
// takes the difference. Median and 99th percentile are in nanoseconds.
// Paced latency: the writer sends one stamped record every 2 us without
// waiting for the reader, as a feed does; the reader takes the difference.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "flow/dataflow.h"

#if __has_include(<boost/lockfree/spsc_queue.hpp>)
#include <boost/lockfree/spsc_queue.hpp>
#define QEL_HAVE_SPSC 1
#endif

namespace {

const long BATCH = 1 << 20;
const int LATENCY_SAMPLES = 50000;
const int PACED_SAMPLES = 200000;
const long PACE_NS = 2000;

// Writer on CPU 0, reader on CPU 1 in every run, so that all peers cross
// the same distance between cores.
void pin(int cpu) {
    if (std::thread::hardware_concurrency() < 2) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

inline long now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000l + ts.tv_nsec;
}

template <int N>
struct Payload {
    long stamp;
    char bytes[N - sizeof(long)];
};

// Minor page faults of the process so far: first touches of fresh memory.
long minor_faults() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

void report_faults(benchmark::State& state, long since, long records) {
    if (records > 0)
        state.counters["faults_per_M"] =
            static_cast<double>(minor_faults() - since) * 1e6 / static_cast<double>(records);
}

void report_latency(benchmark::State& state, std::vector<long>& samples) {
    std::sort(samples.begin(), samples.end());
    if (samples.empty()) return;
    state.counters["median_ns"] = static_cast<double>(samples[samples.size() / 2]);
    state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
}

// ---------------------------------------------------------------- DataFlow

template <int N>
void BM_DataFlowThroughput(benchmark::State& state) {
    // auto_recycle: the one reader hands blocks back, so memory stays flat.
    Base::DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, true, false);
    std::atomic<long> target{0};
    std::atomic<bool> stop{false};
    long checksum = 0;
    std::thread reader([&] {
        pin(1);
        Base::DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            const Base::DataFlow::Item* item = it.next();
            if (!item) continue;
            checksum += static_cast<unsigned char>(item->data[N - 1]);
            if (++seen == target.load(std::memory_order_relaxed)) target.store(-seen);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long written = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        target.store(written + BATCH);
        for (long i = 0; i < BATCH; i++) {
            char* room = flow.alloc_object(N);
            std::memcpy(room, &payload, N);
            flow.commit_object(N, false);
        }
        written += BATCH;
        while (target.load() != -written) {
        }
    }
    stop = true;
    reader.join();
    benchmark::DoNotOptimize(checksum);
    report_faults(state, faults, written);
    state.SetItemsProcessed(written);
}

template <int N>
void BM_DataFlowLatency(benchmark::State& state) {
    Base::DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, true, false);
    std::atomic<long> taken{0};
    std::atomic<bool> stop{false};
    std::vector<long> samples;
    samples.resize(LATENCY_SAMPLES * 4);  // touched now, not while measuring
    samples.clear();
    std::thread reader([&] {
        pin(1);
        Base::DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            const Base::DataFlow::Item* item = it.next();
            if (!item) continue;
            long stamp;
            std::memcpy(&stamp, item->data, sizeof(stamp));
            samples.push_back(now_ns() - stamp);
            taken.store(++seen, std::memory_order_release);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long sent = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        for (int i = 0; i < LATENCY_SAMPLES; i++) {
            payload.stamp = now_ns();
            char* room = flow.alloc_object(N);
            std::memcpy(room, &payload, N);
            flow.commit_object(N, false);
            ++sent;
            while (taken.load(std::memory_order_acquire) != sent) {
            }
        }
    }
    stop = true;
    reader.join();
    report_latency(state, samples);
    report_faults(state, faults, sent);
    state.SetItemsProcessed(sent);
}

template <int N>
void BM_DataFlowPaced(benchmark::State& state) {
    Base::DataFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, true, false);
    std::atomic<long> target{-1};
    std::atomic<bool> stop{false};
    std::vector<long> samples;
    samples.resize(PACED_SAMPLES * 2);  // touched now, not while measuring
    samples.clear();
    std::thread reader([&] {
        pin(1);
        Base::DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            const Base::DataFlow::Item* item = it.next();
            if (!item) continue;
            long stamp;
            std::memcpy(&stamp, item->data, sizeof(stamp));
            samples.push_back(now_ns() - stamp);
            if (++seen == target.load(std::memory_order_relaxed)) target.store(-seen);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long sent = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        target.store(sent + PACED_SAMPLES);
        long next = now_ns();
        for (int i = 0; i < PACED_SAMPLES; i++) {
            while (now_ns() < next) {
            }
            next += PACE_NS;
            payload.stamp = now_ns();
            char* room = flow.alloc_object(N);
            std::memcpy(room, &payload, N);
            flow.commit_object(N, false);
        }
        sent += PACED_SAMPLES;
        while (target.load() != -sent) {
        }
    }
    stop = true;
    reader.join();
    report_latency(state, samples);
    report_faults(state, faults, sent);
    state.SetItemsProcessed(sent);
}

// ---------------------------------------------------------------- spsc_queue

#ifdef QEL_HAVE_SPSC

template <int N>
using Queue = boost::lockfree::spsc_queue<Payload<N>, boost::lockfree::capacity<65536>>;

template <int N>
void BM_SpscThroughput(benchmark::State& state) {
    auto* queue = new Queue<N>;
    std::atomic<long> target{0};
    std::atomic<bool> stop{false};
    long checksum = 0;
    std::thread reader([&] {
        pin(1);
        Payload<N> out;
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (!queue->pop(out)) continue;
            checksum += static_cast<unsigned char>(out.bytes[N - sizeof(long) - 1]);
            if (++seen == target.load(std::memory_order_relaxed)) target.store(-seen);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long written = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        target.store(written + BATCH);
        for (long i = 0; i < BATCH; i++)
            while (!queue->push(payload)) {
            }
        written += BATCH;
        while (target.load() != -written) {
        }
    }
    stop = true;
    reader.join();
    delete queue;
    benchmark::DoNotOptimize(checksum);
    report_faults(state, faults, written);
    state.SetItemsProcessed(written);
}

template <int N>
void BM_SpscLatency(benchmark::State& state) {
    auto* queue = new Queue<N>;
    std::atomic<long> taken{0};
    std::atomic<bool> stop{false};
    std::vector<long> samples;
    samples.resize(LATENCY_SAMPLES * 4);  // touched now, not while measuring
    samples.clear();
    std::thread reader([&] {
        pin(1);
        Payload<N> out;
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (!queue->pop(out)) continue;
            samples.push_back(now_ns() - out.stamp);
            taken.store(++seen, std::memory_order_release);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long sent = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        for (int i = 0; i < LATENCY_SAMPLES; i++) {
            payload.stamp = now_ns();
            while (!queue->push(payload)) {
            }
            ++sent;
            while (taken.load(std::memory_order_acquire) != sent) {
            }
        }
    }
    stop = true;
    reader.join();
    delete queue;
    report_latency(state, samples);
    report_faults(state, faults, sent);
    state.SetItemsProcessed(sent);
}

template <int N>
void BM_SpscPaced(benchmark::State& state) {
    auto* queue = new Queue<N>;
    std::atomic<long> target{-1};
    std::atomic<bool> stop{false};
    std::vector<long> samples;
    samples.resize(PACED_SAMPLES * 2);  // touched now, not while measuring
    samples.clear();
    std::thread reader([&] {
        pin(1);
        Payload<N> out;
        long seen = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (!queue->pop(out)) continue;
            samples.push_back(now_ns() - out.stamp);
            if (++seen == target.load(std::memory_order_relaxed)) target.store(-seen);
        }
    });
    Payload<N> payload;
    std::memset(&payload, 7, sizeof(payload));
    long sent = 0;
    pin(0);
    long faults = minor_faults();
    for (auto _ : state) {
        target.store(sent + PACED_SAMPLES);
        long next = now_ns();
        for (int i = 0; i < PACED_SAMPLES; i++) {
            while (now_ns() < next) {
            }
            next += PACE_NS;
            payload.stamp = now_ns();
            while (!queue->push(payload)) {
            }
        }
        sent += PACED_SAMPLES;
        while (target.load() != -sent) {
        }
    }
    stop = true;
    reader.join();
    delete queue;
    report_latency(state, samples);
    report_faults(state, faults, sent);
    state.SetItemsProcessed(sent);
}

#endif

}  // namespace

BENCHMARK_TEMPLATE(BM_DataFlowThroughput, 64)->UseRealTime()->Iterations(8);
BENCHMARK_TEMPLATE(BM_DataFlowThroughput, 256)->UseRealTime()->Iterations(8);
#ifdef QEL_HAVE_SPSC
BENCHMARK_TEMPLATE(BM_SpscThroughput, 64)->UseRealTime()->Iterations(8);
BENCHMARK_TEMPLATE(BM_SpscThroughput, 256)->UseRealTime()->Iterations(8);
#endif
BENCHMARK_TEMPLATE(BM_DataFlowLatency, 64)->UseRealTime()->Iterations(2);
BENCHMARK_TEMPLATE(BM_DataFlowLatency, 256)->UseRealTime()->Iterations(2);
#ifdef QEL_HAVE_SPSC
BENCHMARK_TEMPLATE(BM_SpscLatency, 64)->UseRealTime()->Iterations(2);
BENCHMARK_TEMPLATE(BM_SpscLatency, 256)->UseRealTime()->Iterations(2);
#endif
BENCHMARK_TEMPLATE(BM_DataFlowPaced, 256)->UseRealTime()->Iterations(2);
#ifdef QEL_HAVE_SPSC
BENCHMARK_TEMPLATE(BM_SpscPaced, 256)->UseRealTime()->Iterations(2);
#endif
BENCHMARK_MAIN();

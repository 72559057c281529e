// Cross-thread wake-up latency of the fd reactor, beside the bare system
// mechanism it rests on.
//
// BM_ReactorWakeup: another thread posts an event (with a sign, so it wakes
// the reactor through its eventfd) to an FdReactor napping in epoll_wait;
// measured from just before add_event to the moment the handler runs.
// BM_EventfdEpollPing: one thread writes an eventfd that a second thread
// waits on in epoll_wait; measured from before the write to the waiter's
// return. Each iteration first lets the reactor (or waiter) fall asleep.
// Counters: median and 99th percentile in microseconds.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <thread>
#include <vector>

#include "sync/sign.h"
#include "parallel/fdreactor.h"

namespace {

int64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void report(benchmark::State& state, std::vector<double>& us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
}

class Stamp : public Parallel::Handler {
public:
    std::atomic<int64_t> ran_at{0};
    int on_event(int, void*) override {
        ran_at.store(now_ns(), std::memory_order_release);
        return 0;
    }
};

void BM_ReactorWakeup(benchmark::State& state) {
    Parallel::FdReactor reactor(nullptr);
    reactor.create(true, nullptr);
    Stamp stamp;
    std::vector<double> us;
    for (auto _ : state) {
        usleep(1000);  // the reactor goes back to its 10 ms nap
        Base::Sign done(0);
        int64_t start = now_ns();
        reactor.add_event(1001, nullptr, &done, &stamp, false);
        done.join();
        double seconds = double(stamp.ran_at.load(std::memory_order_acquire) - start) / 1e9;
        state.SetIterationTime(seconds);
        us.push_back(seconds * 1e6);
    }
    reactor.stop();
    reactor.join();
    report(state, us);
}

void BM_EventfdEpollPing(benchmark::State& state) {
    int event_fd = eventfd(0, EFD_NONBLOCK);
    int epoll_fd = epoll_create(1);
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.fd = event_fd;
    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, event_fd, &interest);
    std::atomic<int64_t> woke_at{0};
    std::atomic<bool> running{true};
    std::thread waiter([&] {
        epoll_event ready;
        while (running.load(std::memory_order_relaxed)) {
            if (epoll_wait(epoll_fd, &ready, 1, 10) < 1) continue;
            int64_t t = now_ns();
            uint64_t value;
            ssize_t n = read(event_fd, &value, sizeof(value));
            (void)n;
            woke_at.store(t, std::memory_order_release);
        }
    });
    std::vector<double> us;
    for (auto _ : state) {
        usleep(1000);
        woke_at.store(0, std::memory_order_relaxed);
        int64_t start = now_ns();
        uint64_t one = 1;
        ssize_t n = write(event_fd, &one, sizeof(one));
        (void)n;
        int64_t t;
        while ((t = woke_at.load(std::memory_order_acquire)) == 0) {
        }
        double seconds = double(t - start) / 1e9;
        state.SetIterationTime(seconds);
        us.push_back(seconds * 1e6);
    }
    running = false;
    waiter.join();
    close(epoll_fd);
    close(event_fd);
    report(state, us);
}

// The CPU an idle, napping fd reactor thread burns: its own thread clock
// over 5 s in which nothing happens, as a percentage of one core. Beside
// it, a thread that sleeps in epoll_wait with the same 10 ms timeout.
double thread_cpu_percent(pthread_t thread, int seconds) {
    clockid_t clock;
    if (pthread_getcpuclockid(thread, &clock) != 0) return -1;
    timespec a, b;
    clock_gettime(clock, &a);
    int64_t wall = now_ns();
    sleep(unsigned(seconds));
    clock_gettime(clock, &b);
    wall = now_ns() - wall;
    double used = double(b.tv_sec - a.tv_sec) * 1e9 + double(b.tv_nsec - a.tv_nsec);
    return 100.0 * used / double(wall);
}

class IdleReactor : public Parallel::FdReactor {
public:
    using FdReactor::FdReactor;
    pthread_t get_handle() const { return handle; }
};

void BM_IdleReactorCpu(benchmark::State& state) {
    IdleReactor reactor(nullptr);
    reactor.create(true, nullptr);
    usleep(100000);  // past the polling that follows its start
    double percent = 0;
    for (auto _ : state) percent = thread_cpu_percent(reactor.get_handle(), 5);
    reactor.stop();
    reactor.join();
    state.counters["cpu_percent"] = percent;
}

void BM_IdleEpollWaitCpu(benchmark::State& state) {
    int epoll_fd = epoll_create(1);
    std::atomic<bool> running{true};
    std::thread waiter([&] {
        epoll_event ready;
        while (running.load(std::memory_order_relaxed)) epoll_wait(epoll_fd, &ready, 1, 10);
    });
    usleep(100000);
    double percent = 0;
    for (auto _ : state) percent = thread_cpu_percent(waiter.native_handle(), 5);
    running = false;
    waiter.join();
    close(epoll_fd);
    state.counters["cpu_percent"] = percent;
}

BENCHMARK(BM_IdleReactorCpu)->Iterations(1)->Repetitions(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_IdleEpollWaitCpu)->Iterations(1)->Repetitions(1)->Unit(benchmark::kSecond);

BENCHMARK(BM_ReactorWakeup)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EventfdEpollPing)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

// The cost of an order on the caller's thread and its way to the front,
// each beside a raw TCP send of the same frame in the same run.
//
// Call: ReqOrderInsert from entry to its record committed in the request
// flow (the call returns right after the commit), with the reactor napping
// (the commit wakes it through its eventfd) and busy-polling; beside one
// send() of the same frame on a loopback socket. Wire: from the call to the frame stored
// by the test front's reactor, beside a send() to a thread blocked in
// recv(). Medians and 99th percentiles go out as counters, in ns.
#include <benchmark/benchmark.h>

#include <netinet/tcp.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "api/tradeapi.h"
#include "tests/api/test_front.h"

namespace {

uint64_t now_ns() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

void report(benchmark::State& state, std::vector<uint64_t>& samples) {
    if (samples.empty()) return;
    std::sort(samples.begin(), samples.end());
    state.counters["median_ns"] = static_cast<double>(samples[samples.size() / 2]);
    state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
}

class Spy : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override { connected.store(true); }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info && info->ErrorID == 0) logged_in.store(true);
    }
    std::atomic<bool> connected{false};
    std::atomic<bool> logged_in{false};
};

// A logged-in trader on a front that keeps no frames and sets no limits.
struct Session {
    Session() {
        front.keep_frames = false;
        api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi("/tmp/"));
        api->RegisterSpi(&spy);
        api->RegisterFront(front.address().c_str());
        api->Init();
        test_front::wait_until([&] { return spy.connected.load(); });
        CTulmQelcReqUserLoginField login = {};
        std::strcpy(login.UserID, "U1");
        std::strcpy(login.ParticipantID, "P1");
        std::strcpy(login.UserProductInfo, "bench");
        api->ReqUserLogin(&login, 1);
        test_front::wait_until([&] { return spy.logged_in.load(); });
        std::strcpy(order.InstrumentID, "IF2601");
        order.Direction = '0';
        order.LimitPrice = 4012.6;
        order.VolumeTotalOriginal = 3;
    }
    ~Session() {
        api->Release();
        api->Join();
    }
    // The next order, with an ascending local id; outside the timing.
    CTulmQelcInputOrderField* next() {
        snprintf(order.OrderLocalID, sizeof(order.OrderLocalID), "%012d", ++local_id);
        return &order;
    }
    test_front::Front front;
    Spy spy;
    Api::TradeApi* api;
    CTulmQelcInputOrderField order = {};
    int local_id = 0;
};

// A loopback TCP pair; the reading side can run on a thread of its own.
struct RawPair {
    RawPair() {
        int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        ::listen(listener, 1);
        socklen_t n = sizeof(a);
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &n);
        out = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(out, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        in = ::accept(listener, nullptr, nullptr);
        ::close(listener);
        int one = 1;
        setsockopt(out, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    }
    ~RawPair() {
        ::close(out);
        ::close(in);
    }
    bool read_exact(char* buffer, size_t size) {
        size_t at = 0;
        while (at < size) {
            ssize_t got = ::recv(in, buffer + at, size - at, 0);
            if (got <= 0) return false;
            at += static_cast<size_t>(got);
        }
        return true;
    }
    int out, in;
};

// The frame that ReqOrderInsert puts on the wire for the session's order.
std::string order_frame(Session& session) {
    QelInputOrderField record;
    std::memcpy(&record, session.next(), sizeof(record));
    std::string frame(26 + 4000, '\0');
    Network::QelcPacket packet(4101, 1, 'L');
    packet.attach(&frame[6]);
    packet.add_field(&QelInputOrderField::DESC, &record, QelInputOrderField::to_stream);
    int size = packet.commit();
    frame[0] = 2;
    frame[2] = static_cast<char>(size >> 8);
    frame[3] = static_cast<char>(size);
    frame[4] = 1;
    frame.resize(static_cast<size_t>(size) + 6);
    return frame;
}

// Argument 1: the trader's reactor busy-polls on CPU 1 (QEL_BUSY_POLL),
// so that a commit needs no wake-up of a napping reactor.
void BM_OrderInsertCall(benchmark::State& state) {
    if (state.range(0)) setenv("QEL_BUSY_POLL", "1", 1);
    Session session;
    unsetenv("QEL_BUSY_POLL");
    std::vector<uint64_t> samples;
    samples.reserve(1 << 20);
    for (auto _ : state) {
        CTulmQelcInputOrderField* order = session.next();
        uint64_t start = now_ns();
        int result = session.api->ReqOrderInsert(order, 7);
        uint64_t end = now_ns();
        benchmark::DoNotOptimize(result);
        samples.push_back(end - start);
    }
    report(state, samples);
}

// The peer: one send() of the same frame; a thread drains the other side.
void BM_RawSendCall(benchmark::State& state) {
    Session session;
    std::string frame = order_frame(session);
    RawPair pair;
    std::atomic<bool> done{false};
    std::thread drain([&] {
        char buffer[65536];
        while (!done.load() && ::recv(pair.in, buffer, sizeof(buffer), 0) > 0) {
        }
    });
    std::vector<uint64_t> samples;
    samples.reserve(1 << 20);
    for (auto _ : state) {
        uint64_t start = now_ns();
        ssize_t sent = ::send(pair.out, frame.data(), frame.size(), MSG_NOSIGNAL);
        uint64_t end = now_ns();
        benchmark::DoNotOptimize(sent);
        samples.push_back(end - start);
    }
    done = true;
    ::shutdown(pair.out, SHUT_WR);
    drain.join();
    report(state, samples);
}

// From the call to the frame in the front's flow, one order at a time.
void BM_OrderInsertToFront(benchmark::State& state) {
    Session session;
    std::vector<uint64_t> samples;
    for (auto _ : state) {
        CTulmQelcInputOrderField* order = session.next();
        uint64_t before = session.front.arrivals.load(std::memory_order_acquire);
        uint64_t start = Base::Measure::get_clock();
        session.api->ReqOrderInsert(order, 7);
        while (session.front.arrivals.load(std::memory_order_acquire) == before) {
        }
        samples.push_back((session.front.last_arrival.load(std::memory_order_relaxed) - start) * 100);
    }
    report(state, samples);
}

// The peer: send() of the same frame to a thread blocked in recv().
void BM_RawSendToPeer(benchmark::State& state) {
    Session session;
    std::string frame = order_frame(session);
    RawPair pair;
    std::atomic<uint64_t> arrived{0}, clock{0};
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::vector<char> buffer(frame.size());
        while (!done.load() && pair.read_exact(buffer.data(), buffer.size())) {
            clock.store(Base::Measure::get_clock(), std::memory_order_relaxed);
            arrived.fetch_add(1, std::memory_order_release);
        }
    });
    std::vector<uint64_t> samples;
    for (auto _ : state) {
        uint64_t before = arrived.load(std::memory_order_acquire);
        uint64_t start = Base::Measure::get_clock();
        ::send(pair.out, frame.data(), frame.size(), MSG_NOSIGNAL);
        while (arrived.load(std::memory_order_acquire) == before) {
        }
        samples.push_back((clock.load(std::memory_order_relaxed) - start) * 100);
    }
    done = true;
    ::shutdown(pair.out, SHUT_WR);
    reader.join();
    report(state, samples);
}

BENCHMARK(BM_OrderInsertCall)->Arg(0)->Arg(1)->Iterations(200000);
BENCHMARK(BM_RawSendCall)->Iterations(200000);
BENCHMARK(BM_OrderInsertToFront)->Iterations(5000);
BENCHMARK(BM_RawSendToPeer)->Iterations(5000);

}  // namespace

BENCHMARK_MAIN();

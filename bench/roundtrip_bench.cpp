// Order round trip over 127.0.0.1: ReqOrderInsert on the application's
// thread until OnRtnOrder reaches the callback, through the trader library
// and the simulated front, beside a raw TCP ping-pong of the same sizes in
// the same run: the request frame one way, the reply and the return frames
// back. Both wait the way the library's reactor does: polling for 750 us
// after work, then sleeping in epoll_wait. Median and 99th percentile go
// into the counters, in microseconds.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "api/QelcTraderApi.h"
#include "front/server.h"
#include "record/gen/qelfield.h"

namespace {

const int ROUNDS = 3000;
const auto BUSY = std::chrono::microseconds(750);  // the reactor's polling span

using Clock = std::chrono::steady_clock;

void report(benchmark::State& state, std::vector<double>& us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[us.size() * 99 / 100];
}

// ---- the trader and the front -------------------------------------------------

class Spi : public CTulmQelcTraderSpi {
public:
    explicit Spi(CTulmQelcTraderApi* api) : api(api) {}
    void OnFrontConnected() override {
        CTulmQelcReqUserLoginField login = {};
        strcpy(login.UserID, "trader1");
        strcpy(login.ParticipantID, "P001");
        strcpy(login.Password, "pass1");
        strcpy(login.UserProductInfo, "bench");
        api->ReqUserLogin(&login, 1);
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info && info->ErrorID == 0) logged_in.store(true, std::memory_order_release);
    }
    void OnRtnOrder(CTulmQelcOrderField*) override { returns.fetch_add(1, std::memory_order_release); }

    CTulmQelcTraderApi* api;
    std::atomic<bool> logged_in{false};
    std::atomic<long> returns{0};
};

// Waits like the reactor: polls, then naps in short sleeps.
template <class F>
bool wait_for(F done) {
    Clock::time_point start = Clock::now(), poll_until = start + BUSY;
    while (!done()) {
        if (Clock::now() > start + std::chrono::seconds(10)) return false;
        if (Clock::now() > poll_until) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

void BM_TraderOrderRoundTrip(benchmark::State& state) {
    Front::Config config;
    config.port = 0;
    config.quiet = true;
    config.key_form = Front::KEY_PLAIN;
    config.max_trade_flux = 0;  // no gate: the bench paces itself
    config.max_trade_on_way = 0;
    Front::Server front(config);
    if (!front.start()) {
        state.SkipWithError(front.get_error());
        return;
    }
    char dir[64];
    snprintf(dir, sizeof(dir), "/tmp/qelbench_%d/", int(getpid()));
    mkdir(dir, 0700);
    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi(dir);
    Spi spi(api);
    api->RegisterSpi(&spi);
    std::string address = "tcp://127.0.0.1:" + std::to_string(front.get_port());
    api->RegisterFront(address.c_str());
    api->SubscribePrivateTopic(TE_RESUME_FROM_NOW);
    api->Init();
    if (!wait_for([&] { return spi.logged_in.load(std::memory_order_acquire); })) {
        state.SkipWithError("no login");
    } else {
        CTulmQelcInputOrderField o = {};
        strcpy(o.ParticipantID, "P001");
        strcpy(o.UserID, "trader1");
        strcpy(o.ClientID, "C001");
        strcpy(o.InstrumentID, "qe2612");
        o.OrderPriceType = '2';
        o.Direction = '0';
        o.CombOffsetFlag[0] = '0';
        o.CombHedgeFlag[0] = '1';
        o.LimitPrice = 3000.0;  // never meets a seller
        o.VolumeTotalOriginal = 1;
        o.TimeCondition = '3';
        o.VolumeCondition = '1';
        std::vector<double> us;
        us.reserve(ROUNDS);
        long id = 0;
        for (auto _ : state) {
            snprintf(o.OrderLocalID, sizeof(o.OrderLocalID), "%012ld", ++id % 1000000000000L);
            long before = spi.returns.load(std::memory_order_acquire);
            Clock::time_point t0 = Clock::now();
            int r = api->ReqOrderInsert(&o, int(id));
            if (r != 0 || !wait_for([&] { return spi.returns.load(std::memory_order_acquire) > before; })) {
                state.SkipWithError("order lost");
                break;
            }
            us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        }
        report(state, us);
    }
    api->Release();
    api->Join();
    std::string con = std::string(dir) + "trade.con";
    unlink(con.c_str());
    rmdir(dir);
}
BENCHMARK(BM_TraderOrderRoundTrip)->Iterations(ROUNDS)->UseRealTime();

// ---- the raw peer -------------------------------------------------------------

int frame_size(std::initializer_list<const Base::FieldDesc*> records) {
    int n = 26;
    for (const Base::FieldDesc* d : records) n += 4 + d->stream_size;
    return n;
}

// Reads exactly n bytes from a non-blocking socket, polling and then
// sleeping in epoll_wait as the reactor does.
bool read_exactly(int fd, int epoll_fd, char* buf, int n) {
    int got = 0;
    Clock::time_point poll_until = Clock::now() + BUSY;
    while (got < n) {
        ssize_t r = recv(fd, buf + got, size_t(n - got), 0);
        if (r > 0) {
            got += int(r);
            poll_until = Clock::now() + BUSY;
            continue;
        }
        if (r == 0) return false;
        if (Clock::now() > poll_until) {
            epoll_event e;
            epoll_wait(epoll_fd, &e, 1, 10);
        }
    }
    return true;
}

void send_exactly(int fd, const char* buf, int n) {
    int sent = 0;
    while (sent < n) {
        ssize_t r = send(fd, buf + sent, size_t(n - sent), MSG_NOSIGNAL);
        if (r > 0) sent += int(r);
        else if (r == 0) return;
    }
}

int nonblocking_epoll(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    int e = epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(e, EPOLL_CTL_ADD, fd, &ev);
    return e;
}

void BM_RawTcpSameSizes(benchmark::State& state) {
    const int request = frame_size({&QelInputOrderField::DESC});
    const int reply = frame_size({&QelRspInfoField::DESC, &QelInputOrderField::DESC}) +
                      frame_size({&QelOrderField::DESC});
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(listener, 1);
    socklen_t len = sizeof(a);
    getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
    int client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(client, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    int server = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    close(listener);
    int client_epoll = nonblocking_epoll(client);
    int server_epoll = nonblocking_epoll(server);
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        std::vector<char> in(static_cast<size_t>(request)), out(static_cast<size_t>(reply), 0x72);
        while (!stop.load() && read_exactly(server, server_epoll, in.data(), request))
            send_exactly(server, out.data(), reply);
    });
    std::vector<char> out(static_cast<size_t>(request), 0x71), in(static_cast<size_t>(reply));
    std::vector<double> us;
    us.reserve(ROUNDS);
    for (auto _ : state) {
        Clock::time_point t0 = Clock::now();
        send_exactly(client, out.data(), request);
        if (!read_exactly(client, client_epoll, in.data(), reply)) break;
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    stop.store(true);
    shutdown(client, SHUT_RDWR);
    echo.join();
    close(client);
    close(server);
    close(client_epoll);
    close(server_epoll);
    state.counters["request_bytes"] = request;
    state.counters["reply_bytes"] = reply;
    report(state, us);
}
BENCHMARK(BM_RawTcpSameSizes)->Iterations(ROUNDS)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

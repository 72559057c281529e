// Channel throughput and latency over loopback, each beside raw TCP in the
// same run.
//
// Stream: frames appended to a server's published flow until they all sit
// in the client's subscribed flow (plain, compressed, AES-enciphered),
// beside the same bytes written to a plain TCP socket and read whole on the
// other side. Round trip: a small frame from a client flow to the server,
// echoed by the server flow's write callback into its published flow, and
// back into the client's flow; beside a TCP ping-pong of the same bytes.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/network/channel_helpers.h"

using namespace chtest;

namespace {

const int BATCH = 2000;   // frames per stream iteration
const int BODY = 200;     // body bytes of a stream frame
const int SMALL = 32;     // body bytes of a round-trip frame

// One wake-up for the batch, as a burst from one writer would do.
void write_frames(Network::QelcFlow* flow, int count, int body) {
    Network::QelcFlow::Writer writer(flow, false);
    for (int i = 0; i < count; ++i) {
        Network::QelcPacket* packet = writer.alloc_packet(100, 0);
        char* field = packet->add_field(7, static_cast<unsigned short>(body - 4));
        memset(field, 0, size_t(body - 4));
        memcpy(field, &i, sizeof(i));
        field[40] = 'A';
        writer.commit_packet(i == count - 1);
    }
}

// The server echoes every frame of its subscribed flow into its published one.
class Echo : public Base::DataFlow::WriteCallback {
public:
    Network::QelcFlow::Writer* writer = nullptr;
    void on_write(unsigned long, const void* data, unsigned short) override {
        writer->add_packet(static_cast<const Network::XmpPacket::Header*>(data), false, true);
    }
};

// A started fd reactor, busy-polling on busy_cpu when that is 0 or more.
class BenchReactor {
public:
    explicit BenchReactor(int busy_cpu) : reactor(new Parallel::FdReactor(nullptr)) {
        reactor->set_busy_poll(busy_cpu);
        reactor->create(true, nullptr);
    }
    ~BenchReactor() {
        reactor->stop();
        reactor->join();
        delete reactor;
    }
    Parallel::FdReactor* get() const { return reactor; }

private:
    Parallel::FdReactor* reactor;
};

struct Link {
    // got_down_callback hears every frame that reaches the client.
    Link(unsigned char cipher, bool compress, int client_cpu = -1, int server_cpu = -1,
         Base::DataFlow::WriteCallback* got_down_callback = nullptr)
        : server_reactor(server_cpu),
          client_reactor(client_cpu),
          server_owner_reactor(server_reactor.get()),
          owner(client_reactor.get()) {
        down = make_flow(3);
        got_down = new Network::QelcFlow(3, 0x100000, 0x100000, nullptr, got_down_callback, 0,
                                         nullptr, false, false);
        up = make_flow(1);
        got_up = new Network::QelcFlow(1, 0x100000, 0x100000, nullptr, &echo, 0, nullptr, false, false);
        echo.writer = new Network::QelcFlow::Writer(down, false);
        run_on(server_reactor.get(), [&] {
            server = new Network::QelcServerSession(server_reactor.get(), &server_owner_reactor, nullptr, 2);
            server->open("127.0.0.1", 0);
            server->publish(down);
            server->subscribe(got_up);
        });
        server_owner_reactor.cipher = cipher;
        server_owner_reactor.compress = compress;
        owner.on_connect = [this, cipher, compress] {
            client->subscribe(got_down, nullptr, 0, false);
            client->publish(up, 0, nullptr, nullptr, nullptr);
            if (compress) client->enable_compress();
            if (cipher) client->set_cipher(cipher, 0x1234567890abcdefUL);
        };
        int port = server->get_channel()->get_socket()->get_local_port();
        run_on(client_reactor.get(), [&] {
            client = new Network::QelcClientSession(client_reactor.get(), &owner, nullptr, nullptr, 2);
            client->open("127.0.0.1", port);
        });
        wait_until([&] { return server_owner_reactor.created.load() == 1; });
    }
    ~Link() {
        run_on(client_reactor.get(), [&] { delete client; });
        run_on(server_reactor.get(), [&] { delete server; });
        delete echo.writer;
        delete down;
        delete got_down;
        delete up;
        delete got_up;
    }

    class Setup : public Network::ServerSession {
    public:
        explicit Setup(Parallel::FdReactor* r) : Network::ServerSession(r, nullptr, nullptr) {}
        void on_client_created(Network::ClientSession* client) override {
            if (cipher) client->set_cipher(cipher, 0x1234567890abcdefUL);
            if (compress) static_cast<Network::QelcClientSession*>(client)->enable_compress();
            created.fetch_add(1);
        }
        unsigned char cipher = 0;
        bool compress = false;
        std::atomic<int> created{0};
    };

    BenchReactor server_reactor;
    BenchReactor client_reactor;
    Setup server_owner_reactor;
    Owner owner;
    Echo echo;
    Network::QelcServerSession* server = nullptr;
    Network::QelcClientSession* client = nullptr;
    Network::QelcFlow* down;
    Network::QelcFlow* got_down;
    Network::QelcFlow* up;
    Network::QelcFlow* got_up;
};

void spin_until(const std::function<bool()>& done) {
    while (!done()) std::this_thread::yield();
}

// The stream waits nap instead of spinning: on a small machine a spinning
// waiter takes the cores the reactors need.
void nap_until(const std::function<bool()>& done) {
    while (!done()) std::this_thread::sleep_for(std::chrono::microseconds(20));
}

void BM_ChannelStream(benchmark::State& state) {
    const unsigned char cipher = state.range(0) == 2 ? 3 : 0;
    const bool compress = state.range(0) == 1;
    Link link(cipher, compress);
    unsigned long target = 0;
    for (auto _ : state) {
        write_frames(link.down, BATCH, BODY);
        target += BATCH;
        nap_until([&] { return link.got_down->get_count() >= target; });
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * BATCH);
    state.SetBytesProcessed(int64_t(state.iterations()) * BATCH * (BODY + 26));
    state.SetLabel(cipher ? "aes" : compress ? "compressed" : "plain");
}
BENCHMARK(BM_ChannelStream)->Arg(0)->Arg(1)->Arg(2)->Iterations(100)->UseRealTime();

// A connected pair of TCP sockets on loopback.
struct TcpPair {
    TcpPair() {
        int one = 1;
        client = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(uint16_t(server.port));
        ::connect(client, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        server.accept_one();
    }
    ~TcpPair() { ::close(client); }
    RawServer server;
    int client;
};

bool send_all(int fd, const char* data, size_t size) {
    while (size) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

// False when the peer has closed (or on an error) before size bytes came.
bool recv_all(int fd, char* data, size_t size) {
    while (size) {
        ssize_t n = ::recv(fd, data, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

void BM_RawTcpStream(benchmark::State& state) {
    TcpPair pair;
    std::string bytes;
    for (int i = 0; i < BATCH; ++i) bytes += data_frame(3, unsigned(i + 1), BODY, i);
    std::atomic<long> batches{0};
    // The reader ends at the end of the stream: a flag could be seen only
    // after it had gone back to wait for bytes that never come.
    std::thread reader([&] {
        std::vector<char> buf(bytes.size());
        while (recv_all(pair.server.conn, buf.data(), buf.size())) batches.fetch_add(1);
    });
    long target = 0;
    for (auto _ : state) {
        send_all(pair.client, bytes.data(), bytes.size());
        ++target;
        nap_until([&] { return batches.load() >= target; });
    }
    ::shutdown(pair.client, SHUT_WR);
    reader.join();
    state.SetItemsProcessed(int64_t(state.iterations()) * BATCH);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
BENCHMARK(BM_RawTcpStream)->Iterations(100)->UseRealTime();

void BM_ChannelRoundTrip(benchmark::State& state) {
    Link link(0, false);
    unsigned long target = 0;
    for (auto _ : state) {
        write_frames(link.up, 1, SMALL);
        ++target;
        spin_until([&] { return link.got_down->get_count() >= target; });
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_ChannelRoundTrip)->Iterations(20000)->UseRealTime();

void BM_RawTcpPingPong(benchmark::State& state) {
    TcpPair pair;
    std::string frame = data_frame(1, 1, SMALL, 1);
    // The echo ends when the client closes its side, whatever it was doing.
    std::thread echo([&] {
        std::vector<char> buf(frame.size());
        while (recv_all(pair.server.conn, buf.data(), buf.size()) &&
               send_all(pair.server.conn, buf.data(), buf.size())) {
        }
    });
    std::vector<char> back(frame.size());
    for (auto _ : state) {
        send_all(pair.client, frame.data(), frame.size());
        recv_all(pair.client, back.data(), back.size());
    }
    ::shutdown(pair.client, SHUT_WR);
    echo.join();
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_RawTcpPingPong)->Iterations(20000)->UseRealTime();

// Both ends busy-polling, client on CPU 0 and server on CPU 1 (the two
// peers below use the same placement). The client reactor itself writes
// each next ping when the reply lands in its flow, so no third thread sits
// in the loop; the benchmark thread only waits for the count. The reply
// that lands starts the next ping: items/s is round trips per second.
const int BUSY_ROUND_TRIPS = 20000;

int cpu_or_none(int cpu) { return int(std::thread::hardware_concurrency()) > cpu ? cpu : -1; }

void pin(int cpu) {
    if (cpu < 0) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

class Pinger : public Base::DataFlow::WriteCallback {
public:
    Network::QelcFlow* up = nullptr;
    std::atomic<long> replies{0};
    std::atomic<long> target{0};
    void on_write(unsigned long, const void*, unsigned short) override {
        long n = replies.fetch_add(1) + 1;
        if (n < target.load()) write_frames(up, 1, SMALL);
    }
};

void channel_round_trips(benchmark::State& state, bool busy) {
    Pinger pinger;
    Link link(0, false, busy ? cpu_or_none(0) : -1, busy ? cpu_or_none(1) : -1, &pinger);
    pinger.up = link.up;
    long done = 0;
    for (auto _ : state) {
        // The previous run has ended (count reached): nobody else writes up.
        pinger.target.store(done + BUSY_ROUND_TRIPS);
        write_frames(link.up, 1, SMALL);
        done += BUSY_ROUND_TRIPS;
        nap_until([&] { return pinger.replies.load() >= done; });
    }
    state.SetItemsProcessed(done);
}

void BM_ChannelRoundTripBusyPoll(benchmark::State& state) { channel_round_trips(state, true); }
void BM_ChannelRoundTripNapping(benchmark::State& state) { channel_round_trips(state, false); }
BENCHMARK(BM_ChannelRoundTripBusyPoll)->Iterations(3)->UseRealTime();
BENCHMARK(BM_ChannelRoundTripNapping)->Iterations(3)->UseRealTime();

// The raw peer: a client thread on CPU 0 and an echo thread on CPU 1, both
// spinning on non-blocking reads.
bool spin_recv(int fd, char* data, size_t size) {
    while (size) {
        ssize_t n = ::recv(fd, data, size, MSG_DONTWAIT);
        if (n == 0) return false;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= size_t(n);
    }
    return true;
}

void BM_RawTcpBusyPingPong(benchmark::State& state) {
    TcpPair pair;
    std::string frame = data_frame(1, 1, SMALL, 1);
    std::thread echo([&] {
        pin(cpu_or_none(1));
        std::vector<char> buf(frame.size());
        while (spin_recv(pair.server.conn, buf.data(), buf.size()) &&
               send_all(pair.server.conn, buf.data(), buf.size())) {
        }
    });
    std::atomic<long> finished{0};
    long done = 0;
    for (auto _ : state) {
        std::thread client([&] {
            pin(cpu_or_none(0));
            std::vector<char> back(frame.size());
            for (int i = 0; i < BUSY_ROUND_TRIPS; ++i) {
                send_all(pair.client, frame.data(), frame.size());
                spin_recv(pair.client, back.data(), back.size());
            }
            finished.fetch_add(BUSY_ROUND_TRIPS);
        });
        done += BUSY_ROUND_TRIPS;
        nap_until([&] { return finished.load() >= done; });
        client.join();
    }
    ::shutdown(pair.client, SHUT_WR);
    echo.join();
    state.SetItemsProcessed(done);
}
BENCHMARK(BM_RawTcpBusyPingPong)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

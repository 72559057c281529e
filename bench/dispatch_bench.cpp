// Inbound order returns per second, from the socket to OnRtnOrder, beside a
// raw TCP stream of the same bytes in the same run.
//
// A plain TCP server on 127.0.0.1 plays the front: the trader connects to
// it, gets one IntlRtnDissemination that opens its private topic at 0, and
// then batches of RtnOrder frames, numbered on, each batch one send of a
// prepared buffer. The peer is the same server sending the same buffer to a
// plain socket whose reader only counts the bytes. The measuring thread
// sleeps until the count is reached. On a loaded machine the numbers move a
// lot from run to run; compare the two of one run.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api/tradeapi.h"
#include "network/qelcflow.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"
#include "record/gen/qelfield.h"

namespace {

const int BATCH = 20000;  // returns per iteration

// A data frame of one packet: the headers and the records behind them.
std::string make_frame(unsigned int packet_id, unsigned short subject, unsigned long sequence,
                       const Base::FieldDesc* desc, const void* record) {
    char area[Network::QelcPacket::HEADER_SIZE + Network::QelcPacket::MAX_BODY_SIZE];
    Network::QelcPacket packet(packet_id, 0, 'L');
    packet.attach(area);
    packet.get_header().Subject = subject;
    packet.get_header().set_sequence(sequence);
    packet.add_field(desc, record);
    const int length = packet.commit();
    std::string frame(6 + length, '\0');
    Network::XmpPacket::Header xmp = {Network::XmpPacket::TYPE_DATA, 0, static_cast<unsigned short>(length + 2)};
    Network::XmpPacket::to_stream(&xmp, &frame[0]);
    frame[4] = 1;
    std::memcpy(&frame[6], area, length);
    return frame;
}

// The batch: BATCH order returns; restamped with their sequence numbers
// before each send.
class Batch {
public:
    Batch() {
        QelOrderField order;
        std::memset(&order, 0, sizeof(order));
        std::strcpy(order.InstrumentID, "ag2612");
        std::strcpy(order.OrderSysID, "000012345678");
        std::strcpy(order.ParticipantID, "P1");
        order.VolumeTotalOriginal = 3;
        const std::string one = make_frame(20482, 2, 1, &QelOrderField::DESC, &order);
        frame_size = one.size();
        for (int i = 0; i < BATCH; ++i) bytes += one;
    }
    void stamp(unsigned long first) {
        for (int i = 0; i < BATCH; ++i) Network::QelcFlow::stamp(&bytes[i * frame_size], 2, first + i);
    }
    std::string bytes;
    size_t frame_size;
};

// Accepts one connection and sends what it is given, one buffer at a time.
class Sender {
public:
    Sender() {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        ::listen(listener, 4);
        socklen_t n = sizeof(a);
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &n);
        port = ntohs(a.sin_port);
        thread = std::thread([this] { run(); });
    }
    ~Sender() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_all();
        ::shutdown(listener, SHUT_RDWR);
        thread.join();
        if (peer >= 0) ::close(peer);
        ::close(listener);
    }
    void send(const std::string* data) {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(data);
        wake.notify_all();
    }
    int port = 0;

private:
    void run() {
        peer = ::accept(listener, nullptr, nullptr);
        if (peer < 0) return;
        int one = 1;
        setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        for (;;) {
            const std::string* data;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return stopping || !queue.empty(); });
                if (stopping) return;
                data = queue.front();
                queue.erase(queue.begin());
            }
            size_t done = 0;
            while (done < data->size()) {
                const ssize_t n = ::send(peer, data->data() + done, data->size() - done, MSG_NOSIGNAL);
                if (n <= 0) return;
                done += n;
            }
        }
    }
    int listener = -1;
    int peer = -1;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<const std::string*> queue;
    bool stopping = false;
};

// The measuring thread sleeps until a counter reaches its target, so that
// it takes no processor from the threads it measures.
class Waiter {
public:
    void add(long n) {
        const long now = count.fetch_add(n, std::memory_order_acq_rel) + n;
        if (now >= target.load(std::memory_order_acquire)) {
            std::lock_guard<std::mutex> lock(mutex);
            wake.notify_all();
        }
    }
    // Before the work starts, so that nothing wakes the waiter early.
    void arm(long until) { target.store(until, std::memory_order_release); }
    void wait(long until) {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [&] { return count.load(std::memory_order_acquire) >= until; });
    }

private:
    std::atomic<long> count{0};
    std::atomic<long> target{~0ul >> 1};
    std::mutex mutex;
    std::condition_variable wake;
};

class CountingSpi : public CTulmQelcTraderSpi {
public:
    Waiter orders;
    std::atomic<bool> connected{false};
    void OnFrontConnected() override { connected.store(true); }
    void OnRtnOrder(CTulmQelcOrderField* order) override {
        benchmark::DoNotOptimize(order->VolumeTotalOriginal);
        orders.add(1);
    }
};

template <typename Done>
void wait_for(Done done) {
    while (!done()) std::this_thread::yield();
}

void BM_TraderOrderReturns(benchmark::State& state) {
    Sender sender;
    char directory[] = "/tmp/qel_dispatch_bench_XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        state.SkipWithError("no temp dir");
        return;
    }
    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi(directory);
    CountingSpi spi;
    api->RegisterSpi(&spi);
    api->RegisterFront(("tcp://127.0.0.1:" + std::to_string(sender.port)).c_str());
    api->Init();
    wait_for([&] { return spi.connected.load(); });

    QelDisseminationField topic = {2, 0};
    const std::string open = make_frame(22785, 1, 1, &QelDisseminationField::DESC, &topic);
    sender.send(&open);
    Batch batch;
    unsigned long next = 1;
    long target = 0;
    for (auto _ : state) {
        batch.stamp(next);
        next += BATCH;
        target += BATCH;
        spi.orders.arm(target);
        const auto start = std::chrono::steady_clock::now();
        sender.send(&batch.bytes);
        spi.orders.wait(target);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    state.SetBytesProcessed(state.iterations() * static_cast<long>(batch.bytes.size()));
    api->Release();
    api->Join();
    char path[64];
    std::snprintf(path, sizeof(path), "%s/trade.con", directory);
    unlink(path);
    rmdir(directory);
}
BENCHMARK(BM_TraderOrderReturns)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_RawTcpSameBytes(benchmark::State& state) {
    Sender sender;
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(sender.port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        state.SkipWithError("connect failed");
        return;
    }
    Waiter received;
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::vector<char> buffer(static_cast<size_t>(state.range(0)));
        while (!stop.load()) {
            const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
            if (n <= 0) return;
            received.add(n);
        }
    });
    Batch batch;
    unsigned long next = 1;
    long target = 0;
    for (auto _ : state) {
        batch.stamp(next);
        next += BATCH;
        target += static_cast<long>(batch.bytes.size());
        received.arm(target);
        const auto start = std::chrono::steady_clock::now();
        sender.send(&batch.bytes);
        received.wait(target);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    state.SetBytesProcessed(state.iterations() * static_cast<long>(batch.bytes.size()));
    stop.store(true);
    ::shutdown(fd, SHUT_RDWR);
    reader.join();
    ::close(fd);
}
// Read 64 KiB at a time, and 16400 bytes at a time as the trader's channel
// does (two frames' room times its buffer factor of 2).
BENCHMARK(BM_RawTcpSameBytes)->Arg(65536)->Arg(16400)->UseManualTime()->Unit(benchmark::kMillisecond);

// The dispatch alone: one stored order return handed to on_write again and
// again, no socket and no flow.
void BM_OnWriteOnly(benchmark::State& state) {
    Api::TradeApi api("/tmp", nullptr);
    CountingSpi spi;
    api.RegisterSpi(&spi);
    Batch batch;
    const char* frame = batch.bytes.data();
    const unsigned short size = static_cast<unsigned short>(batch.frame_size);
    for (auto _ : state) api.on_write(0, frame, size);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OnWriteOnly);

}  // namespace

BENCHMARK_MAIN();

// A small front for the trader's tests on 127.0.0.1, on its own reactor.
// It records every frame of the client's flows 0 and 1 with its arrival
// clock and sends on flows 1, 2, 3 and 5 of the latest connection. By
// default it answers the key request with "0" (no cipher) and a login with
// a good reply carrying `limits`; answer_requests answers every request
// with an RspError. Recording and answering run on the front's reactor
// thread; the getters take a lock and may be called from any thread.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/measure.h"
#include "network/qelcflow.h"
#include "network/qelcchannel.h"
#include "network/qelcpacket.h"
#include "network/qelcsession.h"
#include "network/tcpsocket.h"
#include "parallel/fdreactor.h"
#include "record/gen/qelfield.h"
#include "tests/parallel/reactor_helpers.h"

namespace test_front {

using test_reactor::wait_until;

// The directories temp_dir made; removed, with what is in them, when the
// test program ends (every trader is released by then).
struct MadeDirs {
    ~MadeDirs() {
        for (const std::string& dir : dirs) std::filesystem::remove_all(dir);
    }
    std::mutex mutex;
    std::vector<std::string> dirs;
};

// A fresh directory for a trader's trade.con.
inline std::string temp_dir(const char* prefix = "trader_") {
    static MadeDirs made;
    // mkdtemp, not a name of our own: a directory left by an earlier
    // process of the same pid must not hand us its trade.con.
    std::string dir = ::testing::TempDir() + prefix + "XXXXXX";
    if (!mkdtemp(dir.data())) return "";
    std::lock_guard<std::mutex> lock(made.mutex);
    made.dirs.push_back(dir);
    return dir + "/";
}

// The whole content of a file ("" when there is none).
inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Threads of this process now. A thread is made and joined first, so that
// a sanitizer's helper thread, which starts with the first one made, is
// already counted in a baseline.
inline int thread_count() {
    std::thread([] {}).join();
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') ++count;
    closedir(dir);
    return count;
}

enum : unsigned int {
    KEY_REQUEST = 24721,
    KEY_REPLY = 24722,
    LOGIN_REQUEST = 4097,
    LOGIN_REPLY = 4098,
};

// One frame as it arrived: the whole data frame (prefix, header, body),
// its decoded header and the front's clock (ticks) at arrival.
struct Frame {
    uint64_t clock;
    unsigned short subject;
    Network::QelcPacket::Header header;
    std::string bytes;
    std::string body() const { return bytes.substr(26); }
};

// A record to put in a packet: its description, the record in internal
// form and its coder.
struct Record {
    const Base::FieldDesc* desc;
    const void* data;
    Network::QelcPacket::ToStreamCoder coder;
};

class Front : public Network::ServerSession {
public:
    // The limits that the login reply carries.
    struct Limits {
        int trade_per_second = 0, trade_on_way = 0, query_per_second = 0, query_on_way = 0;
    };

    // Listens on listen_port, or on an ephemeral port when it is 0.
    explicit Front(int listen_port = 0)
        : Network::ServerSession(nullptr, nullptr, nullptr), reactor(new Parallel::FdReactor(nullptr)) {
        reactor->create(true, nullptr);
        run([&] {
            server = new Network::QelcServerSession(reactor, this, nullptr, 1);
            opened = server->open("127.0.0.1", listen_port);
            if (opened) port = server->get_channel()->get_socket()->get_local_port();
        });
    }
    ~Front() { stop(); }

    // Closes the server and stops its reactor; once only. A derived front
    // calls it first in its own destructor, so that no event of the reactor
    // thread calls a virtual of an object that is half destroyed.
    void stop() {
        if (reactor == nullptr) return;
        run([&] { delete server; });
        reactor->stop();
        reactor->join();
        delete reactor;
        reactor = nullptr;
    }

    std::string address() const { return "tcp://127.0.0.1:" + std::to_string(port); }
    int get_port() const { return port; }
    bool is_open() const { return opened; }

    // Runs fn on the front's reactor thread and returns once it has run.
    void run(std::function<void()> fn) { test_reactor::run_on(*reactor, std::move(fn)); }

    // Every frame received so far, on one subject or on all (subject -1).
    std::vector<Frame> frames(int subject = -1) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Frame> out;
        for (const Frame& frame : received)
            if (subject < 0 || frame.subject == subject) out.push_back(frame);
        return out;
    }
    // Frames of a packet id on the request flow (subject 1) or on both.
    std::vector<Frame> packets(unsigned int packet_id) {
        std::vector<Frame> out;
        for (const Frame& frame : frames())
            if (frame.header.PacketId == packet_id) out.push_back(frame);
        return out;
    }
    size_t count(int subject = -1) { return frames(subject).size(); }
    int connections() const { return accepted.load(); }
    bool wait_frames(int subject, size_t n, int limit_ms = 20000) {
        return wait_until([&] { return count(subject) >= n; }, limit_ms);
    }

    // A packet of records on a subject (1, 2, 3 or 5) of the latest connection.
    void send(unsigned short subject, unsigned int packet_id, unsigned int request,
              std::initializer_list<Record> records, unsigned char chain = 'L') {
        std::vector<Record> list(records);
        run([&] { write_packet(subject, packet_id, request, list, chain); });
    }
    // Closes every connection; the client sees the front go away.
    void drop() {
        run([&] { server->disconnect_all(); });
    }

    std::atomic<bool> answer_keys{true};
    std::atomic<bool> answer_login{true};
    std::atomic<bool> answer_requests{false};  // an RspError for each request
    std::atomic<bool> keep_frames{true};       // off: only count request frames, for long runs
    std::atomic<uint64_t> arrivals{0};         // request frames (subject 1) so far
    std::atomic<uint64_t> last_arrival{0};     // clock of the latest one
    Limits limits;  // set before the login
    char max_order_local_id[13] = "";
    char participant_id[11] = "P1";
    char user_id[16] = "U1";

protected:
    // One accepted connection and its flows.
    struct Link : public Base::DataFlow::WriteCallback {
        Front* front = nullptr;
        Network::QelcClientSession* client = nullptr;
        std::unique_ptr<Network::QelcFlow> up[2];    // subjects 0 and 1, from the client
        std::unique_ptr<Network::QelcFlow> down[4];  // subjects 1, 2, 3, 5, to the client
        void on_write(unsigned long, const void* data, unsigned short size) override {
            front->on_frame(this, static_cast<const char*>(data), size);
        }
    };

    static int down_index(unsigned short subject) {
        return subject == 1 ? 0 : subject == 2 ? 1 : subject == 3 ? 2 : subject == 5 ? 3 : -1;
    }

    void on_client_created(Network::ClientSession* session) override {
        auto* client = static_cast<Network::QelcClientSession*>(session);
        std::unique_ptr<Link> link(new Link);
        link->front = this;
        link->client = client;
        for (unsigned short subject : {0, 1}) {
            link->up[subject].reset(new Network::QelcFlow(subject, 0x100000, 0x100000, nullptr, link.get(), 0,
                                                          nullptr, false, false));
            client->subscribe(link->up[subject].get(), nullptr, 0, false);
        }
        for (unsigned short subject : {1, 2, 3, 5}) {
            Network::QelcFlow* flow =
                new Network::QelcFlow(subject, 0x100000, 0x100000, nullptr, nullptr, 0, nullptr, false, false);
            link->down[down_index(subject)].reset(flow);
            client->publish(flow, 0, nullptr, nullptr, nullptr);
        }
        links.push_back(std::move(link));
        accepted.fetch_add(1);
    }

    // Reactor thread: record, then answer the key exchange and the login.
    virtual void on_frame(Link* link, const char* data, unsigned short size) {
        Frame frame;
        frame.clock = Base::Measure::get_clock();
        Network::QelcPacket::from_stream(&frame.header, data + 6);
        frame.subject = frame.header.Subject;
        frame.bytes.assign(data, size);
        if (frame.subject == 1) {
            // Release: a thread that sees the count sees the clock.
            last_arrival.store(frame.clock, std::memory_order_relaxed);
            arrivals.fetch_add(1, std::memory_order_release);
        }
        if (keep_frames.load(std::memory_order_relaxed)) {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back(frame);
        }
        if (link != links.back().get()) return;
        if (frame.subject == 1 && answer_requests.load()) {
            QelRspInfoField info = {};
            info.ErrorID = 1;
            write_packet(1, 1, frame.header.RequestId, {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream}},
                         'L');
        }
        if (frame.header.PacketId == KEY_REQUEST && answer_keys.load()) answer_key_request(frame);
        if (frame.header.PacketId == LOGIN_REQUEST && answer_login.load()) answer_login_request(frame);
    }

    void answer_key_request(const Frame& frame) {
        QelRspInfoField info = {};
        QelUserapiInitAuthInfoField init = {};
        QelUserapiSessionAuthInfoField key = {};
        std::strcpy(key.EncryptUserApiInfo, "0");
        write_packet(1, KEY_REPLY, frame.header.RequestId,
                     {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream},
                      {&QelUserapiInitAuthInfoField::DESC, &init, QelUserapiInitAuthInfoField::to_stream},
                      {&QelUserapiSessionAuthInfoField::DESC, &key, QelUserapiSessionAuthInfoField::to_stream}},
                     'L');
    }

    void answer_login_request(const Frame& frame) {
        QelRspInfoField info = {};
        QelUserCommFluxControlField flux = {};
        flux.MaxTradeCommFlux = limits.trade_per_second;
        flux.MaxTradeOnWayCommFlux = limits.trade_on_way;
        flux.MaxQueryCommFlux = limits.query_per_second;
        flux.MaxQueryOnWayCommFlux = limits.query_on_way;
        QelRspUserLoginField login = {};
        std::strcpy(login.TradingDay, "20260105");
        std::strcpy(login.MaxOrderLocalID, max_order_local_id);
        std::strcpy(login.ParticipantID, participant_id);
        std::strcpy(login.UserID, user_id);
        write_packet(1, LOGIN_REPLY, frame.header.RequestId,
                     {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream},
                      {&QelUserCommFluxControlField::DESC, &flux, QelUserCommFluxControlField::to_stream},
                      {&QelRspUserLoginField::DESC, &login, QelRspUserLoginField::to_stream}},
                     'L');
    }

    // Reactor thread.
    void write_packet(unsigned short subject, unsigned int packet_id, unsigned int request,
                      const std::vector<Record>& records, unsigned char chain) {
        if (links.empty() || down_index(subject) < 0) return;
        Network::QelcFlow::Writer writer(links.back()->down[down_index(subject)].get(), false);
        Network::QelcPacket* packet = writer.alloc_packet(static_cast<unsigned short>(packet_id),
                                                          Network::QelcPacket::DEFAULT_VERSION);
        packet->get_header().RequestId = request;
        packet->get_header().Chain = chain;
        for (const Record& record : records) packet->add_field(record.desc, record.data, record.coder);
        writer.commit_packet(true);
    }

    Parallel::FdReactor* reactor;
    Network::QelcServerSession* server = nullptr;
    bool opened = false;
    int port = 0;
    std::vector<std::unique_ptr<Link>> links;  // reactor thread; freed after the server
    std::atomic<int> accepted{0};
    std::mutex mutex;
    std::vector<Frame> received;
};

// A socket bound on 127.0.0.1 to an ephemeral port; listening or not.
inline int bound_socket(bool listening, int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    if (listening) ::listen(fd, 64);
    socklen_t n = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    port = ntohs(a.sin_port);
    return fd;
}

// A port that refuses connections for as long as the object lives: bound
// but not listening, so neither a listener of another test nor a connect's
// own source port (a self-connection) can take it.
class RefusingPort {
public:
    RefusingPort() : fd(bound_socket(false, port)) {}
    ~RefusingPort() { release(); }
    // Frees the port, for a listener to take it at once.
    void release() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    std::string address() const { return "tcp://127.0.0.1:" + std::to_string(port); }
    int port;
    int fd;
};

// A listener that takes connections into its backlog and never answers:
// a silent name server.
class SilentServer {
public:
    SilentServer() : fd(bound_socket(true, port)) {}
    ~SilentServer() { ::close(fd); }
    std::string address() const { return "tcp://127.0.0.1:" + std::to_string(port); }
    int port;
    int fd;
};

}  // namespace test_front

// Helpers for the channel and session tests: a running fd reactor, calls on
// its thread, bounded polling, a raw TCP peer, a recording owner session,
// and frame builders.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "flow/dataflow.h"
#include "base/measure.h"
#include "base/reportable.h"
#include "sync/sign.h"
#include "base/byteorder.h"
#include "network/channelcipher.h"
#include "network/crppacket.h"
#include "network/qelcchannel.h"
#include "network/qelcflow.h"
#include "network/qelcsession.h"
#include "network/session.h"
#include "parallel/fdreactor.h"
#include "tests/parallel/reactor_helpers.h"

namespace chtest {

using test_reactor::Call;
using test_reactor::wait_until;

// Runs fn on the reactor thread and returns once it has run.
inline void run_on(Parallel::FdReactor* reactor, std::function<void()> fn) {
    test_reactor::run_on(*reactor, std::move(fn));
}

class Reactor {
public:
    Reactor() : reactor(new Parallel::FdReactor(nullptr)) { reactor->create(true, nullptr); }
    ~Reactor() {
        reactor->stop();
        reactor->join();
        delete reactor;
    }
    Parallel::FdReactor* get() const { return reactor; }
    Parallel::FdReactor* operator->() const { return reactor; }

private:
    Parallel::FdReactor* reactor;
};

// Collects report lines.
class Lines : public Base::Reportable {
public:
    void report_v(int level, const char* tag, const char* format, va_list args) override {
        char text[512];
        vsnprintf(text, sizeof(text), format, args);
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(std::to_string(level) + " " + tag + " " + text);
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    int count(const std::string& part) {
        int n = 0;
        for (const std::string& s : get())
            if (s.find(part) != std::string::npos) ++n;
        return n;
    }

private:
    std::mutex mutex;
    std::vector<std::string> lines;
};

// The top of a session chain: records what reaches it.
class Owner : public Network::ClientSession {
public:
    explicit Owner(Parallel::FdReactor* reactor) : Network::ClientSession(reactor, nullptr, nullptr) {}
    void on_connected() override {
        connected.fetch_add(1);
        if (on_connect) on_connect();
    }
    void on_disconnected(int reason) override {
        std::lock_guard<std::mutex> lock(mutex);
        reasons.push_back(reason);
    }
    void on_connect_failed(Network::ClientSession*) override { failed.fetch_add(1); }
    std::vector<int> get_reasons() {
        std::lock_guard<std::mutex> lock(mutex);
        return reasons;
    }

    std::function<void()> on_connect;
    std::atomic<int> connected{0};
    std::atomic<int> failed{0};

private:
    std::mutex mutex;
    std::vector<int> reasons;
};

// A raw TCP peer on 127.0.0.1 that speaks bytes.
class RawServer {
public:
    RawServer() {
        listen_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listen_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        ::listen(listen_fd, 64);
        socklen_t n = sizeof(a);
        getsockname(listen_fd, reinterpret_cast<sockaddr*>(&a), &n);
        port = ntohs(a.sin_port);
    }
    ~RawServer() {
        close_conn();
        ::close(listen_fd);
    }
    bool accept_one(int ms = 5000) {
        close_conn();
        pollfd p{listen_fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1) return false;
        conn = ::accept(listen_fd, nullptr, nullptr);
        int one = 1;
        setsockopt(conn, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        return conn >= 0;
    }
    void send(const std::string& bytes) {
        size_t at = 0;
        while (at < bytes.size()) {
            ssize_t n = ::send(conn, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (n <= 0) return;
            at += size_t(n);
        }
    }
    // Reads what arrives within ms (stops early once want bytes are in).
    std::string recv_for(int ms, size_t want = ~size_t(0)) {
        std::string out;
        for (int waited = 0; waited < ms && out.size() < want; waited += 5) {
            pollfd p{conn, POLLIN, 0};
            if (poll(&p, 1, 5) != 1) continue;
            char buf[65536];
            ssize_t n = ::recv(conn, buf, sizeof(buf), 0);
            if (n <= 0) break;
            out.append(buf, size_t(n));
        }
        return out;
    }
    // The peer closes its sending side: the client reads an orderly end.
    void shutdown_write() { ::shutdown(conn, SHUT_WR); }
    void close_conn() {
        if (conn >= 0) ::close(conn);
        conn = -1;
    }

    int listen_fd = -1;
    int conn = -1;
    int port = 0;

    // Reads data frames from a descriptor, skipping control frames, until
    // want bytes of data frames are in (or 5 s pass).
    struct Reader {
        int fd;
        std::string read_frames(size_t want) {
            std::string in, out;
            for (int waited = 0; waited < 5000 && out.size() < want; waited += 5) {
                pollfd p{fd, POLLIN, 0};
                if (poll(&p, 1, 5) == 1) {
                    char buf[65536];
                    ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
                    if (n <= 0) break;
                    in.append(buf, size_t(n));
                }
                while (in.size() >= 4) {
                    size_t size = (in[0] == 0 ? size_t(static_cast<unsigned char>(in[1]))
                                              : size_t(Base::get_be16(in.data() + 2))) + 4;
                    if (in.size() < size) break;
                    if (in[0] != 0) out += in.substr(0, size);
                    in.erase(0, size);
                }
            }
            return out;
        }
    };
};

// A port on 127.0.0.1 where nothing listens: connects are refused.
inline int refusing_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t n = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    ::close(fd);
    return ntohs(a.sin_port);
}

// A data frame as the flows hold it: Type 2, Crp 1/0, Qelc header, body.
// The body mixes runs of zeros and other bytes, so it compresses.
inline std::string data_frame(unsigned short subject, unsigned long sequence, int body, int salt) {
    std::string f(size_t(26 + body), '\0');
    char* p = &f[0];
    p[0] = 2;
    Base::put_be16(p + 2, static_cast<uint16_t>(22 + body));
    p[4] = 1;
    p[6] = 4;
    p[7] = 'L';
    Base::put_be16(p + 8, subject);
    Base::put_be32(p + 10, 0x1234);
    Base::put_be32(p + 14, static_cast<uint32_t>(sequence));
    p[18] = static_cast<char>(sequence >> 32);
    Base::put_be16(p + 20, static_cast<uint16_t>(body));
    Base::put_be32(p + 22, static_cast<uint32_t>(salt));
    for (int i = 0; i < body; ++i)
        p[26 + i] = (i / 7) % 3 == 0 ? static_cast<char>(salt * 13 + i) : '\0';
    return f;
}

inline std::string compress_frame(const std::string& f) {
    std::string out(8200, '\0');
    int coded = 8194;
    Network::CrpPacket::encode_zero(reinterpret_cast<unsigned char*>(&out[6]), coded,
                                    reinterpret_cast<const unsigned char*>(f.data() + 6),
                                    int(f.size()) - 6);
    out[0] = 2;
    Base::put_be16(&out[2], static_cast<uint16_t>(coded + 2));
    out[4] = 1;
    out[5] = 3;
    out.resize(size_t(coded + 6));
    return out;
}

inline std::string encipher_frame(const std::string& f, Network::ChannelCipher& cipher) {
    std::string out = f;
    cipher.encode(reinterpret_cast<unsigned char*>(&out[4]),
                  reinterpret_cast<const unsigned char*>(f.data() + 4), int(f.size()) - 4);
    return out;
}

// Every record of a flow, read from this thread.
inline std::vector<std::string> records(Base::DataFlow* flow) {
    std::vector<std::string> out;
    Base::DataFlow::Iterator it(flow, nullptr, nullptr, nullptr);
    while (const Base::DataFlow::Item* item = it.next()) out.emplace_back(item->data, item->length);
    return out;
}

inline Network::QelcFlow* make_flow(unsigned short subject) {
    return new Network::QelcFlow(subject, 0x100000, 0x100000, nullptr, nullptr, 0, nullptr, false,
                                 false);
}

}  // namespace chtest

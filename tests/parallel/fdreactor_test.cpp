#include "parallel/fdreactor.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "network/tcpsocket.h"
#include "reactor_helpers.h"

namespace {

using test_reactor::ALL_MODES;
using test_reactor::Mode;
using test_reactor::ModeScope;
using test_reactor::run_on;
using test_reactor::wait_on;
using test_reactor::wait_until;

class ProbeFdReactor : public Parallel::FdReactor {
public:
    using FdReactor::FdReactor;
    // Reactor thread only.
    bool is_retired(Parallel::Fd* fd) {
        for (auto* f = notify_fd->next; f != &fd_head; f = f->next)
            if (f == fd) return true;
        return false;
    }
    bool is_active(Parallel::Fd* fd) {
        for (auto* f = fd_head.next; f != notify_fd && f != &fd_head; f = f->next)
            if (f == fd) return true;
        return false;
    }
};

using Running = test_reactor::Running<ProbeFdReactor>;

// A connected pair on 127.0.0.1: a non-blocking client end for the reactor
// and a blocking server end for the test.
struct Pair {
    Base::TcpSocket listener;
    int client = -1;
    int server = -1;
    Pair() {
        EXPECT_TRUE(listener.open());
        EXPECT_TRUE(listener.bind("127.0.0.1", 0));
        EXPECT_TRUE(listener.listen(4));
        client = Base::tcp_connect("127.0.0.1", listener.get_local_port(), 2000);
        server = listener.accept();
        EXPECT_GT(client, 0);
        EXPECT_GT(server, 0);
        Base::Socket::set_blocking(client, false);
    }
    ~Pair() {
        if (client > 0) close(client);
        if (server > 0) close(server);
    }
};

// Sends `outgoing` as the socket allows; keeps what it reads.
class SocketFd : public Parallel::Fd {
public:
    explicit SocketFd(int fd) : fd(fd) {}
    int fd;
    std::string outgoing;  // set before add_fd
    size_t sent = 0;
    std::string received;  // reactor thread; read after a run_on
    std::atomic<long> writes{0}, reads{0}, blocked{0};

    int read() override {
        reads.fetch_add(1);
        char buffer[4096];
        ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        if (n > 0) received.append(buffer, size_t(n));
        return 0;
    }
    int write() override {
        writes.fetch_add(1);
        if (sent == outgoing.size()) return Parallel::FD_IDLE;
        ssize_t n = ::send(fd, outgoing.data() + sent, outgoing.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += size_t(n);
            return 0;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            blocked.fetch_add(1);
            return Parallel::FD_BLOCKED;
        }
        return Parallel::FD_IDLE;
    }
    int get_id() const override { return fd; }
    void get_id(int& a, int& b) const override {
        a = fd;
        b = 0;
    }
};

std::string pattern(size_t size) {
    std::string text(size, 0);
    for (size_t i = 0; i < size; i++) text[i] = char((i * 131 + i / 977) & 0xff);
    return text;
}

TEST(FdReactor, BlockedSenderRetiresAndReturnsOnWritability) {
    Running reactor;
    Pair pair;
    int small = 16384;
    setsockopt(pair.client, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    setsockopt(pair.server, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    SocketFd fd(pair.client);
    fd.outgoing = pattern(512 << 10);
    reactor->add_fd(&fd);

    // The peer reads nothing: the send blocks, and the descriptor moves
    // behind the sentinel, where write() is no longer called.
    ASSERT_TRUE(wait_on(*reactor, [&] { return reactor->is_retired(&fd); }));
    EXPECT_GE(fd.blocked.load(), 1);
    long writes = fd.writes.load();
    for (int i = 0; i < 3; i++) {
        Base::Measure::sleep(15);
        run_on(*reactor, [&] { EXPECT_TRUE(reactor->is_retired(&fd)); });
    }
    EXPECT_EQ(fd.writes.load(), writes);

    // The peer drains: EPOLLOUT brings the descriptor back, every byte
    // arrives once and in order.
    std::string got(fd.outgoing.size(), 0);
    size_t have = 0;
    bool closed = false;
    while (have < got.size() && !closed) {
        int n = Base::tcp_recv(pair.server, &got[have], int(got.size() - have), 5000, &closed);
        if (n == 0) break;
        have += size_t(n);
    }
    ASSERT_EQ(have, got.size());
    EXPECT_TRUE(got == fd.outgoing);
    EXPECT_GT(fd.writes.load(), writes);
    run_on(*reactor, [&] { EXPECT_TRUE(reactor->is_active(&fd)); });

    // Writable at once: a small message goes out in one write() and the
    // descriptor stays active.
    run_on(*reactor, [&] { fd.outgoing += "tail"; });
    char tail[4];
    ASSERT_EQ(Base::tcp_recv(pair.server, tail, 4, 5000, nullptr), 4);
    EXPECT_EQ(std::string(tail, 4), "tail");
    run_on(*reactor, [&] { EXPECT_TRUE(reactor->is_active(&fd)); });
    reactor->remove_fd(&fd);
}

// Closes and deletes itself in read(), returning a negative reason; a
// first write() asks for EPOLLOUT so that the fatal event carries both bits.
class SelfClosingFd : public Parallel::Fd {
public:
    SelfClosingFd(Parallel::FdReactor* reactor, int fd, std::atomic<int>* deaths)
        : reactor(reactor), fd(fd), deaths(deaths) {}
    Parallel::FdReactor* reactor;
    int fd;
    std::atomic<int>* deaths;
    int write() override { return Parallel::FD_BLOCKED; }
    int read() override {
        reactor->remove_fd(this);  // inline on the reactor thread
        deaths->fetch_add(1);
        delete this;
        return -7;
    }
    int get_id() const override { return fd; }
};

TEST(FdReactor, DescriptorClosedInReadIsNeverTouchedAgain) {
    Running reactor;
    for (int round = 0; round < 20; round++) {
        Pair pair;
        std::atomic<int> deaths{0};
        ASSERT_EQ(Base::tcp_send(pair.server, "x", 1, 1000, nullptr), 1);
        reactor->add_fd(new SelfClosingFd(reactor.reactor.get(), pair.client, &deaths));
        ASSERT_TRUE(wait_until([&] { return deaths.load() == 1; }));
        run_on(*reactor, [&] { EXPECT_EQ(reactor->get_fd_count(), 1u); });  // the sentinel
        EXPECT_EQ(deaths.load(), 1);
    }
}

class BusyFd : public Parallel::Fd {
public:
    std::atomic<long> writes{0};
    int write() override {
        writes.fetch_add(1);
        return 0;
    }
};

TEST(FdReactor, RemoveFromAnotherThreadReturnsWhenDone) {
    Running reactor;
    for (int round = 0; round < 30; round++) {
        auto* fd = new BusyFd();  // no kernel descriptor: polled, never in epoll
        reactor->add_fd(fd);
        ASSERT_TRUE(wait_until([&] { return fd->writes.load() > 2; }));
        reactor->remove_fd(fd);
        long writes = fd->writes.load();
        run_on(*reactor, [] {});
        EXPECT_EQ(fd->writes.load(), writes);
        EXPECT_FALSE(fd->is_linked());
        delete fd;  // at once: the reactor holds nothing of it any more
    }
    // A descriptor left in the list is deleted with the reactor.
    reactor->add_fd(new BusyFd());
    run_on(*reactor, [&] { EXPECT_EQ(reactor->get_fd_count(), 2u); });
}

TEST(FdReactor, ReadBlockedDescriptorLeavesDataInTheKernel) {
    Running reactor;
    Pair pair;
    SocketFd fd(pair.client);
    reactor->add_fd(&fd);
    run_on(*reactor, [] {});  // added and in the epoll set
    fd.read_blocked = 1;
    reactor->set_blocking(&fd, false);  // empty interest
    ASSERT_EQ(Base::tcp_send(pair.server, "kept", 4, 1000, nullptr), 4);
    int pending = 0;
    ASSERT_TRUE(wait_until([&] {
        ioctl(pair.client, FIONREAD, &pending);
        return pending == 4;
    }));
    for (int i = 0; i < 3; i++) {
        Base::Measure::sleep(15);
        run_on(*reactor, [] {});
    }
    EXPECT_EQ(fd.reads.load(), 0);
    ioctl(pair.client, FIONREAD, &pending);
    EXPECT_EQ(pending, 4);

    fd.read_blocked = 0;
    reactor->set_blocking(&fd, false);
    ASSERT_TRUE(wait_on(*reactor, [&] { return fd.received == "kept"; }));
    // A descriptor without a kernel id is left alone by set_blocking.
    BusyFd none;
    reactor->set_blocking(&none, true);
    reactor->remove_fd(&fd);
}

void echo_events_and_timers(Mode mode, int busy_cpu = -1) {
    ModeScope scope(mode);
    Running reactor(busy_cpu);
    // Events from two threads, in order, on the reactor thread.
    struct Log : Parallel::Handler {
        Parallel::Reactor* reactor;
        std::vector<intptr_t> seen[2];
        bool off_thread = false;
        int fired = 0;
        int on_event(int id, void* data) override {
            if (!reactor->is_current()) off_thread = true;
            seen[id - 1001].push_back(reinterpret_cast<intptr_t>(data));
            return 0;
        }
        bool on_timer(int) override {
            fired += 1;
            return fired < 3;
        }
    } log;
    log.reactor = reactor.reactor.get();
    std::vector<std::thread> posters;
    for (int t = 0; t < 2; t++) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < 300; i++) {
                Base::Sign done(0);
                bool wait = i % 50 == 49;
                reactor->add_event(1001 + t, reinterpret_cast<void*>(intptr_t(i)), wait ? &done : nullptr,
                                   &log, false);
                if (wait) done.join();
            }
        });
    }
    for (auto& p : posters) p.join();
    Parallel::Timer* timer = reactor->add_timer(1, 500, true, &log, false);
    ASSERT_TRUE(wait_on(*reactor, [&] { return log.fired == 3; }));
    reactor->remove_timer(timer);
    EXPECT_FALSE(log.off_thread);
    for (auto& seen : log.seen) {
        ASSERT_EQ(seen.size(), 300u);
        for (int i = 0; i < 300; i++) EXPECT_EQ(seen[i], i);
    }

    // A socket round trip through the reactor.
    Pair pair;
    SocketFd fd(pair.client);
    fd.outgoing = "ping";
    reactor->add_fd(&fd);
    char got[4];
    ASSERT_EQ(Base::tcp_recv(pair.server, got, 4, 5000, nullptr), 4);
    EXPECT_EQ(std::string(got, 4), "ping");
    ASSERT_EQ(Base::tcp_send(pair.server, "pong", 4, 1000, nullptr), 4);
    ASSERT_TRUE(wait_on(*reactor, [&] { return fd.received == "pong"; }));
    reactor->remove_fd(&fd);
}

TEST(FdReactor, EventsTimersAndSocketsInEveryMode) {
    for (Mode mode : ALL_MODES) echo_events_and_timers(mode);
}

int first_allowed_cpu() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &allowed)) return cpu;
    return -1;
}

// The variable names a CPU this process may use, in plain decimal, or
// nothing: every other text leaves the napping reactor.
TEST(FdReactor, BusyPollCpuComesFromTheEnvironment) {
    const char* saved = getenv("QEL_BUSY_POLL");
    std::string keep = saved ? saved : "";
    int cpu = first_allowed_cpu();
    ASSERT_GE(cpu, 0);
    unsetenv("QEL_BUSY_POLL");
    EXPECT_EQ(Parallel::busy_poll_cpu(), -1);
    setenv("QEL_BUSY_POLL", std::to_string(cpu).c_str(), 1);
    EXPECT_EQ(Parallel::busy_poll_cpu(), cpu);
    for (const char* bad : {"", "-1", "x", "1x", " 1", "+1", "99999999999999999999", "100000"}) {
        setenv("QEL_BUSY_POLL", bad, 1);
        EXPECT_EQ(Parallel::busy_poll_cpu(), -1) << bad;
    }
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    for (int other = 0; other < 1024; other++)
        if (!CPU_ISSET(other, &allowed)) {
            setenv("QEL_BUSY_POLL", std::to_string(other).c_str(), 1);
            EXPECT_EQ(Parallel::busy_poll_cpu(), -1) << other;  // not ours to use
            break;
        }
    if (saved)
        setenv("QEL_BUSY_POLL", keep.c_str(), 1);
    else
        unsetenv("QEL_BUSY_POLL");
}

// A busy-polling reactor runs on the one CPU it was given, and serves
// events (posted with and without a sign), timers and sockets in every
// mode, as the napping one does; stopping it ends the loop.
TEST(FdReactor, BusyPollReactorIsPinnedAndServesEverything) {
    int cpu = first_allowed_cpu();
    ASSERT_GE(cpu, 0);
    {
        Running reactor(cpu);
        EXPECT_EQ(reactor->get_busy_poll(), cpu);
        int ran_on = -1, allowed_count = 0;
        run_on(*reactor, [&] {
            cpu_set_t mask;
            CPU_ZERO(&mask);
            pthread_getaffinity_np(pthread_self(), sizeof(mask), &mask);
            allowed_count = CPU_COUNT(&mask);
            ran_on = sched_getcpu();
        });
        EXPECT_EQ(allowed_count, 1);
        EXPECT_EQ(ran_on, cpu);
    }
    for (Mode mode : ALL_MODES) echo_events_and_timers(mode, cpu);
    Running napping(-7);
    EXPECT_EQ(napping->get_busy_poll(), -1);
}

// Reports nothing to send once its message is out.
class QuietFd : public Parallel::Fd {
public:
    std::atomic<long> writes{0};
    int write() override {
        writes.fetch_add(1);
        return Parallel::FD_EMPTY;
    }
};

TEST(FdReactor, EnhancedModeRetiresQuietNotifiedDescriptors) {
    ModeScope scope({true, false});
    Running reactor;
    QuietFd quiet;
    Parallel::FdNotify notify(reactor.reactor.get(), &quiet);
    EXPECT_EQ(quiet.notify_enabled.load(), 1);
    reactor->add_fd(&quiet);
    ASSERT_TRUE(wait_on(*reactor, [&] { return reactor->is_retired(&quiet); }));
    long writes = quiet.writes.load();
    notify.wakeup(true);  // event 23: back to the front
    ASSERT_TRUE(wait_until([&] { return quiet.writes.load() > writes; }));
    reactor->remove_fd(&quiet);
}

}  // namespace

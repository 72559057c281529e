// Fail-over: fronts that refuse, round robin, name servers that answer
// lines of addresses, garbage, or nothing; table limits.
#include <gtest/gtest.h>

#include <thread>

#include "tests/network/channel_helpers.h"

using namespace chtest;
using Network::QelcBondClientSession;

namespace {

const int FAST = 30000;  // microseconds: fens and connect periods in these tests

// A name server on 127.0.0.1: answers each connection with its text and
// closes, or (silent) holds the connection without a word.
class FensServer {
public:
    FensServer(std::string answer, bool silent) : answer(std::move(answer)), silent(silent) {
        thread = std::thread([this] { serve(); });
    }
    ~FensServer() {
        stop.store(true);
        thread.join();
        for (int fd : held) ::close(fd);
    }
    int port() const { return server.port; }
    std::atomic<int> asked{0};

private:
    void serve() {
        while (!stop.load()) {
            pollfd p{server.listen_fd, POLLIN, 0};
            if (poll(&p, 1, 10) != 1) continue;
            int fd = ::accept(server.listen_fd, nullptr, nullptr);
            if (fd < 0) continue;
            asked.fetch_add(1);
            if (silent) {
                held.push_back(fd);
                continue;
            }
            ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            ::close(fd);
        }
    }
    RawServer server;
    std::string answer;
    bool silent;
    std::vector<int> held;
    std::atomic<bool> stop{false};
    std::thread thread;
};

std::string uri(int port) { return "tcp://127.0.0.1:" + std::to_string(port); }

struct Bond {
    explicit Bond(Parallel::FdReactor* r) : reactor(r), owner(r) {
        run_on(reactor, [&] {
            bond = new QelcBondClientSession(reactor, &owner, &lines, 1);
            bond->set_periods(FAST, FAST);
        });
    }
    ~Bond() {
        run_on(reactor, [&] { delete bond; });
    }
    // The ports of the "connect failed" reports, in order.
    std::vector<int> failed_ports() {
        std::vector<int> ports;
        for (const std::string& line : lines.get()) {
            size_t at = line.find("connect failed [127.0.0.1] [");
            if (at != std::string::npos) ports.push_back(atoi(line.c_str() + at + 28));
        }
        return ports;
    }

    Parallel::FdReactor* reactor;
    Owner owner;
    Lines lines;
    QelcBondClientSession* bond = nullptr;
};

}  // namespace

// Refusing fronts are passed over in order until one accepts.
TEST(QelcBondClientSession, FailsOverToTheFrontThatAccepts) {
    Reactor reactor;
    Bond b(reactor.get());
    RawServer front;
    int a = refusing_port(), c = refusing_port();
    run_on(reactor.get(), [&] {
        EXPECT_TRUE(b.bond->open("127.0.0.1", a));
        EXPECT_TRUE(b.bond->open("127.0.0.1", c));
        EXPECT_TRUE(b.bond->open("127.0.0.1", front.port));
    });
    ASSERT_TRUE(front.accept_one());
    ASSERT_TRUE(wait_until([&] { return b.owner.connected.load() == 1; }));
    EXPECT_EQ(b.failed_ports(), (std::vector<int>{a, c}));
    EXPECT_EQ(b.owner.failed.load(), 2) << "the owner hears of each failure";
    int current = -1;
    run_on(reactor.get(), [&] {
        current = b.bond->get_current_index();
        EXPECT_EQ(b.bond->get_channel(), b.bond->get_child(2)->get_channel());
    });
    EXPECT_EQ(current, 2);
}

// Two refusing fronts and no name server: round robin for ever.
TEST(QelcBondClientSession, RoundRobinOverRefusingFronts) {
    Reactor reactor;
    Bond b(reactor.get());
    int a = refusing_port(), c = refusing_port();
    run_on(reactor.get(), [&] {
        b.bond->open("127.0.0.1", a);
        b.bond->open("127.0.0.1", c);
    });
    ASSERT_TRUE(wait_until([&] { return b.failed_ports().size() >= 6; }));
    std::vector<int> ports = b.failed_ports();
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(ports[i], i % 2 ? c : a) << i;
    EXPECT_EQ(b.owner.connected.load(), 0);
}

// Name servers: one answers garbage (and a port 0), one stays silent, one
// names only refusing fronts, and the last a front that accepts.
TEST(QelcBondClientSession, AsksNameServersInTurn) {
    Reactor reactor;
    Bond b(reactor.get());
    RawServer front;
    int r1 = refusing_port(), r2 = refusing_port(), r3 = refusing_port();
    FensServer garbage("hello\r\nnot an address\ntcp://127.0.0.1:0\n", false);
    FensServer silent("", true);
    FensServer refusing(uri(r1) + "\r\n" + uri(r2) + "\r\n", false);
    FensServer good(uri(r3) + "\n\n" + uri(front.port) + "\n", false);
    run_on(reactor.get(), [&] {
        EXPECT_TRUE(b.bond->register_fens("127.0.0.1", garbage.port()));
        EXPECT_TRUE(b.bond->register_fens("127.0.0.1", silent.port()));
        EXPECT_TRUE(b.bond->register_fens("127.0.0.1", refusing.port()));
        EXPECT_TRUE(b.bond->register_fens("127.0.0.1", good.port()));
    });
    ASSERT_TRUE(front.accept_one(20000));
    ASSERT_TRUE(wait_until([&] { return b.owner.connected.load() == 1; }));
    EXPECT_EQ(garbage.asked.load(), 1);
    EXPECT_EQ(silent.asked.load(), 1);
    EXPECT_EQ(refusing.asked.load(), 1);
    EXPECT_EQ(good.asked.load(), 1);
    EXPECT_EQ(b.failed_ports(), (std::vector<int>{r1, r2, r3}));
    EXPECT_EQ(b.lines.count("get address from fens"), 4);
    int current = -1;
    bool first_gone = false;
    run_on(reactor.get(), [&] {
        current = b.bond->get_current_index();
        // The refusing answer's fronts were thrown away with the used-up list.
        first_gone = b.bond->get_child(2) == nullptr;
    });
    EXPECT_EQ(current, 1);
    EXPECT_TRUE(first_gone);
}

// 256 places for fronts and for name servers; the 257th is refused.
TEST(QelcBondClientSession, TablesHold256) {
    Reactor reactor;
    Bond b(reactor.get());
    int r = refusing_port();
    run_on(reactor.get(), [&] {
        for (int i = 0; i < 256; ++i) ASSERT_TRUE(b.bond->open("127.0.0.1", r));
        EXPECT_FALSE(b.bond->open("127.0.0.1", r));
        for (int i = 0; i < 256; ++i) ASSERT_TRUE(b.bond->register_fens("127.0.0.1", r));
        EXPECT_FALSE(b.bond->register_fens("127.0.0.1", r));
    });
}

// Host names of 31 bytes fit a slot with their zero; longer ones, from a
// name server or from the caller, are refused whole, never cut or spilled
// into the next slot or the port table.
TEST(QelcBondClientSession, HostNamesFitTheirSlotOrAreRefused) {
    Reactor reactor;
    Bond b(reactor.get());
    RawServer front;
    std::string h31(31, 'a'), h32(32, 'b'), h100(100, 'c'), h200(200, 'd');
    FensServer fens(uri(front.port) + "\ntcp://" + h31 + ":7001\ntcp://" + h32 +
                        ":7002\ntcp://" + h100 + ":7003\ntcp://" + h200 + ":7004\ntcp://" + h31 +
                        ":7005\n",
                    false);
    run_on(reactor.get(), [&] {
        EXPECT_FALSE(b.bond->register_fens(h32.c_str(), 1));
        EXPECT_TRUE(b.bond->register_fens("127.0.0.1", fens.port()));
    });
    ASSERT_TRUE(front.accept_one(20000));
    ASSERT_TRUE(wait_until([&] { return b.owner.connected.load() == 1; }));
    run_on(reactor.get(), [&] {
        EXPECT_EQ(std::string(b.bond->get_front_host(1)), h31);
        EXPECT_EQ(b.bond->get_front_port(1), 7001);
        EXPECT_EQ(std::string(b.bond->get_front_host(2)), h31);
        EXPECT_EQ(b.bond->get_front_port(2), 7005);
        EXPECT_EQ(b.bond->get_child(3), nullptr);
        EXPECT_FALSE(b.bond->open(h32.c_str(), 7006));
        EXPECT_EQ(b.bond->get_child(3), nullptr);
    });
    EXPECT_EQ(b.lines.count("host name too long"), 2);
}

TEST(QelcBondServerSession, ListensOnUpTo256Addresses) {
    Reactor reactor;
    run_on(reactor.get(), [&] {
        Network::QelcBondServerSession server(reactor.get(), nullptr, nullptr, 1);
        for (int i = 0; i < 256; ++i) ASSERT_TRUE(server.open("127.0.0.1", 0));
        EXPECT_FALSE(server.open("127.0.0.1", 0));
        EXPECT_NE(server.get_listener(255), nullptr);
    });
}

#include "network/tcpsocket.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

// A listener on 127.0.0.1 with a port chosen by the kernel.
struct Listener {
    Base::TcpSocket socket;
    int port = 0;
    explicit Listener(int backlog = 16) {
        EXPECT_TRUE(socket.open() && socket.bind("127.0.0.1", 0) && socket.listen(backlog));
        port = socket.get_local_port();
    }
};

TEST(TcpSocket, ConnectsAcceptsAndKnowsBothEnds) {
    char text[] = "127.0.0.1:18001", bare[] = "127.0.0.1";
    int port = 7;
    EXPECT_EQ(Base::Socket::get_address_port(bare, port), nullptr);
    EXPECT_EQ(port, 7);
    ASSERT_EQ(Base::Socket::get_address_port(text, port), text);
    EXPECT_STREQ(text, "127.0.0.1");
    EXPECT_EQ(port, 18001);

    Listener listener;
    Base::TcpSocket client, server;
    ASSERT_TRUE(client.open());
    ASSERT_TRUE(client.try_connect("127.0.0.1", listener.port));
    bool connected = false;
    for (int i = 0; i < 2000 && !connected; i++)
        if (!(connected = client.check_connect())) usleep(1000);
    ASSERT_TRUE(connected);
    ASSERT_EQ(listener.socket.select_read(5000), 1);
    ASSERT_TRUE(server.open(listener.socket.accept()));
    EXPECT_EQ(server.get_remote_port(), client.get_local_port());
    EXPECT_EQ(client.get_remote_port(), listener.port);
    EXPECT_EQ(Base::TcpSocket::get_remote(client.get_fd(), text), listener.port);
    EXPECT_STREQ(text, "127.0.0.1");
    Base::TcpSocket blocking, unopened;
    EXPECT_TRUE(blocking.open() && blocking.connect("127.0.0.1", listener.port, 2000));
    EXPECT_FALSE(unopened.connect("127.0.0.1", listener.port, 100));
    EXPECT_FALSE(unopened.try_connect("127.0.0.1", listener.port));
    EXPECT_FALSE(unopened.check_connect());
}

TEST(TcpSocket, ConnectToClosedOrSilentPortsFails) {
    int port = Listener().port;
    EXPECT_EQ(Base::tcp_connect("127.0.0.1", port, 1000), -1);
    Base::TcpSocket client;
    ASSERT_TRUE(client.open());
    EXPECT_FALSE(client.connect("127.0.0.1", port, 1000));
    EXPECT_NE(client.get_fd(), 0);  // given back with its descriptor kept
    // A listener that never accepts, its queue full, drops further
    // handshakes: the connect can only end by its own time limit.
    Listener full(0);
    std::vector<int> held;
    for (int i = 0, fd = 0; i < 8 && fd >= 0; i++)
        if ((fd = Base::tcp_connect("127.0.0.1", full.port, 50)) >= 0) held.push_back(fd);
    EXPECT_LT(held.size(), 8u);
    for (int fd : held) close(fd);
}

TEST(TcpSocket, SendAndRecvWithBoundedWaits) {
    Listener listener;
    int client = Base::tcp_connect("127.0.0.1", listener.port, 2000);
    ASSERT_GT(client, 0);
    int server = listener.socket.accept();
    ASSERT_GT(server, 0);
    // A zero-size call touches nothing, even a bad descriptor.
    bool closed = true;
    EXPECT_EQ(Base::tcp_send(-1, "x", 0, 10, &closed), 0);
    EXPECT_FALSE(closed);
    char buffer[256];
    EXPECT_EQ(Base::tcp_recv(-1, buffer, 0, 10, nullptr), 0);
    // A silent peer: what has arrived is returned when the wait runs out.
    ASSERT_EQ(Base::tcp_send(client, "abc", 3, 1000, nullptr), 3);
    closed = true;
    EXPECT_EQ(Base::tcp_recv(server, buffer, sizeof(buffer), 50, &closed), 3);
    EXPECT_FALSE(closed);
    // A peer that sends 100 bytes and closes: 100, and closed.
    std::string hundred(100, 'q');
    for (int i = 0; i < 100; i++) hundred[size_t(i)] = char('a' + i % 26);
    std::thread peer([&] {
        Base::tcp_send(client, hundred.data(), 100, 1000, nullptr);
        close(client);
    });
    EXPECT_EQ(Base::tcp_recv(server, buffer, sizeof(buffer), 5000, &closed), 100);
    EXPECT_TRUE(closed);
    EXPECT_EQ(std::string(buffer, 100), hundred);
    peer.join();
    // Sending to a closed peer reports closed, and raises no SIGPIPE.
    std::vector<char> big(1 << 20, 'z');
    closed = false;
    for (int i = 0; i < 40 && !closed; i++) Base::tcp_send(server, big.data(), int(big.size()), 100, &closed);
    EXPECT_TRUE(closed);
    close(server);
}

}  // namespace

#include "network/tcpsocket.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// A listener on 127.0.0.1 with a port chosen by the kernel.
struct Listener {
    Base::TcpSocket socket;
    int port = 0;
    explicit Listener(int backlog = 16) {
        EXPECT_TRUE(socket.open());
        EXPECT_TRUE(socket.bind("127.0.0.1", 0));
        EXPECT_TRUE(socket.listen(backlog));
        port = socket.get_local_port();
    }
};

TEST(TcpSocket, SplitsAddressAndPort) {
    char text[] = "127.0.0.1:18001";
    int port = 0;
    char* host = Base::Socket::get_address_port(text, port);
    ASSERT_EQ(host, text);
    EXPECT_STREQ(host, "127.0.0.1");
    EXPECT_EQ(port, 18001);

    char bare[] = "127.0.0.1";
    port = 7;
    EXPECT_EQ(Base::Socket::get_address_port(bare, port), nullptr);
    EXPECT_STREQ(bare, "127.0.0.1");
    EXPECT_EQ(port, 7);
}

TEST(TcpSocket, ConnectsAcceptsAndKnowsBothEnds) {
    Listener listener;
    ASSERT_GT(listener.port, 0);
    EXPECT_STREQ(listener.socket.get_local_address(), "127.0.0.1");

    Base::TcpSocket client;
    ASSERT_TRUE(client.open());
    ASSERT_TRUE(client.connect("127.0.0.1", listener.port, 2000));
    EXPECT_EQ(client.get_remote_port(), listener.port);
    EXPECT_STREQ(client.get_remote_address(), "127.0.0.1");

    ASSERT_EQ(listener.socket.select_read(5000), 1);
    int accepted = listener.socket.accept();
    ASSERT_GT(accepted, 0);
    Base::TcpSocket server;
    ASSERT_TRUE(server.open(accepted));
    EXPECT_TRUE(server.is_adopted());
    EXPECT_EQ(server.get_remote_port(), client.get_local_port());
    EXPECT_EQ(server.get_local_port(), listener.port);

    char text[16];
    EXPECT_EQ(Base::TcpSocket::get_remote(client.get_fd(), text), listener.port);
    EXPECT_STREQ(text, "127.0.0.1");

    // The connected socket is blocking again, and bytes cross both ways.
    bool closed = true;
    EXPECT_EQ(Base::tcp_send(client.get_fd(), "ping", 4, 1000, &closed), 4);
    EXPECT_FALSE(closed);
    char buffer[8] = {};
    EXPECT_EQ(Base::tcp_recv(server.get_fd(), buffer, 4, 1000, &closed), 4);
    EXPECT_EQ(std::string(buffer, 4), "ping");

    // Nothing more is coming: the socket is not readable.
    EXPECT_EQ(server.select_read(0), 0);

    Base::TcpSocket adopted_none;
    EXPECT_TRUE(adopted_none.open(0));
    EXPECT_TRUE(adopted_none.is_adopted());
    EXPECT_EQ(adopted_none.get_fd(), 0);
    EXPECT_FALSE(Base::TcpSocket::connect(0, "127.0.0.1", listener.port, 100));
    Base::TcpSocket unopened;
    EXPECT_FALSE(unopened.connect("127.0.0.1", listener.port, 100));
    EXPECT_FALSE(unopened.try_connect("127.0.0.1", listener.port));
    EXPECT_FALSE(unopened.check_connect());
}

TEST(TcpSocket, TryConnectThenCheck) {
    Listener listener;
    Base::TcpSocket client;
    ASSERT_TRUE(client.open());
    ASSERT_TRUE(client.try_connect("127.0.0.1", listener.port));
    bool connected = false;
    for (int i = 0; i < 2000 && !connected; i++) {
        connected = client.check_connect();
        if (!connected) usleep(1000);
    }
    ASSERT_TRUE(connected);
    EXPECT_EQ(client.get_remote_port(), listener.port);
}

TEST(TcpSocket, ConnectToAClosedPortFails) {
    int port = 0;
    {
        Listener gone;
        port = gone.port;
    }
    EXPECT_EQ(Base::tcp_connect("127.0.0.1", port, 1000), -1);
    Base::TcpSocket client;
    ASSERT_TRUE(client.open());
    EXPECT_FALSE(client.connect("127.0.0.1", port, 1000));
    // The socket was given back blocking with its descriptor kept.
    EXPECT_NE(client.get_fd(), 0);
}

TEST(TcpSocket, ConnectToASilentListenerGivesUpAtItsBound) {
    // A listener that never accepts, with its queue full, drops further
    // handshakes: the connect can only end by its own time limit.
    Listener full(0);
    std::vector<int> held;
    int failed = 0;
    for (int i = 0; i < 8 && failed == 0; i++) {
        int fd = Base::tcp_connect("127.0.0.1", full.port, 50);
        if (fd < 0)
            failed = 1;
        else
            held.push_back(fd);
    }
    EXPECT_EQ(failed, 1);
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
    for (int i = 0; i < 100; i++) hundred[i] = char('a' + i % 26);
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
    int sent = 0;
    for (int i = 0; i < 20 && !closed; i++) sent += Base::tcp_send(server, big.data(), int(big.size()), 100, &closed);
    closed = false;
    for (int i = 0; i < 20 && !closed; i++) Base::tcp_send(server, big.data(), int(big.size()), 100, &closed);
    EXPECT_TRUE(closed);
    close(server);
}

}  // namespace

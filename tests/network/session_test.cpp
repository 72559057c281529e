// A server session and client sessions on their own reactors, over real
// sockets: flows cross whole and in order both ways, with compression and
// each cipher, through a peer that stops reading; lost clients are
// destroyed by the server; lost connections are tried again.
#include <gtest/gtest.h>

#include <thread>

#include "tests/network/channel_helpers.h"

using namespace chtest;
using Network::QelcClientSession;
using Network::QelcServerSession;

namespace {

// Parent of the server session: sets each accepted connection up and
// counts clients.
class ServerOwner : public Network::ServerSession {
public:
    explicit ServerOwner(Parallel::FdReactor* r) : Network::ServerSession(r, nullptr, nullptr) {}
    void on_client_created(Network::ClientSession* client) override {
        if (cipher) client->set_cipher(cipher, key);
        if (compress) static_cast<QelcClientSession*>(client)->enable_compress();
        last = static_cast<QelcClientSession*>(client);
        created.fetch_add(1);
    }
    void on_client_destroy(Network::ClientSession*) override { destroyed.fetch_add(1); }

    unsigned char cipher = 0;
    unsigned long key = 0;
    bool compress = false;
    QelcClientSession* last = nullptr;  // reactor thread only
    std::atomic<int> created{0};
    std::atomic<int> destroyed{0};
};

// Appends count packets of about body bytes to flow; the body depends on
// the packet's number.
void write_packets(Network::QelcFlow* flow, int count, int body, int salt) {
    Network::QelcFlow::Writer writer(flow, false);
    for (int i = 0; i < count; ++i) {
        Network::QelcPacket* packet = writer.alloc_packet(static_cast<unsigned short>(100 + i % 7), 0);
        int size = body / 2 + (i * 131 + salt) % (body / 2);
        char* field = packet->add_field(static_cast<unsigned short>(i), static_cast<unsigned short>(size));
        if (!field) {
            ADD_FAILURE() << "record of " << size << " bytes refused";
            return;
        }
        for (int k = 0; k < size; ++k) field[k] = (k / 5) % 2 ? static_cast<char>(i + k + salt) : '\0';
        writer.commit_packet(true);
    }
}

// Record by record equality without printing megabytes on failure.
void expect_same(Base::DataFlow* a, Base::DataFlow* b) {
    std::vector<std::string> x = records(a), y = records(b);
    ASSERT_EQ(x.size(), y.size());
    for (size_t i = 0; i < x.size(); ++i)
        if (x[i] != y[i]) {
            ADD_FAILURE() << "record " << i << " differs";
            return;
        }
}

struct Pair {
    Pair() : server_owner(server_reactor.get()), owner(client_reactor.get()) {
        run_on(server_reactor.get(), [&] {
            server = new QelcServerSession(server_reactor.get(), &server_owner, nullptr, 1);
            ASSERT_TRUE(server->open("127.0.0.1", 0));
        });
        port = server->get_channel()->get_socket()->get_local_port();
    }
    ~Pair() {
        run_on(client_reactor.get(), [&] { delete client; });
        run_on(server_reactor.get(), [&] { delete server; });
    }
    void connect(int factor = 1) {
        run_on(client_reactor.get(), [&] {
            client = new QelcClientSession(client_reactor.get(), &owner, nullptr, nullptr, factor);
            client->open("127.0.0.1", port);
        });
    }
    unsigned long server_pending() {
        unsigned long pending = 0;
        run_on(server_reactor.get(), [&] {
            if (server_owner.last) pending = server_owner.last->get_client_channel()->get_pending();
        });
        return pending;
    }

    Reactor server_reactor;
    Reactor client_reactor;
    ServerOwner server_owner;
    Owner owner;
    QelcServerSession* server = nullptr;
    QelcClientSession* client = nullptr;
    int port = 0;
};

}  // namespace

// Both directions, plain and compressed, under every cipher type.
TEST(QelcSessions, FlowsCrossWholeAndInOrder) {
    for (unsigned char type = 0; type <= 4; ++type) {
        for (bool compress : {false, true}) {
            SCOPED_TRACE(std::to_string(type) + (compress ? " compressed" : " plain"));
            Network::QelcFlow* down = make_flow(3);     // server to client
            Network::QelcFlow* got_down = make_flow(3);
            Network::QelcFlow* up = make_flow(1);       // client to server
            Network::QelcFlow* got_up = make_flow(1);
            {
                Pair pair;
                const unsigned long key = 0x1020304050607080UL ^ type;
                pair.server_owner.cipher = type;
                pair.server_owner.key = key;
                pair.server_owner.compress = compress;
                run_on(pair.server_reactor.get(), [&] {
                    pair.server->publish(down);
                    pair.server->subscribe(got_up);
                });
                pair.owner.on_connect = [&] {
                    pair.client->subscribe(got_down, nullptr, 0, false);
                    pair.client->publish(up, 0, nullptr, nullptr, nullptr);
                    if (compress) pair.client->enable_compress();
                    if (type) pair.client->set_cipher(type, key);
                };
                pair.connect(2);
                ASSERT_TRUE(wait_until([&] { return pair.server_owner.created.load() == 1; }));
                std::thread writer([&] { write_packets(down, 200, 1800, type); });
                write_packets(up, 150, 900, type + 50);
                writer.join();
                ASSERT_TRUE(wait_until([&] { return got_down->get_count() == 200 && got_up->get_count() == 150; }));
                expect_same(down, got_down);
                expect_same(up, got_up);
                EXPECT_TRUE(pair.owner.get_reasons().empty());
            }
            delete down;
            delete got_down;
            delete up;
            delete got_up;
        }
    }
}

// A client that stops reading: the server's sends would block, the rest
// waits in its write buffer, and once reading resumes nothing is lost.
TEST(QelcSessions, PeerThatStopsReadingLosesNothing) {
    Network::QelcFlow* down = make_flow(3);
    Network::QelcFlow* got_down = make_flow(3);
    {
        Pair pair;
        run_on(pair.server_reactor.get(), [&] { pair.server->publish(down); });
        pair.owner.on_connect = [&] {
            pair.client->subscribe(got_down, nullptr, 0, false);
            pair.client->set_read_blocking(true);
        };
        pair.connect();
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.created.load() == 1; }));
        std::thread writer([&] { write_packets(down, 8000, 3000, 7); });
        EXPECT_TRUE(wait_until([&] { return pair.server_pending() > 0; }))
            << "the peer's buffers never filled";
        writer.join();
        EXPECT_LT(got_down->get_count(), 8000u);
        run_on(pair.client_reactor.get(), [&] { pair.client->set_read_blocking(false); });
        ASSERT_TRUE(wait_until([&] { return got_down->get_count() == 8000; }));
        expect_same(down, got_down);
        EXPECT_TRUE(pair.owner.get_reasons().empty());
    }
    delete down;
    delete got_down;
}

// A dropped client is destroyed through event 1012 on the server; flows
// published after a client came reach only later clients.
TEST(QelcSessions, ServerDestroysLostClientsAndBindsLaterFlowsToLaterClients) {
    Network::QelcFlow* early = make_flow(3);
    Network::QelcFlow* late = make_flow(5);
    Network::QelcFlow* early1 = make_flow(3);
    Network::QelcFlow* late1 = make_flow(5);
    Network::QelcFlow* late2 = make_flow(5);
    Network::QelcFlow* early2 = make_flow(3);
    {
        Pair pair;
        run_on(pair.server_reactor.get(), [&] { pair.server->publish(early); });
        pair.owner.on_connect = [&] {
            pair.client->subscribe(early1, nullptr, 0, false);
            pair.client->subscribe(late1, nullptr, 0, false);
        };
        pair.connect();
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.created.load() == 1; }));
        run_on(pair.server_reactor.get(), [&] { pair.server->publish(late); });

        Owner owner2(pair.client_reactor.get());
        QelcClientSession* client2 = nullptr;
        owner2.on_connect = [&] {
            client2->subscribe(early2, nullptr, 0, false);
            client2->subscribe(late2, nullptr, 0, false);
        };
        run_on(pair.client_reactor.get(), [&] {
            client2 = new QelcClientSession(pair.client_reactor.get(), &owner2, nullptr, nullptr, 1);
            client2->open("127.0.0.1", pair.port);
        });
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.created.load() == 2; }));
        write_packets(early, 10, 100, 1);
        write_packets(late, 20, 100, 2);
        ASSERT_TRUE(wait_until([&] { return late2->get_count() == 20 && early1->get_count() == 10; }));
        expect_same(late, late2);
        ASSERT_TRUE(wait_until([&] { return early2->get_count() == 10; }));
        EXPECT_EQ(late1->get_count(), 0u);
        unsigned long clients = 0;
        run_on(pair.server_reactor.get(), [&] { clients = pair.server->get_client_count(); });
        EXPECT_EQ(clients, 2u);

        // Both clients go; the server destroys each on its own event.
        run_on(pair.client_reactor.get(), [&] {
            client2->close(0);
            pair.client->close(0);
        });
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.destroyed.load() == 2; }));
        run_on(pair.server_reactor.get(), [&] { clients = pair.server->get_client_count(); });
        EXPECT_EQ(clients, 0u);
        EXPECT_EQ(owner2.get_reasons(), std::vector<int>{0});
        run_on(pair.client_reactor.get(), [&] { delete client2; });
    }
    for (Network::QelcFlow* f : {early, late, early1, late1, late2, early2}) delete f;
}

// A connection that ends just after data came is tried again at the same
// address after the connect period; a deliberate close is not.
TEST(QelcSessions, ReconnectsAfterLossButNotAfterClose) {
    Reactor reactor;
    Owner owner(reactor.get());
    RawServer server;
    QelcClientSession* session = nullptr;
    run_on(reactor.get(), [&] {
        session = new QelcClientSession(reactor.get(), &owner, nullptr, nullptr, 1);
        session->set_periods(1000000, 50000, 1000000);
        session->open("127.0.0.1", server.port);
    });
    ASSERT_TRUE(server.accept_one());
    ASSERT_TRUE(wait_until([&] { return owner.connected.load() == 1; }));
    server.send(std::string("\x00\x02\x00\x00\x05\x00", 6));
    Base::Measure::sleep(20);
    server.shutdown_write();
    ASSERT_TRUE(server.accept_one());
    ASSERT_TRUE(wait_until([&] { return owner.connected.load() == 2; }));
    EXPECT_EQ(owner.get_reasons(), std::vector<int>{-11});
    EXPECT_EQ(owner.failed.load(), 0);
    run_on(reactor.get(), [&] { session->close(0); });
    EXPECT_EQ(owner.get_reasons(), (std::vector<int>{-11, 0}));
    EXPECT_FALSE(server.accept_one(300)) << "a deliberate close is final";
    run_on(reactor.get(), [&] { delete session; });
}

// A descriptor accepted elsewhere is handed over with event 1011 and served
// like any other client.
TEST(QelcSessions, AcceptedDescriptorHandedOverByEvent) {
    Network::QelcFlow* down = make_flow(3);
    {
        Pair pair;
        run_on(pair.server_reactor.get(), [&] { pair.server->publish(down); });
        RawServer elsewhere;
        int peer = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(uint16_t(elsewhere.port));
        ASSERT_EQ(0, ::connect(peer, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
        ASSERT_TRUE(elsewhere.accept_one());
        int fd = elsewhere.conn;
        elsewhere.conn = -1;  // the server session owns it now
        pair.server->on_accepted(fd);  // from this thread: posted, run by the reactor
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.created.load() == 1; }));
        write_packets(down, 3, 50, 1);
        std::vector<std::string> expected = records(down);
        std::string want;
        for (const std::string& r : expected) want += r;
        RawServer::Reader reader{peer};
        std::string got = reader.read_frames(want.size());
        EXPECT_TRUE(got == want);
        ::close(peer);
        ASSERT_TRUE(wait_until([&] { return pair.server_owner.destroyed.load() == 1; }));
    }
    delete down;
}

// A session freed on the reactor thread with events still queued for it and
// for others: the destructor runs none of them (another handler's event
// could free what the caller still stands on), and the session's own are
// dropped, never run on freed memory (ASan).
TEST(QelcSessions, DestructorRunsNoQueuedEvent) {
    Reactor reactor;
    std::atomic<int> ran{0};
    Call other;
    other.fn = [&] { ran.fetch_add(1); };
    run_on(reactor.get(), [&] {
        auto* session = new QelcClientSession(reactor.get(), nullptr, nullptr, nullptr, 1);
        reactor->add_event(1001, nullptr, nullptr, &other, true);
        reactor->add_event(Network::EVENT_RECHECK, nullptr, nullptr, session, true);
        delete session;
        EXPECT_EQ(ran.load(), 0) << "the destructor ran another handler's event";
    });
    ASSERT_TRUE(wait_until([&] { return ran.load() == 1; }));
}

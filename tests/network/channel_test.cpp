// The client channel against a raw peer on a real socket: framing, control
// frames, decompression, deciphering, routing, and every disconnect reason
// that a peer's bytes can cause.
#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include <algorithm>
#include <thread>

#include "tests/network/channel_helpers.h"

using namespace chtest;
using Network::QelcClientSession;

namespace {

const int LONG_PERIOD = 60000000;  // keeps the connect timer from retrying in a test

// One client session under an owner, connected to a raw server.
struct Link {
    explicit Link(Parallel::FdReactor* r, Base::DataFlow* log = nullptr, int factor = 1)
        : reactor(r), owner(r) {
        run_on(reactor, [&] {
            session = new QelcClientSession(reactor, &owner, nullptr, log, factor);
            session->set_periods(QelcClientSession::HEARTBEAT_PERIOD, LONG_PERIOD,
                                 QelcClientSession::BUFFER_PERIOD);
        });
    }
    ~Link() {
        run_on(reactor, [&] { delete session; });
    }
    bool open() {
        run_on(reactor, [&] { session->open("127.0.0.1", server.port); });
        return server.accept_one() && wait_until([&] { return owner.connected.load() > 0; });
    }
    Network::QelcClientChannel* channel() { return session->get_client_channel(); }
    // Read on the reactor thread, where it is written.
    unsigned int heartbeat_timeout() {
        unsigned int t = 0;
        run_on(reactor, [&] { t = session->get_heartbeat_timeout(); });
        return t;
    }
    // Waits for the reason and checks it came alone.
    void expect_reason(int reason) {
        EXPECT_TRUE(wait_until([&] { return !owner.get_reasons().empty(); }));
        std::vector<int> got = owner.get_reasons();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0], reason);
        run_on(reactor, [] {});  // the close has returned before flows go
    }

    Parallel::FdReactor* reactor;
    Owner owner;
    RawServer server;
    QelcClientSession* session = nullptr;
};

bool refuse_odd(Base::DataFlow*, char* frame, unsigned short&) {
    return (Base::get_be32(frame + 14) & 1) == 0;
}

}  // namespace

// Frames sent whole, split at every byte, and many to a write arrive whole
// and in order, plain, compressed and under each cipher.
TEST(QelcClientChannel, FramesArriveWholeAndInOrder) {
    Reactor reactor;
    for (int type = 0; type <= 4; ++type) {
        for (bool compressed : {false, true}) {
            Link link(reactor.get());
            Network::QelcFlow* flow3 = make_flow(3);
            Network::QelcFlow* flow1 = make_flow(1);
            link.owner.on_connect = [&] {
                link.session->subscribe(flow3, nullptr, 0, false);
                link.session->subscribe(flow1, nullptr, 0, false);
            };
            ASSERT_TRUE(link.open());
            Network::ChannelCipher cipher;
            const unsigned long key = 0x5a5a0102a5a50304UL + unsigned(type);
            if (type) {
                run_on(reactor.get(), [&] { link.session->set_cipher(static_cast<unsigned char>(type), key); });
                cipher.set(static_cast<unsigned char>(type), key);
            }
            std::vector<std::string> expected;
            std::string wire;
            auto frame = [&](unsigned short subject, unsigned long seq, int body, int salt) {
                std::string f = data_frame(subject, seq, body, salt);
                expected.push_back(f);
                std::string w = compressed ? compress_frame(f) : f;
                return type ? encipher_frame(w, cipher) : w;
            };
            // Heartbeats and unknown control items between the frames.
            const std::string heartbeat("\x00\x02\x00\x00\x05\x00", 6);
            const std::string unknown("\x00\x03\x00\x00\x09\x01\x7f", 7);
            std::string split = frame(3, 1, 300, 1);
            for (char c : heartbeat + split) link.server.send(std::string(1, c));
            for (int i = 2; i <= 60; ++i) {
                wire += frame(3, i, (i * 37) % 900, i);
                if (i % 5 == 0) wire += heartbeat + unknown;
            }
            link.server.send(wire);
            // Replies (subject 1) are never sequence-checked.
            std::string replies = frame(1, 77, 10, 5);
            replies += frame(1, 3, 4000, 6);
            link.server.send(replies.substr(0, 100));
            Base::Measure::sleep(5);
            link.server.send(replies.substr(100));
            ASSERT_TRUE(wait_until([&] { return flow3->get_count() == 60 && flow1->get_count() == 2; }))
                << "type " << type << " compressed " << compressed;
            std::vector<std::string> got3 = records(flow3), got1 = records(flow1);
            for (int i = 0; i < 60; ++i) EXPECT_TRUE(got3[size_t(i)] == expected[size_t(i)]) << i;
            EXPECT_TRUE(got1[0] == expected[60]);
            EXPECT_TRUE(got1[1] == expected[61]);
            EXPECT_TRUE(link.owner.get_reasons().empty());
            run_on(reactor.get(), [&] { link.session->close(0); });
            EXPECT_EQ(link.owner.get_reasons(), std::vector<int>{0});
            delete flow3;
            delete flow1;
        }
    }
}

// Routing rules: subjects 0 and 4 fall back on subject 1, subject 5 on
// subject 2 with subject 2's sequence; a blocked subscription drops.
TEST(QelcClientChannel, RoutesByFallbackSubjects) {
    Reactor reactor;
    Link link(reactor.get());
    Network::QelcFlow* flow1 = make_flow(1);
    Network::QelcFlow* flow2 = make_flow(2);
    link.owner.on_connect = [&] {
        link.session->subscribe(flow1, nullptr, 0, false);
        link.session->subscribe(flow2, nullptr, 0, false);
    };
    ASSERT_TRUE(link.open());
    link.server.send(data_frame(0, 9, 3, 1) + data_frame(4, 9, 3, 2) + data_frame(2, 1, 8, 3) +
                     data_frame(5, 2, 8, 4) + data_frame(2, 3, 8, 5));
    ASSERT_TRUE(wait_until([&] { return flow1->get_count() == 2 && flow2->get_count() == 3; }));
    EXPECT_TRUE(records(flow2)[1] == data_frame(5, 2, 8, 4));
    EXPECT_TRUE(link.owner.get_reasons().empty());
    run_on(reactor.get(), [&] { link.session->close(0); });
    delete flow1;
    delete flow2;
}

// Each fault in a peer's bytes ends the connection with its own reason; one
// test per reason, so that a fault of one check shows as its own failure.
struct Fault {
    const char* name;
    std::string bytes;
};

// Sends a good frame and then each fault on a fresh connection subscribed
// to subjects 3 and 6 (6 refuses odd sequence numbers): the connection
// closes with reason alone, and the good frame is kept.
void expect_faults_close_with(int reason, const std::vector<Fault>& faults) {
    Reactor reactor;
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        Link link(reactor.get());
        Network::QelcFlow* flow3 = make_flow(3);
        Network::QelcFlow* flow6 = make_flow(6);
        link.owner.on_connect = [&] {
            link.session->subscribe(flow3, nullptr, 0, false);
            link.session->subscribe(flow6, refuse_odd, 0, false);
        };
        ASSERT_TRUE(link.open());
        link.server.send(data_frame(3, 1, 5, 9) + fault.bytes);
        link.expect_reason(reason);
        EXPECT_EQ(flow3->get_count(), 1u);
        bool valid = true;
        run_on(reactor.get(), [&] { valid = link.channel()->is_valid(); });
        EXPECT_FALSE(valid);
        delete flow3;
        delete flow6;
    }
}

std::string changed(std::string frame, size_t at, char value) {
    frame[at] = value;
    return frame;
}

TEST(QelcClientChannel, MalformedHeadersCloseWithReadFailed) {
    std::string good = data_frame(3, 1, 10, 1);
    expect_faults_close_with(Network::REASON_READ_FAILED,
                             {{"control ExtLength 1", std::string("\x00\x01\x00\x00\x00\x00", 6)},
                              {"control Type 5", std::string("\x05\x02\x00\x00\x05\x00", 6)},
                              {"control ExtLength 128", std::string("\x00\x80\x00\x00\x00\x00", 6)},
                              {"data Type 3", changed(good, 0, 3)},
                              {"data ExtLength 1", changed(good, 1, 1)},
                              {"Crp version 2", changed(good, 4, 2)},
                              {"Crp method 1", changed(good, 5, 1)}});
}

TEST(QelcClientChannel, BadLengthsCloseWithLength) {
    std::string body_mismatch = data_frame(3, 1, 10, 1);
    Base::put_be16(&body_mismatch[20], 11);
    std::string packed = compress_frame(data_frame(3, 1, 40, 1));
    packed[packed.size() - 1] = '\x01';
    packed += std::string(3, '\x01');
    Base::put_be16(&packed[2], static_cast<uint16_t>(packed.size() - 4));
    expect_faults_close_with(Network::REASON_LENGTH,
                             {{"length over 8194", std::string("\x02\x00\x20\x00\x01\x00", 6)},
                              {"length 1", std::string("\x02\x00\x00\x01\x01\x00", 6)},
                              {"BodyLength mismatch", body_mismatch},
                              {"plain frame too short for its header",
                               std::string("\x02\x00\x00\x04\x01\x00\x00\x00", 8)},
                              {"compressed size mismatch", packed},
                              {"compressed lone escape", std::string("\x02\x00\x00\x03\x01\x03\xe0", 7)}});
}

TEST(QelcClientChannel, SequenceGapClosesWithSequence) {
    expect_faults_close_with(Network::REASON_SEQUENCE,
                             {{"gap", data_frame(3, 3, 10, 1)}, {"repeat", data_frame(3, 1, 10, 2)}});
}

TEST(QelcClientChannel, UnsubscribedSubjectClosesWithNoSubscription) {
    expect_faults_close_with(Network::REASON_NO_SUBSCRIPTION, {{"subject 9", data_frame(9, 1, 10, 1)}});
}

TEST(QelcClientChannel, RefusedFrameClosesWithFilter) {
    expect_faults_close_with(Network::REASON_FILTER, {{"odd sequence", data_frame(6, 1, 10, 1)}});
}

TEST(QelcClientChannel, PeerCloseClosesWithPeerClosed) {
    Reactor reactor;
    Link link(reactor.get());
    ASSERT_TRUE(link.open());
    link.server.shutdown_write();
    link.expect_reason(Network::REASON_PEER_CLOSED);
}

// A tag-7 frame sets the heartbeat timeout; the session takes it over,
// echoes it, and heartbeats follow at the derived interval.
TEST(QelcClientChannel, HeartbeatIntervalAnnouncement) {
    Reactor reactor;
    Link link(reactor.get());
    run_on(reactor.get(), [&] { link.session->set_periods(20000, LONG_PERIOD, 1000000); });
    ASSERT_TRUE(link.open());
    const std::string heartbeat("\x00\x02\x00\x00\x05\x00", 6);
    // The first heartbeat goes out at once on connecting.
    EXPECT_EQ(link.server.recv_for(3000, 6), heartbeat);
    // 100 seconds is held to 60 x 3 + 1.
    link.server.send(std::string("\x00\x06\x00\x00\x07\x04\x00\x00\x00\x64", 10));
    ASSERT_TRUE(wait_until([&] { return link.heartbeat_timeout() == 181; }));
    unsigned long limit = 0;
    run_on(reactor.get(), [&] { limit = link.session->get_idle_limit(); });
    EXPECT_EQ(limit, 184 * QelcClientSession::CLOCK_SECOND);
    EXPECT_EQ(link.server.recv_for(3000, 10), std::string("\x00\x06\x00\x00\x07\x04\x00\x00\x00\x3c", 10));
    // 0 gives 4 s: a heartbeat every second; echoed as 1.
    link.server.send(std::string("\x00\x06\x00\x00\x07\x04\x00\x00\x00\x00", 10));
    ASSERT_TRUE(wait_until([&] { return link.heartbeat_timeout() == 4; }));
    std::string got = link.server.recv_for(3500, 10 + 6 * 3);
    EXPECT_EQ(got.substr(0, 10), std::string("\x00\x06\x00\x00\x07\x04\x00\x00\x00\x01", 10));
    EXPECT_EQ(got.substr(10), heartbeat + heartbeat + heartbeat);
    EXPECT_TRUE(link.owner.get_reasons().empty());
}

// Silence past the idle limit closes with -14 (the least limit is 4 s).
TEST(QelcClientChannel, SilenceCloses) {
    Reactor reactor;
    Link link(reactor.get());
    run_on(reactor.get(), [&] {
        link.session->set_periods(50000, LONG_PERIOD, 1000000);
        link.session->set_timeout(1);
    });
    EXPECT_EQ(link.session->get_idle_limit(), 4 * QelcClientSession::CLOCK_SECOND);
    ASSERT_TRUE(link.open());
    link.expect_reason(-14);
    // Silence hands the choice to the parent.
    EXPECT_TRUE(wait_until([&] { return link.owner.failed.load() == 1; }));
}

// A subscription over its buffer limit drops frames; once the flow has
// drained the connection closes with -15 so that the peer replays the gap.
TEST(QelcClientChannel, BlockedSubscriptionClosesWhenDrained) {
    Reactor reactor;
    Lines lines;
    Owner owner(reactor.get());
    RawServer server;
    QelcClientSession* session = nullptr;
    Network::QelcFlow* flow3 = make_flow(3);
    run_on(reactor.get(), [&] {
        session = new QelcClientSession(reactor.get(), &owner, &lines, nullptr, 1);
        session->set_periods(1000000, LONG_PERIOD, 20000);
    });
    owner.on_connect = [&] { session->subscribe(flow3, nullptr, 1, false); };
    run_on(reactor.get(), [&] { session->open("127.0.0.1", server.port); });
    ASSERT_TRUE(server.accept_one());
    server.send(data_frame(3, 1, 5, 1) + data_frame(3, 2, 5, 2) + data_frame(3, 3, 5, 3));
    ASSERT_TRUE(wait_until([&] { return lines.count("buffer blocking -> ON!") == 1; }));
    server.send(data_frame(3, 4, 5, 4));  // dropped silently
    Base::Measure::sleep(50);
    EXPECT_EQ(flow3->get_count(), 3u);
    EXPECT_TRUE(owner.get_reasons().empty());
    run_on(reactor.get(), [&] { flow3->clear(0); });
    ASSERT_TRUE(wait_until([&] { return !owner.get_reasons().empty(); }));
    EXPECT_EQ(owner.get_reasons(), std::vector<int>{-15});
    EXPECT_EQ(lines.count("buffer blocking -> OFF! flow_subject=[0x0003]"), 1);
    run_on(reactor.get(), [&] { delete session; });
    delete flow3;
}

// The trace: connect, bytes in and out as on the socket, cipher, close.
TEST(QelcClientChannel, TraceRecordsWhatCrossesTheSocket) {
    Reactor reactor;
    Network::QelcFlow* log = make_flow(0x7777);
    Link link(reactor.get(), log);
    Network::QelcFlow* flow3 = make_flow(3);
    link.owner.on_connect = [&] { link.session->subscribe(flow3, nullptr, 0, false); };
    ASSERT_TRUE(link.open());
    const unsigned long key = 0x0102030405060708UL;
    run_on(reactor.get(), [&] { link.session->set_cipher(1, key); });
    Network::ChannelCipher cipher;
    cipher.set(1, key);
    std::string wire = encipher_frame(data_frame(3, 1, 20, 1), cipher);
    link.server.send(wire);
    ASSERT_TRUE(wait_until([&] { return flow3->get_count() == 1; }));
    EXPECT_TRUE(records(flow3)[0] == data_frame(3, 1, 20, 1));
    link.server.shutdown_write();
    link.expect_reason(-11);
    std::vector<std::string> trace = records(log);
    std::vector<int> kinds;
    for (const std::string& r : trace) {
        ASSERT_GE(r.size(), 16u);
        EXPECT_EQ(Base::get_be16(r.data() + 10), r.size() - 16);
        kinds.push_back(Base::get_be16(r.data() + 8));
        int kind = kinds.back();
        if (kind == 0) {
            EXPECT_EQ(std::string(r.data() + 16), "127.0.0.1");
        }
        if (kind == 1) {
            EXPECT_TRUE(r.substr(16) == wire);
        }
        if (kind == 8) {
            EXPECT_EQ(r[16], 1);
            EXPECT_EQ(0, memcmp(r.data() + 17, &key, 8));
        }
    }
    // Heartbeats go out (kind 2) and may fall anywhere; the rest in order.
    std::vector<int> order;
    for (int k : kinds)
        if (k != 2) order.push_back(k);
    EXPECT_EQ(order, (std::vector<int>{0, 8, 1, 6, 5}));
    EXPECT_NE(std::find(kinds.begin(), kinds.end(), 2), kinds.end());
    delete flow3;
    run_on(reactor.get(), [&] { delete link.session; link.session = nullptr; });
    delete log;
}

// A read larger than a trace record can say (a big buffer factor, bytes
// piled up while reading was held) is traced whole, in records that each
// tell their true length.
TEST(QelcClientChannel, TraceOfALargeReadTellsEveryByte) {
    Reactor reactor;
    Network::QelcFlow* log = make_flow(0x7777);
    Link link(reactor.get(), log, 32);
    Network::QelcFlow* flow3 = make_flow(3);
    link.owner.on_connect = [&] { link.session->subscribe(flow3, nullptr, 0, false); };
    ASSERT_TRUE(link.open());
    run_on(reactor.get(), [&] { link.session->set_read_blocking(true); });
    std::string wire;
    for (int i = 1; i <= 60; i++) wire += data_frame(3, i, 3000, i);
    std::atomic<bool> sent{false};
    std::thread sender([&] {
        link.server.send(wire);
        sent.store(true);
    });
    int fd = 0;
    run_on(reactor.get(), [&] { fd = link.channel()->get_id(); });
    ASSERT_TRUE(wait_until([&] {
        int queued = 0;
        ioctl(fd, FIONREAD, &queued);
        return queued > 70000 || sent.load();
    }));
    run_on(reactor.get(), [&] { link.session->set_read_blocking(false); });
    sender.join();
    ASSERT_TRUE(wait_until([&] { return flow3->get_count() == 60; }));
    std::string traced;
    bool large = false;
    run_on(reactor.get(), [&] {
        for (const std::string& r : records(log)) {
            if (Base::get_be16(r.data() + 8) != 1) continue;
            EXPECT_EQ(Base::get_be16(r.data() + 10), r.size() - 16);
            large = large || r.size() == 65535;
            traced += r.substr(16);
        }
    });
    EXPECT_TRUE(traced == wire) << traced.size() << " of " << wire.size();
    EXPECT_TRUE(large) << "no read was larger than a trace record";
    delete flow3;
    run_on(reactor.get(), [&] { delete link.session; link.session = nullptr; });
    delete log;
}

// What goes on the wire: control frames plain; data frames compressed only
// when that makes them smaller, then enciphered per frame from the IV.
TEST(QelcClientChannel, WireFormOfSentFrames) {
    Reactor reactor;
    for (unsigned char type : {0, 3}) {
        Link link(reactor.get());
        Network::QelcFlow* requests = make_flow(1);
        const unsigned long key = 0x99aabbccddeeff00UL;
        link.owner.on_connect = [&] {
            link.session->publish(requests, 0, nullptr, nullptr, nullptr);
            link.session->enable_compress();
            if (type) link.session->set_cipher(type, key);
        };
        ASSERT_TRUE(link.open());
        const std::string heartbeat("\x00\x02\x00\x00\x05\x00", 6);
        ASSERT_EQ(link.server.recv_for(3000, 6), heartbeat);
        // Frames 0 and 2 compress; frame 1 (escaped bytes cost two) does not.
        std::vector<std::string> sent;
        for (int i = 0; i < 3; ++i) {
            std::string f = data_frame(1, unsigned(i + 1), 500, i);
            if (i == 1)
                for (size_t k = 26; k < f.size(); ++k) f[k] = static_cast<char>(0xe0 + k % 16);
            sent.push_back(f);
        }
        run_on(reactor.get(), [&] {
            Network::QelcFlow::Writer writer(requests, false);
            for (const std::string& f : sent)
                writer.add_packet(reinterpret_cast<const Network::XmpPacket::Header*>(f.data()), false, true);
        });
        Network::ChannelCipher cipher;
        cipher.set(type, key);
        std::string wire;
        size_t at = 0;
        for (int i = 0; i < 3; ++i) {
            while (wire.size() < at + 4) wire += link.server.recv_for(50);
            size_t size = Base::get_be16(wire.data() + at + 2) + 4u;
            while (wire.size() < at + size) wire += link.server.recv_for(50);
            std::string frame = wire.substr(at, size);
            at += size;
            if (frame[0] == 0) {  // a heartbeat may come between
                --i;
                continue;
            }
            std::string clear = frame;
            cipher.decode(reinterpret_cast<unsigned char*>(&clear[4]),
                          reinterpret_cast<const unsigned char*>(frame.data() + 4), int(size) - 4);
            if (type) {
                EXPECT_NE(clear, frame);
            }
            EXPECT_EQ(clear[4], 1);
            EXPECT_EQ(int(clear[5]), i == 1 ? 0 : 3) << i;
            std::string plain = clear;
            if (clear[5] == 3) {
                std::string out(8200, '\0');
                int n = 8194;
                ASSERT_EQ(0, Network::CrpPacket::decode_zero(reinterpret_cast<unsigned char*>(&out[6]), n,
                                                             reinterpret_cast<const unsigned char*>(clear.data() + 6),
                                                             int(clear.size()) - 6));
                plain = clear.substr(0, 6) + out.substr(6, size_t(n));
                Base::put_be16(&plain[2], static_cast<uint16_t>(n + 2));
                plain[5] = 0;
                EXPECT_LT(clear.size(), plain.size());
            }
            EXPECT_TRUE(plain == sent[size_t(i)]) << i;
        }
        run_on(reactor.get(), [&] { link.session->close(0); });
        delete requests;
    }
}

// Whatever bytes a peer sends, the channel ends with one of its reasons:
// valid frames with random bytes changed, compressed or not, in clear or
// enciphered, then the peer's orderly close.
TEST(QelcClientChannel, SurvivesMangledStreams) {
    Reactor reactor;
    unsigned int seed = 12345;
    auto next = [&] {
        seed = seed * 1103515245u + 12345u;
        return seed >> 8;
    };
    const std::vector<int> known = {-11, -12, -16, -17, -19, -22, -24};
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        Link link(reactor.get());
        Network::QelcFlow* flow3 = make_flow(3);
        const unsigned char type = round % 3 == 0 ? 3 : 0;
        link.owner.on_connect = [&] {
            link.session->subscribe(flow3, nullptr, 0, false);
            if (type) link.session->set_cipher(type, 77);
        };
        ASSERT_TRUE(link.open());
        Network::ChannelCipher cipher;
        cipher.set(type, 77);
        std::string wire;
        for (int i = 1; i <= 8; ++i) {
            std::string f = data_frame(3, unsigned(i), int(next() % 600), i);
            if (next() % 2) f = compress_frame(f);
            wire += type ? encipher_frame(f, cipher) : f;
        }
        for (int flips = 1 + int(next() % 6); flips > 0; --flips)
            wire[next() % wire.size()] = static_cast<char>(next());
        for (size_t at = 0; at < wire.size();) {
            size_t piece = 1 + next() % 700;
            link.server.send(wire.substr(at, piece));
            at += piece;
        }
        link.server.shutdown_write();
        ASSERT_TRUE(wait_until([&] { return !link.owner.get_reasons().empty(); }));
        int reason = link.owner.get_reasons()[0];
        EXPECT_NE(std::find(known.begin(), known.end(), reason), known.end()) << reason;
        run_on(reactor.get(), [] {});
        delete flow3;
    }
}

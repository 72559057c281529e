// A small trader for the front's tests, made of the client-side session
// classes: it exchanges keys in the form the front offers, sends the
// request packets a trader sends, follows IntlRtnDissemination onto the
// topic flows, and records every packet that comes back.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/strings.h"
#include "cipher/sm2.h"
#include "front/keys.h"
#include "front/server.h"
#include "network/qelcchannel.h"
#include "network/qelcflow.h"
#include "network/qelcpacket.h"
#include "network/qelcsession.h"
#include "record/gen/qelfield.h"
#include "tests/network/channel_helpers.h"

namespace fronttest {

using chtest::run_on;
using chtest::wait_until;

struct Got {
    unsigned short subject;
    unsigned int packet;
    unsigned int request;
    char chain;
    unsigned long sequence;
    std::vector<std::pair<unsigned short, std::string>> records;

    template <class R>
    bool get(R& out, int index = 0) const {
        int seen = 0;
        for (const auto& r : records)
            if (r.first == R::DESC.id && seen++ == index) {
                memset(&out, 0, sizeof(out));
                R::from_stream(&out, r.second.data(), int(r.second.size()), false);
                return true;
            }
        return false;
    }
    int error() const {
        QelRspInfoField info;
        return get(info) ? info.ErrorID : -1;
    }
};

// Built first, gone last: the session chain lives on this reactor.
struct HasReactor {
    chtest::Reactor reactor;
};

class Client : private HasReactor, public Network::ClientSession, public Base::DataFlow::WriteCallback {
public:
    explicit Client(int front_port, unsigned int heartbeat_seconds = 0)
        : Network::ClientSession(HasReactor::reactor.get(), nullptr, nullptr),
          port(front_port),
          heartbeat(heartbeat_seconds) {
        control = chtest::make_flow(0);
        requests = chtest::make_flow(1);
        responses = new Network::QelcFlow(1, 0x100000, 0x100000, nullptr, this, 0, nullptr, false, false);
        run_on(reactor.get(), [&] {
            session = new Network::QelcClientSession(reactor.get(), this, nullptr, nullptr, 1);
            session->set_periods(1000000, 200000, 1000000);
            session->open("127.0.0.1", port);
        });
    }
    ~Client() override {
        run_on(reactor.get(), [&] {
            session->close(0);
            delete session;
        });
        delete control;
        delete requests;
        delete responses;
        for (auto& t : topics) delete t.second;
    }

    void on_connected() override {
        Network::ClientSession::on_connected();
        control->clear(0);
        requests->clear(0);
        responses->clear(0);
        session->subscribe(responses, nullptr, 0, false);
        session->publish(requests, 0, nullptr, nullptr, nullptr);
        session->publish(control, 0, nullptr, nullptr, nullptr);
        if (heartbeat) session->set_heartbeat_timeout(heartbeat);
        keys.gen_keys();
        char x[65], y[65];
        keys.get_public_key(x, y);
        memset(key_text, 0, sizeof(key_text));
        snprintf(key_text, sizeof(key_text), "%02X%s%02X%s", unsigned(strlen(x)), x, unsigned(strlen(y)), y);
        QelUserapiInitAuthInfoField init{25081826};
        QelUserapiSessionAuthInfoField mine;
        memcpy(mine.EncryptUserApiInfo, key_text, sizeof(key_text));
        Network::QelcFlow::Writer w(control, false);
        Network::QelcPacket* p = w.alloc_packet(24721, 0);
        p->add_field(&QelUserapiInitAuthInfoField::DESC, &init, QelUserapiInitAuthInfoField::to_stream);
        p->add_field(&QelUserapiSessionAuthInfoField::DESC, &mine, QelUserapiSessionAuthInfoField::to_stream);
        w.commit_packet(true);
        connected.fetch_add(1);
    }
    void on_disconnected(int reason) override {
        std::lock_guard<std::mutex> lock(mutex);
        reasons.push_back(reason);
        ready = false;
    }

    void on_write(unsigned long, const void* data, unsigned short) override {
        const char* frame = static_cast<const char*>(data);
        Got g;
        Network::QelcPacket::Header h;
        Network::QelcPacket::from_stream(&h, frame + 6);
        g.subject = h.Subject;
        g.packet = h.PacketId;
        g.request = h.RequestId;
        g.chain = char(h.Chain);
        g.sequence = h.get_sequence();
        Network::QelcPacket::Iterator it(&h, frame + 26);
        for (unsigned short id = it.next(); id != Network::QelcPacket::END; id = it.next()) {
            unsigned short size = 0;
            const char* value = it.get_field(size);
            g.records.emplace_back(id, std::string(value, size));
        }
        if (g.packet == 24722) on_crypt(g);
        if (g.packet == 22785) on_dissemination(g);
        std::lock_guard<std::mutex> lock(mutex);
        got.push_back(std::move(g));
    }

    void on_crypt(const Got& g) {
        QelUserapiInitAuthInfoField init;
        QelUserapiSessionAuthInfoField answer;
        ASSERT_TRUE(g.get(init) && g.get(answer));
        crypt_value = init.InitEncryptInfo;
        const char* t = answer.EncryptUserApiInfo;
        key_form = 0;
        if (strlen(t) > 1 && t[0] > '@' && strlen(t) == 17) {
            unsigned char bytes[8];
            Base::hex_to_bytes(t + 1, reinterpret_cast<char*>(bytes), 8);
            unsigned long v = 0;
            for (int i = 0; i < 8; ++i) v |= static_cast<unsigned long>(bytes[i]) << (8 * i);
            session_key = v ^ Front::hash_key_mask(key_text);
            session->set_cipher(static_cast<unsigned char>(t[0] - 'A'), session_key);
            key_form = 1;
        } else if (strlen(t) > 1) {
            unsigned char sealed[160] = {}, plain[160] = {};
            int n = int(strlen(t + 1) / 2);
            Base::hex_to_bytes(t + 1, reinterpret_cast<char*>(sealed), n);
            int length = 0;
            ASSERT_TRUE(keys.decode(plain, length, sealed, n));
            ASSERT_EQ(length, 8);
            memcpy(&session_key, plain, 8);
            session->set_cipher(static_cast<unsigned char>(t[0] - '0'), session_key);
            key_form = 2;
        }
        ready = true;
    }

    void on_dissemination(const Got& g) {
        for (int i = 0;; ++i) {
            QelDisseminationField d;
            if (!g.get(d, i)) break;
            Network::QelcFlow*& flow = topics[d.SequenceSeries];
            if (!flow)
                flow = new Network::QelcFlow(static_cast<unsigned short>(d.SequenceSeries), 0x100000,
                                             0x100000, nullptr, this, 0, nullptr, false, false);
            flow->clear(static_cast<unsigned long>(d.SequenceNo));
            session->subscribe(flow, nullptr, 0, false);
        }
    }

    // Sends one packet with the records on subject 1 (or 0 for the control flow).
    template <class... R>
    void send(unsigned short packet_id, unsigned int request, int subject, const R&... records) {
        run_on(reactor.get(), [&] {
            Network::QelcFlow::Writer w(subject == 0 ? control : requests, false);
            Network::QelcPacket* p = w.alloc_packet(packet_id, 0);
            p->get_header().RequestId = request;
            int unused[] = {0, (p->add_field(&R::DESC, &records, &R::to_stream) ? 0 : 0)...};
            (void)unused;
            w.commit_packet(true);
        });
    }

    bool wait_ready() { return wait_until([&] { return ready.load(); }); }

    // Logs in with positions for topics 2, 3 and 5 (skipped when below -1).
    void login(const char* user, const char* password, int request, int private_from = 0,
               int public_from = 0, int user_from = -2, const char* day = "") {
        QelReqUserLoginField in{};
        strcpy(in.UserID, user);
        strcpy(in.Password, password);
        strcpy(in.UserProductInfo, "fronttest");
        strcpy(in.TradingDay, day);
        QelDisseminationField d2{2, private_from}, d3{3, public_from}, d5{5, user_from};
        if (user_from < -1)
            send(4097, unsigned(request), 0, in, d2, d3);
        else
            send(4097, unsigned(request), 0, in, d2, d3, d5);
    }

    std::vector<Got> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return got;
    }
    std::vector<Got> of(unsigned int packet, int subject = -1) {
        std::vector<Got> out;
        for (const Got& g : all())
            if (g.packet == packet && (subject < 0 || g.subject == subject)) out.push_back(g);
        return out;
    }
    bool wait_for(unsigned int packet, size_t count, int subject = -1, int ms = 10000) {
        return wait_until([&] { return of(packet, subject).size() >= count; }, ms);
    }
    std::vector<int> get_reasons() {
        std::lock_guard<std::mutex> lock(mutex);
        return reasons;
    }
    unsigned long topic_count(int subject) {
        unsigned long n = 0;
        run_on(reactor.get(), [&] { n = topics.count(subject) ? topics[subject]->get_count() : 0; });
        return n;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        got.clear();
    }

    using HasReactor::reactor;
    Network::QelcClientSession* session = nullptr;
    int port;
    unsigned int heartbeat;
    std::atomic<int> connected{0};
    std::atomic<bool> ready{false};
    int crypt_value = 0;
    int key_form = -1;
    unsigned long session_key = 0;

private:
    Cipher::Sm2 keys{true};  // masked with the public key, as a trader's are
    char key_text[301] = {};
    Network::QelcFlow* control;
    Network::QelcFlow* requests;
    Network::QelcFlow* responses;
    std::map<int, Network::QelcFlow*> topics;
    std::mutex mutex;
    std::vector<Got> got;
    std::vector<int> reasons;
};

inline Front::Config quiet_config() {
    Front::Config c;
    c.port = 0;
    c.quiet = true;
    c.trading_day[0] = '\0';
    strcpy(c.trading_day, "20260105");
    return c;
}

// A limit order in the wire record, as a test client sends it.
inline QelInputOrderField order(const char* user, const char* local, char direction, double price,
                                int volume, const char* instrument = "qe2612") {
    QelInputOrderField o{};
    strcpy(o.UserID, user);
    strcpy(o.InstrumentID, instrument);
    strcpy(o.OrderLocalID, local);
    o.OrderPriceType = '2';
    o.Direction = direction;
    o.CombOffsetFlag[0] = '0';
    o.CombHedgeFlag[0] = '1';
    o.LimitPrice = price;
    o.VolumeTotalOriginal = volume;
    o.TimeCondition = '3';
    o.VolumeCondition = '1';
    return o;
}

}  // namespace fronttest

// Test access to the trader's login steps: a trader with a control flow and
// a session of its own, whose handlers the tests call directly as the
// reactor thread would, with reply packets built by Network::QelcPacket;
// and readers of what the trader wrote on its control flow.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/tradeapi.h"
#include "network/qelcflow.h"
#include "network/qelcpacket.h"
#include "network/qelcsession.h"
#include "parallel/fdreactor.h"
#include "record/gen/qelfield.h"

namespace Api {

// One packet as it was sent: its header and its records by id.
struct SentPacket {
    Network::QelcPacket::Header header;
    std::vector<unsigned short> ids;
    std::vector<std::string> values;  // stream form of each record

    // The nth record of id decoded into its internal form; false when none.
    bool get(unsigned short id, const Base::FieldDesc* desc, void* record, int nth = 0) const {
        for (size_t i = 0; i < ids.size(); ++i) {
            if (ids[i] != id || nth-- > 0) continue;
            std::memset(record, 0, desc->struct_size);
            desc->from_stream(record, values[i].data(), static_cast<int>(values[i].size()));
            return true;
        }
        return false;
    }
};

// A reply packet under construction, in the buffer the trader reads.
class ReplyPacket {
public:
    ReplyPacket(unsigned int packet_id, unsigned int request, unsigned char chain = 'L')
        : packet(packet_id, request, chain) {
        std::memset(area, 0, sizeof(area));
        packet.attach(area);
        packet.get_header().PacketId = packet_id;
        packet.get_header().RequestId = request;
        packet.get_header().Chain = chain;
        packet.get_header().Version = Network::QelcPacket::DEFAULT_VERSION;
    }
    template <class Record>
    ReplyPacket& add(const Record& record) {
        EXPECT_NE(packet.add_field(&Record::DESC, &record, Record::to_stream), nullptr);
        return *this;
    }
    // Stream form of the 20-byte header, then the body.
    const char* commit() {
        packet.commit();
        return area;
    }

private:
    alignas(8) char area[Network::QelcPacket::HEADER_SIZE + Network::QelcPacket::MAX_BODY_SIZE];
    Network::QelcPacket packet;
};

struct LoginProbe {
    // Builds what the login steps need of a started trader. The trader's
    // reactor doesn't run, so the events it posts wait there; its session,
    // which has no connection and so does nothing on close or set_cipher,
    // lives on a running reactor of its own (its timers need one).
    static void attach(TradeApi& api, Parallel::FdReactor* idle, Parallel::FdReactor* running) {
        api.reactor.store(idle);
        api.control_flow = new Network::QelcFlow(0, 0x100000, 0x100000, nullptr, nullptr, 0, nullptr, true, false);
        api.control_writer = new Network::QelcFlow::Writer(api.control_flow, false);
        api.session = new Network::QelcBondClientSession(running, &api, nullptr, 2);
    }
    static void detach(TradeApi& api) {
        delete api.session;
        delete api.control_writer;
        delete api.control_flow;
        for (Network::QelcFlow** flow : {&api.private_flow, &api.public_flow, &api.user_flow}) {
            delete *flow;
            *flow = nullptr;
        }
        api.session = nullptr;
        api.control_writer = nullptr;
        api.control_flow = nullptr;
        api.reactor.store(nullptr);
    }

    // The packets of the control flow from id `from` on.
    static std::vector<SentPacket> sent(TradeApi& api, unsigned long from = 0) {
        std::vector<SentPacket> packets;
        Base::DataFlow::Iterator iterator(api.control_flow, nullptr, nullptr, nullptr);
        iterator.seek(from);
        while (const Base::DataFlow::Item* item = iterator.next()) {
            SentPacket one;
            Network::QelcPacket::from_stream(&one.header, item->data + Network::QelcFlow::PREFIX_SIZE);
            Network::QelcPacket::Iterator records(&one.header, item->data + Network::QelcFlow::PREFIX_SIZE +
                                                                  Network::QelcPacket::HEADER_SIZE);
            for (unsigned short id = records.next(); id != Network::QelcPacket::END; id = records.next()) {
                unsigned short size = 0;
                const char* value = records.get_field(size);
                one.ids.push_back(id);
                one.values.emplace_back(value, size);
            }
            packets.push_back(one);
        }
        return packets;
    }

    // Hands a reply to the trader as its dispatch does: header decoded,
    // iterator on the body, then the handler.
    static void deliver(TradeApi& api, const char* reply, void (TradeApi::*handler)(CTulmQelcTraderSpi*),
                        CTulmQelcTraderSpi* spi) {
        Network::QelcPacket::from_stream(&api.packet.get_header(), reply);
        api.packet_iterator.attach(&api.packet.get_header(), reply + Network::QelcPacket::HEADER_SIZE);
        (api.*handler)(spi);
    }
    static void crypt_reply(TradeApi& api, const char* reply, CTulmQelcTraderSpi* spi) {
        deliver(api, reply, &TradeApi::on_rsp_qry_crypt_info, spi);
    }
    static void authenticate_reply(TradeApi& api, const char* reply, CTulmQelcTraderSpi* spi) {
        deliver(api, reply, &TradeApi::on_rsp_authenticate, spi);
    }
    static void login_reply(TradeApi& api, const char* reply, CTulmQelcTraderSpi* spi) {
        deliver(api, reply, &TradeApi::on_rsp_user_login, spi);
    }
    static void logout_reply(TradeApi& api, const char* reply, CTulmQelcTraderSpi* spi) {
        deliver(api, reply, &TradeApi::on_rsp_user_logout, spi);
    }

    static void key_request(TradeApi& api) { api.write_key_request(); }
    static void authenticate(TradeApi& api, CTulmQelcProductAuthField* field, int request) {
        api.on_api_req_authenticate(field, request);
    }
    static void login(TradeApi& api, CTulmQelcReqUserLoginField* field, int request) {
        api.on_api_req_user_login(field, request);
    }
    static bool token(TradeApi& api, QelUserapiAuthenticInfoField* out) { return api.encrypt_user_api_info(out); }
    static int read_key(TradeApi& api, const char* text, unsigned char& type, unsigned long& key) {
        return TradeApi::read_session_key(text, api.session_auth_text, api.session_keys, type, key);
    }

    // State, read and set as the reactor thread would.
    static const char* auth_text(TradeApi& api) { return api.session_auth_text; }
    static int& crypt_value(TradeApi& api) { return api.init_crypt_value; }
    static bool crypt_ready(TradeApi& api) { return api.crypt_ready.load(); }
    static bool auth_ok(TradeApi& api) { return api.auth_ok.load(); }
    static const char* app_id(TradeApi& api) { return api.app_id; }
    static const char* max_order_local_id(TradeApi& api) { return api.max_order_local_id; }
    static const char* participant_id(TradeApi& api) { return api.participant_id; }
    static const char* user_id(TradeApi& api) { return api.user_id; }
    static char* system_info(TradeApi& api) { return api.system_info; }
    static FILE* request_log(TradeApi& api) { return api.request_log; }
    static FILE* response_log(TradeApi& api) { return api.response_log; }
};

// A trader whose login steps a test drives as its reactor thread would,
// once attach() has built what they need.
class LoginFixture : public ::testing::Test {
protected:
    LoginFixture() : api("./", &reactor) { running.create(true, nullptr); }
    ~LoginFixture() override {
        if (attached) LoginProbe::detach(api);
        running.stop();
        running.join();
    }
    void attach() {
        LoginProbe::attach(api, &reactor, &running);
        attached = true;
    }

    Parallel::FdReactor reactor{nullptr};
    Parallel::FdReactor running{nullptr};
    TradeApi api;
    bool attached = false;
};

}  // namespace Api

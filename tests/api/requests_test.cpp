// Direct requests through the public API against the test front: each
// arrives once, byte-exact, with its RequestId and in call order, also from
// several threads; the gate refuses at exactly the right call; every return
// code at its moment; Release beside a burst and from inside a callback.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/tradeapi.h"
#include "record/fielddesc.h"
#include "tests/api/test_front.h"

namespace {

using test_front::wait_until;

std::string temp_dir() { return test_front::temp_dir("requests_"); }
using test_front::thread_count;

class Spy : public CTulmQelcTraderSpi {
public:
    // The count goes up after the hook, so that a thread that sees it sees
    // what the hook did.
    void OnFrontConnected() override {
        if (on_connected) on_connected();
        connected.fetch_add(1);
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info && info->ErrorID == 0) logins.fetch_add(1);
    }
    void OnRspError(CTulmQelcRspInfoField*, int request, bool) override {
        errors.fetch_add(1);
        if (on_error) on_error(request);
    }
    std::atomic<int> connected{0};
    std::atomic<int> logins{0};
    std::atomic<int> errors{0};
    std::function<void()> on_connected;  // run inside the callbacks
    std::function<void(int)> on_error;
};

// A trader with its own reactor, connected to a test front.
struct Trader {
    explicit Trader(test_front::Front::Limits limits = {}, const char* max_local_id = "") {
        front.limits = limits;
        std::strcpy(front.max_order_local_id, max_local_id);
        api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
        api->RegisterSpi(&spy);
        api->RegisterFront(front.address().c_str());
    }
    ~Trader() {
        if (!released && api->Release() == -9)
            delete api;  // never started
        else
            api->Join();
    }
    bool start() { return api->Init() == 0 && wait_until([&] { return spy.connected.load() > 0; }); }
    static CTulmQelcReqUserLoginField login_field() {
        CTulmQelcReqUserLoginField field = {};
        std::strcpy(field.UserID, "U1");
        std::strcpy(field.ParticipantID, "P1");
        std::strcpy(field.Password, "secret");
        std::strcpy(field.UserProductInfo, "tests");
        return field;
    }
    bool login() {
        if (!start()) return false;
        CTulmQelcReqUserLoginField field = login_field();
        return api->ReqUserLogin(&field, 1) == 0 && wait_until([&] { return spy.logins.load() > 0; });
    }

    test_front::Front front;
    Spy spy;
    Api::TradeApi* api = nullptr;
    bool released = false;
};

// The body of a packet holding one record, built by the packet class and
// the record's own coder, apart from the trader.
std::string expected_body(const Base::FieldDesc* desc, Network::QelcPacket::ToStreamCoder coder,
                          const void* record) {
    std::vector<char> area(Network::QelcPacket::HEADER_SIZE + Network::QelcPacket::MAX_BODY_SIZE);
    Network::QelcPacket packet(0, 0, 'L');
    packet.attach(area.data());
    packet.add_field(desc, record, coder);
    int size = packet.commit();
    return std::string(area.data() + Network::QelcPacket::HEADER_SIZE, size - Network::QelcPacket::HEADER_SIZE);
}

// One operation with a record filled member by member: texts of their full
// width less the zero, a fresh ascending id in every local id.
struct Case {
    const char* name;
    unsigned int packet_id;
    std::vector<char> record;
    std::string body;
    std::function<int(Api::TradeApi*, void*, int)> call;
};

int g_local_id = 0;

template <typename Public, typename Qel>
Case make_case(const char* name, unsigned int packet_id, int (Api::TradeApi::*op)(Public*, int)) {
    static_assert(sizeof(Public) == sizeof(Qel), "one layout");
    Case c{name, packet_id, std::vector<char>(sizeof(Public)), "", nullptr};
    const Base::FieldDesc& desc = Qel::DESC;
    for (int i = 0; i < desc.member_count; ++i) {
        const Base::FieldDesc::MemberDesc& m = desc.members[i];
        char* at = c.record.data() + m.offset;
        std::string member = m.name;
        bool local_id = m.type == Base::DT_STRING && m.total_size == 13 && member.size() >= 7 &&
                        member.compare(member.size() - 7, 7, "LocalID") == 0;
        if (local_id) {
            snprintf(at, m.total_size, "%012d", ++g_local_id);
        } else if (member == "SequenceSeries") {
            short series = 7;
            std::memcpy(at, &series, sizeof(series));
        } else if (m.type == Base::DT_STRING) {
            for (int k = 0; k < m.total_size - 1; ++k) at[k] = static_cast<char>('A' + (i + k) % 26);
        } else if (m.type == Base::DT_CHAR) {
            at[0] = static_cast<char>('0' + i % 10);
        } else if (m.type == Base::DT_FLOAT64) {
            double value = 1234.5 + i * 0.25;
            std::memcpy(at, &value, sizeof(value));
        } else {
            for (int k = 0; k < m.total_size; ++k) at[k] = static_cast<char>(i * 3 + k + 1);
        }
    }
    c.body = expected_body(&Qel::DESC, Qel::to_stream, c.record.data());
    c.call = [op](Api::TradeApi* api, void* record, int request) {
        return (api->*op)(static_cast<Public*>(record), request);
    };
    return c;
}

#define CASE(op, packet, Record) make_case<CTulmQelc##Record, Qel##Record>(#op, packet, &Api::TradeApi::op)

std::vector<Case> all_cases() {
    return {
        CASE(ReqOrderInsert, 4101, InputOrderField),
        CASE(ReqOrderAction, 4103, OrderActionField),
        CASE(ReqQuoteInsert, 4105, InputQuoteField),
        CASE(ReqQuoteAction, 4107, QuoteActionField),
        CASE(ReqExecOrderInsert, 4113, InputExecOrderField),
        CASE(ReqExecOrderAction, 4115, ExecOrderActionField),
        CASE(ReqAbandonExecOrderInsert, 4121, InputAbandonExecOrderField),
        CASE(ReqAbandonExecOrderAction, 4123, AbandonExecOrderActionField),
        CASE(ReqOptionSelfCloseUpdate, 24737, InputOptionSelfCloseField),
        CASE(ReqOptionSelfCloseAction, 24741, OptionSelfCloseActionField),
        CASE(ReqQuoteDemand, 4125, InputQuoteDemandField),
        CASE(ReqQryPartAccount, 16385, QryPartAccountField),
        CASE(ReqQryOrder, 16387, QryOrderField),
        CASE(ReqQryQuote, 16389, QryQuoteField),
        CASE(ReqQryTrade, 16391, QryTradeField),
        CASE(ReqQryClient, 16393, QryClientField),
        CASE(ReqQryPartPosition, 16395, QryPartPositionField),
        CASE(ReqQryClientPosition, 16397, QryClientPositionField),
        CASE(ReqQryInstrument, 16399, QryInstrumentField),
        CASE(ReqQryInstrumentStatus, 16401, QryInstrumentStatusField),
        CASE(ReqQryHedgeVolume, 16405, QryHedgeVolumeField),
        CASE(ReqQryExecOrder, 16416, QryExecOrderField),
        CASE(ReqQryAbandonExecOrder, 16418, QryAbandonExecOrderField),
        CASE(ReqQryMarketData, 16641, QryMarketDataField),
        CASE(ReqQryBulletin, 16643, QryBulletinField),
        CASE(ReqQryTopic, 16897, DisseminationField),
        CASE(ReqQryExchangeRate, 24713, QryExchangeRateField),
        CASE(ReqQryOptionSelfClose, 24744, QryOptionSelfCloseField),
        CASE(ReqSubscribeTopic, 7937, DisseminationField),
        CASE(ReqUserLogout, 4099, ReqUserLogoutField),
    };
}

TEST(Requests, EachArrivesOnceByteExactInCallOrder) {
    Trader trader;
    ASSERT_TRUE(trader.login());
    std::vector<Case> cases = all_cases();
    for (size_t i = 0; i < cases.size(); ++i)
        ASSERT_EQ(cases[i].call(trader.api, cases[i].record.data(), 100 + static_cast<int>(i)), 0) << cases[i].name;
    ASSERT_TRUE(trader.front.wait_frames(1, cases.size()));
    Base::Measure::sleep(100);
    std::vector<test_front::Frame> frames = trader.front.frames(1);
    ASSERT_EQ(frames.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].name);
        EXPECT_EQ(frames[i].header.PacketId, cases[i].packet_id);
        EXPECT_EQ(frames[i].header.RequestId, 100 + i);
        EXPECT_EQ(frames[i].header.FieldCount, 1);
        EXPECT_EQ(frames[i].header.get_sequence(), i + 1);
        EXPECT_TRUE(frames[i].body() == cases[i].body);
    }
}

// Texts longer than their member reach the wire cut, the caller's record
// untouched; doubles go through bit by bit.
TEST(Requests, TextsAreCutAndTheCallersRecordStaysAsItWas) {
    Trader trader;
    ASSERT_TRUE(trader.login());
    CTulmQelcInputOrderField order;
    std::memset(&order, 'I', sizeof(order));
    std::strcpy(order.OrderLocalID, "000000000001");
    const double odd = -0.0;
    order.LimitPrice = 1.0 / 3.0;
    order.StopPrice = odd;
    CTulmQelcInputOrderField before = order;
    ASSERT_EQ(trader.api->ReqOrderInsert(&order, 7), 0);
    EXPECT_EQ(std::memcmp(&order, &before, sizeof(order)), 0);
    CTulmQelcQryExchangeRateField rate;
    std::memset(&rate, 'C', sizeof(rate));
    ASSERT_EQ(trader.api->ReqQryExchangeRate(&rate, 8), 0);
    ASSERT_TRUE(trader.front.wait_frames(1, 2));

    QelInputOrderField sent_order = {};
    std::memcpy(&sent_order, &before, sizeof(sent_order));
    for (int i = 0; i < QelInputOrderField::DESC.member_count; ++i) {
        const Base::FieldDesc::MemberDesc& m = QelInputOrderField::DESC.members[i];
        if (m.type == Base::DT_STRING) reinterpret_cast<char*>(&sent_order)[m.offset + m.total_size - 1] = 0;
    }
    EXPECT_EQ(std::string(sent_order.InstrumentID), std::string(30, 'I'));
    QelQryExchangeRateField sent_rate = {};
    std::strcpy(sent_rate.CurrencyID, "CCC");
    std::vector<test_front::Frame> frames = trader.front.frames(1);
    EXPECT_TRUE(frames[0].body() ==
                expected_body(&QelInputOrderField::DESC, QelInputOrderField::to_stream, &sent_order));
    EXPECT_TRUE(frames[1].body() ==
                expected_body(&QelQryExchangeRateField::DESC, QelQryExchangeRateField::to_stream, &sent_rate));
}

// Four threads send queries at once: every request arrives once, each
// thread's in its call order, the sequence numbers without a gap.
TEST(Requests, SeveralCallerThreadsLoseAndDoubleNothing) {
    Trader trader;
    ASSERT_TRUE(trader.login());
    const int threads = 4, each = 400;
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t)
        callers.emplace_back([&, t] {
            for (int i = 0; i < each; ++i) {
                CTulmQelcQryOrderField query = {};
                snprintf(query.InstrumentID, sizeof(query.InstrumentID), "T%d-%d", t, i);
                EXPECT_EQ(trader.api->ReqQryOrder(&query, t * 100000 + i), 0);
            }
        });
    for (std::thread& caller : callers) caller.join();
    ASSERT_TRUE(trader.front.wait_frames(1, threads * each));
    std::vector<test_front::Frame> frames = trader.front.frames(1);
    ASSERT_EQ(frames.size(), size_t(threads * each));
    std::vector<int> next(threads, 0);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].header.get_sequence(), i + 1);
        int request = static_cast<int>(frames[i].header.RequestId);
        int t = request / 100000, n = request % 100000;
        ASSERT_LT(t, threads);
        ASSERT_EQ(n, next[t]) << "thread " << t;
        ++next[t];
        QelQryOrderField query = {};
        snprintf(query.InstrumentID, sizeof(query.InstrumentID), "T%d-%d", t, n);
        ASSERT_TRUE(frames[i].body() == expected_body(&QelQryOrderField::DESC, QelQryOrderField::to_stream, &query));
    }
}

CTulmQelcInputOrderField order_with(const char* local_id) {
    CTulmQelcInputOrderField order = {};
    std::strcpy(order.InstrumentID, "XYZ");
    std::strcpy(order.OrderLocalID, local_id);
    return order;
}

// The limits of the login reply: the 9th order within a second gets -3,
// the query gate stays free, and only the accepted orders reach the front.
TEST(Requests, TheGateRefusesAtTheRightCall) {
    test_front::Front::Limits limits;
    limits.trade_per_second = 8;
    limits.query_on_way = 3;
    Trader trader(limits);
    ASSERT_TRUE(trader.login());
    Base::Measure::sleep(1100);  // the login's own rate window is over
    std::vector<int> results;
    for (int i = 0; i < 12; ++i) {
        char id[13];
        snprintf(id, sizeof(id), "%012d", i + 1);
        CTulmQelcInputOrderField order = order_with(id);
        results.push_back(trader.api->ReqOrderInsert(&order, i));
    }
    for (int i = 0; i < 12; ++i) EXPECT_EQ(results[i], i < 8 ? 0 : -3) << i;
    CTulmQelcQryInstrumentField query = {};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(trader.api->ReqQryInstrument(&query, 100 + i), 0);
    EXPECT_EQ(trader.api->ReqQryInstrument(&query, 103), -2);
    // A refused order left its id free: it passes in the next window.
    Base::Measure::sleep(1100);
    CTulmQelcInputOrderField ninth = order_with("000000000009");
    EXPECT_EQ(trader.api->ReqOrderInsert(&ninth, 9), 0);
    ASSERT_TRUE(trader.front.wait_frames(1, 12));
    Base::Measure::sleep(100);
    EXPECT_EQ(trader.front.count(1), 12u);
    EXPECT_EQ(trader.front.packets(4101).size(), 9u);
}

TEST(Requests, ReturnCodesAtTheirMoment) {
    CTulmQelcReqUserLoginField login = Trader::login_field();
    {
        Api::TradeApi idle(temp_dir().c_str(), nullptr);
        EXPECT_EQ(idle.ReqUserLogin(&login, 1), -9);
        EXPECT_EQ(idle.ReqAuthenticate(nullptr, 1), -9);
    }
    Trader trader({}, "10");
    CTulmQelcInputOrderField order = order_with("000000000011");
    EXPECT_EQ(trader.api->ReqOrderInsert(&order, 1), -1);
    ASSERT_EQ(trader.api->Init(), 0);
    EXPECT_EQ(trader.api->ReqOrderInsert(&order, 1), -1);
    ASSERT_TRUE(wait_until([&] { return trader.spy.connected.load() > 0; }));
    CTulmQelcReqUserLoginField blank = login;
    std::memset(blank.UserProductInfo, ' ', sizeof(blank.UserProductInfo));
    EXPECT_EQ(trader.api->ReqUserLogin(&blank, 1), -6);
    EXPECT_EQ(blank.UserProductInfo[40], 0);
    ASSERT_EQ(trader.api->ReqUserLogin(&login, 1), 0);
    ASSERT_TRUE(wait_until([&] { return trader.spy.logins.load() > 0; }));
    EXPECT_EQ(trader.api->ReqUserLogin(&login, 2), -5);
    EXPECT_EQ(trader.api->ReqAuthenticate(nullptr, 2), -5);

    // Local ids ascend by bytes, from the login reply's "10" on.
    CTulmQelcInputOrderField blank_id = order_with("            ");
    blank_id.OrderLocalID[12] = 'x';
    EXPECT_EQ(trader.api->ReqOrderInsert(&blank_id, 3), -6);
    EXPECT_EQ(blank_id.OrderLocalID[12], 0);
    CTulmQelcInputOrderField ten = order_with("10");
    EXPECT_EQ(trader.api->ReqOrderInsert(&ten, 4), -11);
    CTulmQelcInputOrderField nine = order_with("9");
    EXPECT_EQ(trader.api->ReqOrderInsert(&nine, 5), 0);
    EXPECT_EQ(trader.api->ReqOrderInsert(&nine, 6), -11);
    CTulmQelcOrderActionField action = {};
    EXPECT_EQ(trader.api->ReqOrderAction(&action, 7), -6);
    std::strcpy(action.OrderSysID, "S1");
    EXPECT_EQ(trader.api->ReqOrderAction(&action, 8), 0);  // no action id: no rule
    std::strcpy(action.ActionLocalID, "8");
    EXPECT_EQ(trader.api->ReqOrderAction(&action, 9), -11);
    std::strcpy(action.ActionLocalID, "91");
    EXPECT_EQ(trader.api->ReqOrderAction(&action, 10), 0);
    CTulmQelcInputQuoteDemandField demand = {};
    EXPECT_EQ(trader.api->ReqQuoteDemand(&demand, 11), -6);
    std::strcpy(demand.QuoteDemandLocalID, "1");  // never compared
    EXPECT_EQ(trader.api->ReqQuoteDemand(&demand, 12), 0);
    EXPECT_EQ(trader.api->ReqOrderInsert(&nine, 13), -11);

    CTulmQelcUserPasswordUpdateField update = {};
    std::strcpy(update.ParticipantID, "P2");
    std::strcpy(update.UserID, "U1");
    EXPECT_EQ(trader.api->ReqUserPasswordUpdate(&update, 14), -13);
    std::strcpy(update.ParticipantID, "P1");
    std::strcpy(update.UserID, "U2");
    EXPECT_EQ(trader.api->ReqUserPasswordUpdate(&update, 15), -14);
    std::memset(update.UserID, 0, sizeof(update.UserID));
    std::strcpy(update.UserID, "U1");
    update.UserID[15] = 'z';  // only 15 characters count
    std::strcpy(update.OldPassword, "old");
    std::strcpy(update.NewPassword, "new");
    EXPECT_EQ(trader.api->ReqUserPasswordUpdate(&update, 16), 0);
    EXPECT_EQ(update.UserID[15], 0);

    ASSERT_TRUE(wait_until([&] { return trader.front.count(1) == 5; }));
    std::vector<unsigned int> requests;
    for (const test_front::Frame& frame : trader.front.frames(1)) requests.push_back(frame.header.RequestId);
    EXPECT_EQ(requests, (std::vector<unsigned int>{5, 8, 10, 12, 16}));
    QelUserPasswordUpdateField sent = {};
    std::strcpy(sent.UserID, "U1");
    std::strcpy(sent.ParticipantID, "P1");
    std::strcpy(sent.OldPassword, "old");
    std::strcpy(sent.NewPassword, "new");
    EXPECT_TRUE(trader.front.frames(1).back().body() ==
                expected_body(&QelUserPasswordUpdateField::DESC, QelUserPasswordUpdateField::to_stream, &sent));
}

// ReqUserLogin while no connection is up; -7 while an authentication is
// unanswered; two logins in a row are a second apart, and on the reactor
// thread the second is refused rather than sleeping there.
TEST(Requests, LoginChecksAndPacing) {
    Trader trader;
    trader.front.answer_login = false;
    CTulmQelcReqUserLoginField login = Trader::login_field();
    std::vector<int> inside;
    trader.spy.on_connected = [&] {
        inside.push_back(trader.api->ReqUserLogin(&login, 1));
        inside.push_back(trader.api->ReqUserLogin(&login, 2));
    };
    ASSERT_TRUE(trader.start());
    EXPECT_EQ(inside, (std::vector<int>{0, -3}));
    trader.spy.on_connected = nullptr;
    uint64_t start = Base::Measure::get_clock();
    EXPECT_EQ(trader.api->ReqUserLogin(&login, 3), 0);
    EXPECT_EQ(trader.api->ReqUserLogin(&login, 4), 0);
    EXPECT_GE(Base::Measure::get_clock() - start, 2 * 9900000ull);  // two sleeps of a second
    CTulmQelcProductAuthField auth = {};
    std::strcpy(auth.AppID, "app");
    EXPECT_EQ(trader.api->ReqAuthenticate(&auth, 5), 0);
    EXPECT_EQ(trader.api->ReqUserLogin(&login, 6), -7);
    ASSERT_TRUE(wait_until([&] { return trader.front.packets(test_front::LOGIN_REQUEST).size() == 3; }));

    test_reactor::Running<Parallel::FdReactor> reactor;
    auto* offline = new Api::TradeApi(temp_dir().c_str(), reactor.reactor.get());
    ASSERT_EQ(offline->Init(), 0);
    EXPECT_EQ(offline->ReqUserLogin(&login, 1), -12);
    EXPECT_EQ(offline->ReqAuthenticate(&auth, 1), -12);
    EXPECT_EQ(offline->Release(), 0);
    EXPECT_EQ(offline->Join(), 0);
}

// The topics whose positions a login frame carries.
std::vector<int> login_topics(const test_front::Frame& frame) {
    std::vector<int> topics;
    Network::QelcPacket::Iterator records(&frame.header, frame.bytes.data() + 26);
    for (unsigned short id = records.next(); id != Network::QelcPacket::END; id = records.next()) {
        if (id != QelDisseminationField::DESC.id) continue;
        QelDisseminationField position = {};
        records.get_field(&position, &QelDisseminationField::DESC, false);
        topics.push_back(position.SequenceSeries);
    }
    return topics;
}

// ReqSubscribeTopic clears the topic's pending flag, so the next login on
// this connection no longer carries its position; refused before login,
// it clears nothing.
TEST(Requests, SubscribeTopicClearsThePendingFlag) {
    Trader trader;
    ASSERT_EQ(trader.api->SubscribePrivateTopic(TE_RESUME_FROM_START), 0);
    ASSERT_EQ(trader.api->SubscribePublicTopic(TE_RESUME_FROM_START), 0);
    ASSERT_TRUE(trader.start());
    CTulmQelcDisseminationField topic = {};
    topic.SequenceSeries = 2;
    EXPECT_EQ(trader.api->ReqSubscribeTopic(&topic, 1), -1);
    CTulmQelcReqUserLoginField login = Trader::login_field();
    ASSERT_EQ(trader.api->ReqUserLogin(&login, 2), 0);
    ASSERT_TRUE(wait_until([&] { return trader.spy.logins.load() == 1; }));
    EXPECT_EQ(trader.api->ReqSubscribeTopic(&topic, 3), 0);

    CTulmQelcReqUserLogoutField logout = {};
    ASSERT_EQ(trader.api->ReqUserLogout(&logout, 4), 0);
    ASSERT_TRUE(wait_until([&] { return trader.front.packets(4099).size() == 1; }));
    QelRspInfoField info = {};
    QelRspUserLogoutField out = {};
    trader.front.send(1, 4100, 4,
                      {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream},
                       {&QelRspUserLogoutField::DESC, &out, QelRspUserLogoutField::to_stream}});
    ASSERT_TRUE(wait_until([&] { return trader.api->ReqUserLogin(&login, 5) == 0; }));
    ASSERT_TRUE(wait_until([&] { return trader.spy.logins.load() == 2; }));
    std::vector<test_front::Frame> logins = trader.front.packets(test_front::LOGIN_REQUEST);
    ASSERT_EQ(logins.size(), 2u);
    EXPECT_EQ(login_topics(logins[0]), (std::vector<int>{2, 3}));
    EXPECT_EQ(login_topics(logins[1]), (std::vector<int>{3}));
}

// Release from another thread while a burst is on its way and callbacks
// run: it returns with no callback after it and no thread left.
TEST(Requests, ReleaseBesideABurstAndItsCallbacks) {
    int threads = thread_count();
    {
        Trader trader;
        trader.front.answer_requests = true;
        ASSERT_TRUE(trader.login());
        std::atomic<bool> stop{false};
        std::thread sender([&] {
            CTulmQelcQryOrderField query = {};
            for (int i = 0; !stop.load(); ++i) trader.api->ReqQryOrder(&query, i);
        });
        ASSERT_TRUE(wait_until([&] { return trader.spy.errors.load() > 200; }));
        EXPECT_EQ(trader.api->Release(), 0);
        trader.released = true;
        int after = trader.spy.errors.load();
        Base::Measure::sleep(50);
        EXPECT_EQ(trader.spy.errors.load(), after);
        stop = true;
        sender.join();
    }
    EXPECT_EQ(thread_count(), threads + 0);
}

// Release from inside a callback returns 0 at once; Join on the
// application thread waits for the teardown and the reactor's thread.
TEST(Requests, ReleaseFromInsideACallbackAndJoinOutside) {
    int threads = thread_count();
    std::atomic<int> result{1};
    {
        Trader trader;
        trader.front.answer_requests = true;
        trader.spy.on_error = [&](int request) {
            if (request == 50) result = trader.api->Release();
        };
        ASSERT_TRUE(trader.login());
        CTulmQelcQryOrderField query = {};
        for (int i = 0; i < 100; ++i) trader.api->ReqQryOrder(&query, i);
        ASSERT_TRUE(wait_until([&] { return result.load() != 1; }));
        trader.released = true;
        EXPECT_EQ(result.load(), 0);
        Base::Measure::sleep(50);
        EXPECT_EQ(trader.spy.errors.load(), 51);  // requests 0 to 50, none after
    }
    EXPECT_EQ(thread_count(), threads);
}

// A front that tells, connection by connection, whether a request came in
// before that connection's key exchange and login.
class OrderingFront : public test_front::Front {
public:
    ~OrderingFront() { stop(); }
    std::atomic<int> early{0};     // requests before their connection's login
    std::atomic<int> requests{0};
    std::atomic<int> busy_links{0};  // connections that carried requests

protected:
    struct State {
        bool keyed = false, logged = false, busy = false;
    };
    void on_frame(Link* link, const char* data, unsigned short size) override {
        Network::QelcPacket::Header header;
        Network::QelcPacket::from_stream(&header, data + 6);
        State& state = states[link];  // reactor thread only
        if (header.PacketId == test_front::KEY_REQUEST) {
            state.keyed = true;
        } else if (header.PacketId == test_front::LOGIN_REQUEST) {
            state.logged = state.keyed;
        } else if (header.Subject == 1) {
            if (!state.logged) early.fetch_add(1);
            if (!state.busy) busy_links.fetch_add(1);
            state.busy = true;
            requests.fetch_add(1);
        }
        Front::on_frame(link, data, size);
    }
    std::map<Link*, State> states;
};

// Threads send orders and queries without pause while the front drops the
// connection again and again: nothing written for one connection goes out
// on the next before its keys and its login.
TEST(Requests, NoRequestOnAConnectionBeforeItsKeysAndLogin) {
    OrderingFront front;
    front.keep_frames = false;
    Spy spy;
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
    spy.on_connected = [&] {
        CTulmQelcReqUserLoginField login = Trader::login_field();
        api->ReqUserLogin(&login, 1);
    };
    api->RegisterSpi(&spy);
    ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
    ASSERT_EQ(api->Init(), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> local_id{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 3; ++t)
        senders.emplace_back([&] {
            while (!stop.load()) {
                CTulmQelcInputOrderField order = {};
                std::snprintf(order.OrderLocalID, sizeof(order.OrderLocalID), "%012d", ++local_id);
                api->ReqOrderInsert(&order, 1);
                CTulmQelcQryInstrumentField query = {};
                api->ReqQryInstrument(&query, 2);
            }
        });
    const int rounds = 3;
    for (int round = 1; round <= rounds; ++round) {
        ASSERT_TRUE(wait_until([&] { return spy.logins.load() >= round; }));
        // Past the one-second login pacing, so the next connection logs in.
        Base::Measure::sleep(1100);
        front.drop();
    }
    EXPECT_TRUE(wait_until([&] { return spy.logins.load() > rounds; }));
    stop = true;
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(api->Release(), 0);
    EXPECT_EQ(api->Join(), 0);
    EXPECT_EQ(front.early.load(), 0);
    EXPECT_GT(front.requests.load(), 0);
    EXPECT_GE(front.busy_links.load(), rounds);
}

}  // namespace

// The trader through its public interface against the front, over
// 127.0.0.1: login, orders that trade and a cancel, queries; the private
// topic resumed after a restart of the trader and after a restart of the
// front, delivered once and in order; each fault of the front ending the
// connection with its reason, and the trader connecting again by itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "api/QelcTraderApi.h"
#include "front/server.h"
#include "tests/front/front_client.h"
#include "tests/network/channel_helpers.h"
#include "tests/support/temp_dir.h"

using test_support::TempDir;

namespace {

using chtest::wait_until;

// Logs in on every connection and records what comes back.
class Spi : public CTulmQelcTraderSpi {
public:
    Spi(CTulmQelcTraderApi* api, const char* user, const char* password) : api(api), user(user), password(password) {}

    void OnFrontConnected() override {
        connected.fetch_add(1);
        CTulmQelcReqUserLoginField login = {};
        strcpy(login.UserID, user);
        strcpy(login.Password, password);
        strcpy(login.UserProductInfo, "tradertest");
        api->ReqUserLogin(&login, 1);
    }
    void OnFrontDisconnected(int reason) override {
        std::lock_guard<std::mutex> lock(mutex);
        reasons.push_back(reason);
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info && info->ErrorID == 0) logins.fetch_add(1);
        else login_errors.fetch_add(1);
    }
    void OnPackageStart(int topic, int sequence) override {
        std::lock_guard<std::mutex> lock(mutex);
        packages.emplace_back(topic, sequence);
    }
    void OnRtnOrder(CTulmQelcOrderField* o) override {
        std::lock_guard<std::mutex> lock(mutex);
        orders.push_back(std::string(o->OrderLocalID) + o->OrderStatus);
    }
    void OnRtnTrade(CTulmQelcTradeField* t) override {
        std::lock_guard<std::mutex> lock(mutex);
        trades.push_back(std::string(t->OrderLocalID) + ":" + std::to_string(t->Volume) + "@" +
                         std::to_string(int(t->Price)));
    }
    void OnRspOrderInsert(CTulmQelcInputOrderField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info && info->ErrorID) insert_errors.fetch_add(1);
    }
    void OnRspQryOrder(CTulmQelcOrderField* o, CTulmQelcRspInfoField*, int, bool last) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (o) queried.push_back(std::string(o->OrderLocalID) + o->OrderStatus);
        if (last) queries_done.fetch_add(1);
    }
    void OnRspQryClientPosition(CTulmQelcRspClientPositionField* p, CTulmQelcRspInfoField*, int, bool last) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (p && p->Position) queried.push_back(std::string(p->ClientID) + p->PosiDirection + std::to_string(p->Position));
        if (last) queries_done.fetch_add(1);
    }

    template <class T>
    std::vector<T> copy(const std::vector<T>& v) {
        std::lock_guard<std::mutex> lock(mutex);
        return v;
    }
    // Sequence numbers of a topic, as the packages came.
    std::vector<int> sequences(int topic) {
        std::vector<int> out;
        for (auto& p : copy(packages))
            if (p.first == topic) out.push_back(p.second);
        return out;
    }

    CTulmQelcTraderApi* api;
    const char* user;
    const char* password;
    std::atomic<int> connected{0}, logins{0}, login_errors{0}, insert_errors{0}, queries_done{0};
    std::mutex mutex;
    std::vector<int> reasons;
    std::vector<std::pair<int, int>> packages;
    std::vector<std::string> orders, trades, queried;
};

// One trader on a flow directory (its trade.con goes there), started and logged in.
struct Trader {
    Trader(const std::string& dir, int port, const char* user = "trader1", const char* password = "pass1",
           TE_RESUME_TYPE resume = TE_RESUME_FROM_SAVED, unsigned heartbeat = 0)
        : api(CTulmQelcTraderApi::CreateQelcTraderApi((dir + "/").c_str())), spi(api, user, password) {
        api->RegisterSpi(&spi);
        std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        api->RegisterFront(address.c_str());
        api->SubscribePrivateTopic(resume);
        if (heartbeat) api->SetHeartbeatTimeout(heartbeat);
        started = api->Init() == 0;
    }
    ~Trader() {
        if (api->Release() == 0) api->Join();
    }
    bool logged_in(int n = 1) { return started && wait_until([&] { return spi.logins.load() >= n; }); }
    // Sends until accepted: the gate may hold a request for a moment.
    void order(const char* local, const char* client, char direction, double price, int volume) {
        wait_until([&] { return try_order(local, client, direction, price, volume) == 0; });
    }
    int try_order(const char* local, const char* client, char direction, double price, int volume) {
        // The public record has the wire record's layout: build the wire one.
        QelInputOrderField wire = fronttest::order(spi.user, local, direction, price, volume);
        strcpy(wire.ClientID, client);
        static_assert(sizeof(wire) == sizeof(CTulmQelcInputOrderField), "same layout");
        CTulmQelcInputOrderField o;
        memcpy(&o, &wire, sizeof(o));
        return api->ReqOrderInsert(&o, ++request);
    }

    CTulmQelcTraderApi* api;
    Spi spi;
    bool started = false;
    int request = 0;
};

Front::Config front_config(const std::string& data_dir = "") {
    Front::Config c;
    c.port = 0;
    c.quiet = true;
    c.key_form = Front::KEY_SM2;
    strcpy(c.trading_day, "20260105");
    strcpy(c.data_dir, data_dir.c_str());
    return c;
}

// 1, 2, 3, ... without gap or repeat.
bool counts_up(const std::vector<int>& v, int first) {
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i] != first + int(i)) return false;
    return true;
}

}  // namespace

TEST(TraderOnFront, LoginOrdersCancelAndQueries) {
    TempDir dir;
    Front::Server front(front_config());
    ASSERT_TRUE(front.start());
    Trader t(dir.path, front.get_port());
    ASSERT_TRUE(t.logged_in());
    t.order("000001", "C003", '1', 4000.0, 2);
    t.order("000002", "C001", '0', 4000.5, 3);
    ASSERT_TRUE(wait_until([&] { return t.spi.copy(t.spi.trades).size() == 2; }));
    EXPECT_EQ(t.spi.copy(t.spi.trades), (std::vector<std::string>{"000002:2@4000", "000001:2@4000"}));
    CTulmQelcOrderActionField cancel = {};
    strcpy(cancel.UserID, "trader1");
    strcpy(cancel.OrderLocalID, "000002");
    strcpy(cancel.ActionLocalID, "000003");
    cancel.ActionFlag = '0';
    ASSERT_EQ(t.api->ReqOrderAction(&cancel, 50), 0);
    ASSERT_TRUE(wait_until([&] { return t.spi.copy(t.spi.orders).size() == 5; }));
    EXPECT_EQ(t.spi.copy(t.spi.orders),
              (std::vector<std::string>{"0000013", "0000023", "0000021", "0000010", "0000025"}))
        << "new, new, part traded, all traded, cancelled";
    CTulmQelcQryOrderField qo = {};
    ASSERT_EQ(t.api->ReqQryOrder(&qo, 51), 0);
    CTulmQelcQryClientPositionField qp = {};
    ASSERT_EQ(t.api->ReqQryClientPosition(&qp, 52), 0);
    ASSERT_TRUE(wait_until([&] { return t.spi.queries_done.load() == 2; }));
    EXPECT_EQ(t.spi.copy(t.spi.queried), (std::vector<std::string>{"0000010", "0000025", "C0012" "2", "C0033" "2"}));
    EXPECT_TRUE(counts_up(t.spi.sequences(2), 1));
}

// A restarted trader asks for its private topic from where trade.con says,
// and gets the rest once; a restarted front serves the same flow from its
// data directory, and the trader, connecting again by itself, goes on from
// its position without a gap or a repeat.
TEST(TraderOnFront, PrivateTopicResumesAcrossRestartsOnceAndInOrder) {
    TempDir flows, data;
    Front::Config config = front_config(data.path);
    int port = 0;
    {
        Front::Server front(config);
        ASSERT_TRUE(front.start());
        port = front.get_port();
        {
            Trader t(flows.path, port);
            ASSERT_TRUE(t.logged_in());
            t.order("000001", "C001", '0', 3000.0, 1);
            t.order("000002", "C001", '0', 3000.0, 1);
            ASSERT_TRUE(wait_until([&] { return t.spi.sequences(2).size() == 2; }));
        }  // Release writes trade.con
        config.port = port;
    }
    Front::Server front(config);
    ASSERT_TRUE(front.start());
    Trader t(flows.path, port);
    ASSERT_TRUE(t.logged_in());
    t.order("000003", "C001", '0', 3000.0, 1);
    ASSERT_TRUE(wait_until([&] { return t.spi.sequences(2).size() == 1; }));
    EXPECT_EQ(t.spi.sequences(2), std::vector<int>{3}) << "the first two were taken before the restart";

    // The front goes and comes back on the same port: the trader connects
    // again and logs in from its callback.
    front.stop();
    ASSERT_TRUE(wait_until([&] { return !t.spi.copy(t.spi.reasons).empty(); }));
    ASSERT_TRUE(front.start());
    ASSERT_TRUE(t.logged_in(2));
    t.order("000004", "C001", '0', 3000.0, 1);
    ASSERT_TRUE(wait_until([&] { return t.spi.sequences(2).size() == 2; }));
    EXPECT_EQ(t.spi.sequences(2), (std::vector<int>{3, 4}));
    EXPECT_EQ(t.spi.copy(t.spi.orders), (std::vector<std::string>{"0000033", "0000043"}));
}

namespace {

// A front with one fault for the first connection only; the trader meets
// it, is told the reason, connects again by itself and logs in.
std::vector<int> fault_reasons(const Front::Faults& faults, unsigned heartbeat, int& logins) {
    TempDir flows;
    Front::Config config = front_config();
    config.faults = faults;
    Front::Server front(config);
    EXPECT_TRUE(front.start());
    Trader t(flows.path, front.get_port(), "trader1", "pass1", TE_RESUME_FROM_SAVED, heartbeat);
    EXPECT_TRUE(t.started);
    EXPECT_TRUE(wait_until([&] { return t.spi.connected.load() >= 1; }));
    front.set_faults(Front::Faults{});
    // Orders until the fault strikes: it comes at a frame count, however
    // slowly the login went.
    EXPECT_TRUE(wait_until([&] { return t.spi.logins.load() >= 1 || !t.spi.copy(t.spi.reasons).empty(); }));
    char local[13];
    for (int i = 1; i <= 1000 && t.spi.copy(t.spi.reasons).empty(); ++i) {
        snprintf(local, sizeof(local), "%06d", i);
        t.try_order(local, "C001", '0', 3000.0, 1);
        usleep(10000);
    }
    EXPECT_TRUE(wait_until([&] { return !t.spi.copy(t.spi.reasons).empty(); }));
    EXPECT_TRUE(wait_until([&] { return t.spi.logins.load() >= 2 && t.spi.connected.load() >= 2; }));
    logins = t.spi.logins.load();
    // Once and in order across the connections.
    std::vector<int> seen = t.spi.sequences(2);
    EXPECT_TRUE(counts_up(seen, seen.empty() ? 1 : seen.front()));
    return t.spi.copy(t.spi.reasons);
}

}  // namespace

TEST(TraderOnFront, EachFaultEndsWithItsReasonAndTheTraderComesBack) {
    int logins = 0;
    Front::Faults f{};
    f.corrupt_at = 4;
    EXPECT_EQ(fault_reasons(f, 0, logins).at(0), 0x1001);
    f = Front::Faults{};
    f.oversize_at = 4;
    EXPECT_EQ(fault_reasons(f, 0, logins).at(0), 0x2006);
    f = Front::Faults{};
    f.drop_after = 5;
    EXPECT_EQ(fault_reasons(f, 0, logins).at(0), 0x1001);
}

// A refused login is an answer, not a fault of the connection; sliced,
// stalled and delayed answers reach the trader whole and in order.
TEST(TraderOnFront, RefusedLoginAndSlowFrontsLoseNothing) {
    {
        TempDir flows;
        Front::Config config = front_config();
        config.faults.refuse_login = true;
        Front::Server front(config);
        ASSERT_TRUE(front.start());
        Trader t(flows.path, front.get_port());
        ASSERT_TRUE(wait_until([&] { return t.spi.login_errors.load() == 1; }));
        EXPECT_EQ(t.spi.logins.load(), 0);
        EXPECT_EQ(t.api->ReqOrderInsert(nullptr, 1), -1);
    }
    for (int which = 0; which < 3; ++which) {
        SCOPED_TRACE(which);
        TempDir flows;
        Front::Config config = front_config();
        if (which == 0) config.faults.slice = 61;
        if (which == 1) config.faults.stall_ms = 300;
        if (which == 2) config.faults.delay_ms = 30;
        Front::Server front(config);
        ASSERT_TRUE(front.start());
        Trader t(flows.path, front.get_port());
        ASSERT_TRUE(t.logged_in());
        char local[13];
        for (int i = 1; i <= 6; ++i) {
            snprintf(local, sizeof(local), "%06d", i);
            t.order(local, "C001", '0', 3000.0, 1);
        }
        ASSERT_TRUE(wait_until([&] { return t.spi.copy(t.spi.orders).size() == 6; }));
        EXPECT_EQ(t.spi.copy(t.spi.orders), (std::vector<std::string>{"0000013", "0000023", "0000033", "0000043", "0000053", "0000063"}));
        EXPECT_TRUE(counts_up(t.spi.sequences(2), 1));
        EXPECT_TRUE(t.spi.copy(t.spi.reasons).empty());
    }
}

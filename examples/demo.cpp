// Demo application: a trader on the library, against the simulated front
// started in this process. It logs in, subscribes to its private and the
// public topic, sends two orders that trade against each other and a third
// that rests, cancels that one, queries, and prints every callback as one
// line: the callback's name, then the record's members. Then it stops.
//
// Usage: demo [-f tcp://host:port]   (with -f, use that front instead)
//
// Copy it as the start of an application: everything but the front comes
// from QelcTraderApi.h.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "QelcTraderApi.h"
#include "front/server.h"

namespace {

// Prints "Callback Member=value ..." and the info's error, if any.
void show(const char* callback, const char* record_name, const void* record,
          const CTulmQelcRspInfoField* info = nullptr) {
    char text[8192] = "";
    if (record) Front::Server::record_text(record_name, record, text, sizeof(text));
    if (info && info->ErrorID != 0)
        std::printf("%s %s [error %d: %s]\n", callback, text, info->ErrorID, info->ErrorMsg);
    else
        std::printf("%s %s\n", callback, text);
    std::fflush(stdout);
}

class Trader : public CTulmQelcTraderSpi {
public:
    explicit Trader(CTulmQelcTraderApi* api) : api(api) {}

    void OnFrontConnected() override {
        std::printf("OnFrontConnected\n");
        CTulmQelcProductAuthField auth = {};
        std::strcpy(auth.AppID, "demo_app");
        std::strcpy(auth.AuthCode, "demo_code_16byte");
        api->ReqAuthenticate(&auth, next_request());
    }
    void OnFrontDisconnected(int reason) override { std::printf("OnFrontDisconnected reason=0x%x\n", reason); }
    void OnRspAuthenticate(CTulmQelcProductAuthField* auth, CTulmQelcRspInfoField* info, int, bool) override {
        show("OnRspAuthenticate", "ProductAuthField", auth, info);
        CTulmQelcReqUserLoginField login = {};
        std::strcpy(login.UserID, "trader1");
        std::strcpy(login.ParticipantID, "P001");
        std::strcpy(login.Password, "pass1");
        std::strcpy(login.UserProductInfo, "demo");
        api->ReqUserLogin(&login, next_request());
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField* login, CTulmQelcRspInfoField* info, int, bool) override {
        show("OnRspUserLogin", "RspUserLoginField", login, info);
        if (info && info->ErrorID == 0) done("login");
    }
    void OnRspError(CTulmQelcRspInfoField* info, int, bool) override { show("OnRspError", "RspInfoField", info); }
    void OnRspOrderInsert(CTulmQelcInputOrderField* order, CTulmQelcRspInfoField* info, int, bool) override {
        show("OnRspOrderInsert", "InputOrderField", order, info);
    }
    void OnRspOrderAction(CTulmQelcOrderActionField* action, CTulmQelcRspInfoField* info, int, bool) override {
        show("OnRspOrderAction", "OrderActionField", action, info);
    }
    void OnRtnOrder(CTulmQelcOrderField* order) override {
        show("OnRtnOrder", "OrderField", order);
        if (order->OrderStatus == '5') done("cancelled");
    }
    void OnRtnTrade(CTulmQelcTradeField* trade) override {
        show("OnRtnTrade", "TradeField", trade);
        if (++trades == 2) done("traded");  // one trade, seen from both sides
    }
    void OnRtnInstrumentStatus(CTulmQelcInstrumentStatusField* status) override {
        show("OnRtnInstrumentStatus", "InstrumentStatusField", status);
    }
    void OnRtnBulletin(CTulmQelcBulletinField* bulletin) override { show("OnRtnBulletin", "BulletinField", bulletin); }
    void OnRspQryOrder(CTulmQelcOrderField* order, CTulmQelcRspInfoField* info, int, bool last) override {
        show("OnRspQryOrder", "OrderField", order, info);
        if (last) done("query");
    }
    void OnRspQryTrade(CTulmQelcTradeField* trade, CTulmQelcRspInfoField* info, int, bool last) override {
        show("OnRspQryTrade", "TradeField", trade, info);
        if (last) done("query");
    }
    void OnRspQryClientPosition(CTulmQelcRspClientPositionField* position, CTulmQelcRspInfoField* info, int,
                                bool last) override {
        show("OnRspQryClientPosition", "RspClientPositionField", position, info);
        if (last) done("query");
    }
    void OnRspQryPartAccount(CTulmQelcRspPartAccountField* account, CTulmQelcRspInfoField* info, int,
                             bool last) override {
        show("OnRspQryPartAccount", "RspPartAccountField", account, info);
        if (last) done("query");
    }
    void OnRspQryInstrument(CTulmQelcRspInstrumentField* instrument, CTulmQelcRspInfoField* info, int,
                            bool last) override {
        show("OnRspQryInstrument", "RspInstrumentField", instrument, info);
        if (last) done("query");
    }

    int next_request() { return ++request; }

    // Waits up to 10 s for what a callback reports with done().
    bool wait(const std::string& what) {
        std::unique_lock<std::mutex> lock(mutex);
        bool ok = changed.wait_for(lock, std::chrono::seconds(10), [&] { return seen.find(what + ";") != std::string::npos; });
        if (ok) seen.erase(seen.find(what + ";"), what.size() + 1);
        else std::printf("demo: no %s within 10 s\n", what.c_str());
        return ok;
    }

private:
    void done(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex);
        seen += what + ";";
        changed.notify_all();
    }

    CTulmQelcTraderApi* api;
    int request = 0;
    int trades = 0;
    std::mutex mutex;
    std::condition_variable changed;
    std::string seen;
};

CTulmQelcInputOrderField order(const char* local, const char* client, char direction, double price, int volume) {
    CTulmQelcInputOrderField o = {};
    std::strcpy(o.ParticipantID, "P001");
    std::strcpy(o.UserID, "trader1");
    std::strcpy(o.ClientID, client);
    std::strcpy(o.InstrumentID, "qe2612");
    std::strcpy(o.OrderLocalID, local);
    o.OrderPriceType = '2';  // limit
    o.Direction = direction; // '0' buy, '1' sell
    o.CombOffsetFlag[0] = '0';
    o.CombHedgeFlag[0] = '1';
    o.LimitPrice = price;
    o.VolumeTotalOriginal = volume;
    o.TimeCondition = '3';   // good for the day
    o.VolumeCondition = '1'; // any volume
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    std::string address;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "-f") == 0) address = argv[i + 1];

    // The front, unless one was named: on 17001, or any free port if taken.
    Front::Config config;
    config.quiet = true;
    Front::Server* front = nullptr;
    if (address.empty()) {
        front = new Front::Server(config);
        if (!front->start()) {
            delete front;
            config.port = 0;
            front = new Front::Server(config);
            if (!front->start()) {
                std::printf("demo: the front can't start: %s\n", front->get_error());
                delete front;
                return 1;
            }
        }
        address = "tcp://127.0.0.1:" + std::to_string(front->get_port());
    }

    char flow_dir[64];
    std::snprintf(flow_dir, sizeof(flow_dir), "/tmp/qeldemo_%d/", int(getpid()));
    mkdir(flow_dir, 0700);
    int main_version = 0, build = 0;
    std::printf("%s, front %s\n", CTulmQelcTraderApi::GetVersion(main_version, build), address.c_str());

    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi(flow_dir);
    Trader trader(api);
    api->RegisterSpi(&trader);
    api->RegisterFront(address.c_str());
    api->SubscribePrivateTopic(TE_RESUME_FROM_START);
    api->SubscribePublicTopic(TE_RESUME_FROM_START);
    bool ok = api->Init() == 0;
    if (!ok) std::printf("demo: Init refused\n");
    ok = ok && trader.wait("login");
    if (ok) {
        // Client C003 sells 2, client C001 buys 3 at a better price: 2 trade
        // at the seller's price, 1 rests, and is cancelled.
        CTulmQelcInputOrderField sell = order("000001", "C003", '1', 4000.0, 2);
        CTulmQelcInputOrderField buy = order("000002", "C001", '0', 4000.5, 3);
        api->ReqOrderInsert(&sell, trader.next_request());
        api->ReqOrderInsert(&buy, trader.next_request());
        ok = trader.wait("traded");
    }
    if (ok) {
        CTulmQelcOrderActionField cancel = {};
        std::strcpy(cancel.ParticipantID, "P001");
        std::strcpy(cancel.UserID, "trader1");
        std::strcpy(cancel.OrderLocalID, "000002");
        std::strcpy(cancel.ActionLocalID, "000003");
        cancel.ActionFlag = '0';  // delete
        api->ReqOrderAction(&cancel, trader.next_request());
        ok = trader.wait("cancelled");
    }
    if (ok) {
        CTulmQelcQryOrderField orders = {};
        api->ReqQryOrder(&orders, trader.next_request());
        ok = trader.wait("query");
        CTulmQelcQryTradeField trades = {};
        api->ReqQryTrade(&trades, trader.next_request());
        ok = ok && trader.wait("query");
        CTulmQelcQryClientPositionField positions = {};
        api->ReqQryClientPosition(&positions, trader.next_request());
        ok = ok && trader.wait("query");
        CTulmQelcQryPartAccountField account = {};
        api->ReqQryPartAccount(&account, trader.next_request());
        ok = ok && trader.wait("query");
        CTulmQelcQryInstrumentField instrument = {};
        std::strcpy(instrument.InstrumentID, "qe2612");
        api->ReqQryInstrument(&instrument, trader.next_request());
        ok = ok && trader.wait("query");
    }

    if (api->Release() == 0) api->Join();  // Join frees the object
    delete front;  // stops it
    std::string con = std::string(flow_dir) + "trade.con";
    unlink(con.c_str());
    rmdir(flow_dir);
    std::printf(ok ? "demo: done\n" : "demo: failed\n");
    return ok ? 0 : 1;
}

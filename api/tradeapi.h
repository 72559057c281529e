// Api::TradeApi: the one implementation of CTulmQelcTraderApi.
//
// It holds the trader's configuration (fronts, name servers, topic resume
// types, heartbeat timeout), the connection and login state, and answers
// every operation with the result codes of the public header. The
// configuration calls are refused with -10 once Init has set the reactor;
// requests other than authentication and login are refused with -1 until a
// login succeeds. api_mutex guards the request side; the state flags are
// read without it.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "api/QelcTraderApi.h"
#include "sync/mutex.h"
#include "sync/sign.h"

namespace Parallel {
class FdReactor;
}

namespace Api {

class TradeApi : public CTulmQelcTraderApi {
public:
    static constexpr int MAX_FRONTS = 64;
    static constexpr int MAX_NAME_SERVERS = 16;
    static constexpr int ADDRESS_SIZE = 64;
    static constexpr unsigned int MIN_HEARTBEAT_TIMEOUT = 4;
    static constexpr unsigned int MAX_HEARTBEAT_TIMEOUT = 181;

    TradeApi(const char* flow_path, Parallel::FdReactor* given_reactor);
    virtual ~TradeApi();

    int Release() override;
    int Init() override;
    int Join() override;
    const char* GetTradingDay() override;
    int RegisterFront(const char* address) override;
    int RegisterNameServer(const char* address) override;
    void RegisterSpi(CTulmQelcTraderSpi* spi) override;
    int SubscribePrivateTopic(TE_RESUME_TYPE type) override;
    int SubscribePublicTopic(TE_RESUME_TYPE type) override;
    int SubscribeUserTopic(TE_RESUME_TYPE type) override;
    int SetHeartbeatTimeout(unsigned int seconds) override;
    int OpenRequestLog(const char* path) override;
    int OpenResponseLog(const char* path) override;
    int ReqUserLogin(CTulmQelcReqUserLoginField* field, int request) override;
    int ReqUserLogout(CTulmQelcReqUserLogoutField* field, int request) override;
    int ReqOrderInsert(CTulmQelcInputOrderField* field, int request) override;
    int ReqOrderAction(CTulmQelcOrderActionField* field, int request) override;
    int ReqQuoteInsert(CTulmQelcInputQuoteField* field, int request) override;
    int ReqQuoteAction(CTulmQelcQuoteActionField* field, int request) override;
    int ReqUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* field, int request) override;
    int ReqExecOrderInsert(CTulmQelcInputExecOrderField* field, int request) override;
    int ReqExecOrderAction(CTulmQelcExecOrderActionField* field, int request) override;
    int ReqAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* field, int request) override;
    int ReqAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* field, int request) override;
    int ReqQuoteDemand(CTulmQelcInputQuoteDemandField* field, int request) override;
    int ReqSubscribeTopic(CTulmQelcDisseminationField* field, int request) override;
    int ReqQryPartAccount(CTulmQelcQryPartAccountField* field, int request) override;
    int ReqQryOrder(CTulmQelcQryOrderField* field, int request) override;
    int ReqQryQuote(CTulmQelcQryQuoteField* field, int request) override;
    int ReqQryTrade(CTulmQelcQryTradeField* field, int request) override;
    int ReqQryClient(CTulmQelcQryClientField* field, int request) override;
    int ReqQryPartPosition(CTulmQelcQryPartPositionField* field, int request) override;
    int ReqQryClientPosition(CTulmQelcQryClientPositionField* field, int request) override;
    int ReqQryInstrument(CTulmQelcQryInstrumentField* field, int request) override;
    int ReqQryInstrumentStatus(CTulmQelcQryInstrumentStatusField* field, int request) override;
    int ReqQryHedgeVolume(CTulmQelcQryHedgeVolumeField* field, int request) override;
    int ReqQryExecOrder(CTulmQelcQryExecOrderField* field, int request) override;
    int ReqQryAbandonExecOrder(CTulmQelcQryAbandonExecOrderField* field, int request) override;
    int ReqQryMarketData(CTulmQelcQryMarketDataField* field, int request) override;
    int ReqQryBulletin(CTulmQelcQryBulletinField* field, int request) override;
    int ReqQryTopic(CTulmQelcDisseminationField* field, int request) override;
    int ReqQryExchangeRate(CTulmQelcQryExchangeRateField* field, int request) override;
    int ReqOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* field, int request) override;
    int ReqOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* field, int request) override;
    int ReqQryOptionSelfClose(CTulmQelcQryOptionSelfCloseField* field, int request) override;
    int ReqAuthenticate(CTulmQelcProductAuthField* field, int request) override;
    // Read-only views of the configuration, for the library and its tests.
    const char* get_flow_path() const { return flow_path; }
    int get_front_count() const { return front_count; }
    const char* get_front(int index) const { return fronts[index]; }
    int get_name_server_count() const { return name_server_count; }
    const char* get_name_server(int index) const { return name_servers[index]; }
    char get_address_mode() const { return address_mode; }
    unsigned int get_heartbeat_timeout() const { return heartbeat_timeout; }
    TE_RESUME_TYPE get_private_resume() const { return private_resume; }
    TE_RESUME_TYPE get_public_resume() const { return public_resume; }
    TE_RESUME_TYPE get_user_resume() const { return user_resume; }
    bool is_started() const { return reactor != nullptr; }

private:
    int add_address(char (*table)[ADDRESS_SIZE], int& count, int& other_count, int limit,
                    const char* address);
    int set_resume(TE_RESUME_TYPE& slot, TE_RESUME_TYPE type);
    int open_log(FILE*& log, const char* path);
    int check_login_gate();
    int request_not_ready();

    char flow_path[256];
    Parallel::FdReactor* given_reactor;
    Parallel::FdReactor* reactor;
    CTulmQelcTraderSpi* spi;
    char fronts[MAX_FRONTS][ADDRESS_SIZE];
    int front_count;
    char name_servers[MAX_NAME_SERVERS][ADDRESS_SIZE];
    int name_server_count;
    char address_mode;

    TE_RESUME_TYPE private_resume;
    TE_RESUME_TYPE public_resume;
    TE_RESUME_TYPE user_resume;
    bool private_pending;
    bool public_pending;
    bool user_pending;

    char trading_day[9];
    char max_order_local_id[13];
    bool logged_in;
    unsigned int heartbeat_timeout;
    // Reactor clock at connect, 0 while not connected: doubles as the
    // connected flag, read by application threads without the lock.
    std::atomic<uint64_t> link_time;

    FILE* request_log;
    FILE* response_log;

    Base::Sign release_sign;  // set by Release, waited on by Join
    Base::Mutex api_mutex;    // the one lock of the request side
};

}  // namespace Api

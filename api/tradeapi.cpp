#include "api/tradeapi.h"

#include <cstring>

#include "base/strings.h"

namespace Api {

TradeApi::TradeApi(const char* path, Parallel::FdReactor* reactor_given)
    : given_reactor(reactor_given),
      reactor(nullptr),
      spi(nullptr),
      front_count(0),
      name_server_count(0),
      address_mode('1'),
      private_resume(TE_RESUME_NONE),
      public_resume(TE_RESUME_NONE),
      user_resume(TE_RESUME_NONE),
      private_pending(true),
      public_pending(true),
      user_pending(true),
      logged_in(false),
      heartbeat_timeout(10),
      link_time(0),
      request_log(nullptr),
      response_log(nullptr),
      release_sign(0) {
    Base::str_ncpy(sizeof(flow_path) - 1, flow_path, path);
    std::memset(fronts, 0, sizeof(fronts));
    std::memset(name_servers, 0, sizeof(name_servers));
    std::memset(trading_day, 0, sizeof(trading_day));
    std::memset(max_order_local_id, 0, sizeof(max_order_local_id));
}

TradeApi::~TradeApi() {
    if (request_log) std::fclose(request_log);
    if (response_log) std::fclose(response_log);
}

int TradeApi::Init() {
    if (reactor != nullptr) return -5;
    // The network side joins here once the reactor, flows and sessions
    // exist; until then only a given reactor can start the object.
    if (given_reactor == nullptr) return -9;
    reactor = given_reactor;
    return 0;
}

int TradeApi::Release() {
    if (reactor == nullptr) return -9;
    release_sign.set();
    return 0;
}

int TradeApi::Join() {
    release_sign.join();
    delete this;
    return 0;
}

const char* TradeApi::GetTradingDay() { return trading_day; }

void TradeApi::RegisterSpi(CTulmQelcTraderSpi* callback) { spi = callback; }

// Registers into one table and empties the other, so that the table touched
// last wins: fronts and name servers never coexist.
int TradeApi::add_address(char (*table)[ADDRESS_SIZE], int& count, int& other_count, int limit,
                          const char* address) {
    if (reactor != nullptr) return -10;
    api_mutex.enter();
    other_count = 0;
    int result = -8;
    if (count < limit) {
        Base::str_ncpy(ADDRESS_SIZE - 1, table[count], address);
        ++count;
        result = 0;
    }
    api_mutex.leave();
    return result;
}

int TradeApi::RegisterFront(const char* address) {
    int result = add_address(fronts, front_count, name_server_count, MAX_FRONTS, address);
    if (result == 0) address_mode = '0';
    return result;
}

int TradeApi::RegisterNameServer(const char* address) {
    return add_address(name_servers, name_server_count, front_count, MAX_NAME_SERVERS, address);
}

int TradeApi::set_resume(TE_RESUME_TYPE& slot, TE_RESUME_TYPE type) {
    if (reactor != nullptr) return -10;
    slot = type;
    return 0;
}

int TradeApi::SubscribePrivateTopic(TE_RESUME_TYPE type) { return set_resume(private_resume, type); }
int TradeApi::SubscribePublicTopic(TE_RESUME_TYPE type) { return set_resume(public_resume, type); }
int TradeApi::SubscribeUserTopic(TE_RESUME_TYPE type) { return set_resume(user_resume, type); }

int TradeApi::SetHeartbeatTimeout(unsigned int seconds) {
    if (reactor != nullptr) return -10;
    if (seconds < MIN_HEARTBEAT_TIMEOUT) seconds = MIN_HEARTBEAT_TIMEOUT;
    if (seconds > MAX_HEARTBEAT_TIMEOUT) seconds = MAX_HEARTBEAT_TIMEOUT;
    heartbeat_timeout = seconds;
    return 0;
}

// Closes the log first: a failed reopen leaves the log off, never pointing
// at the old file.
int TradeApi::open_log(FILE*& log, const char* path) {
    if (log != nullptr) {
        std::fclose(log);
        log = nullptr;
    }
    log = std::fopen(path, "a+b");
    return log != nullptr ? 0 : -4;
}

int TradeApi::OpenRequestLog(const char* path) { return open_log(request_log, path); }
int TradeApi::OpenResponseLog(const char* path) { return open_log(response_log, path); }

int TradeApi::check_login_gate() {
    if (reactor == nullptr) return -9;
    if (logged_in) return -5;
    // No session is built yet, so the object never has a connection.
    return -12;
}

// Requests need the outbound flows, which do not exist before login.
int TradeApi::request_not_ready() { return -1; }

int TradeApi::ReqUserLogin(CTulmQelcReqUserLoginField* field, int request) { return check_login_gate(); }
int TradeApi::ReqUserLogout(CTulmQelcReqUserLogoutField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqOrderInsert(CTulmQelcInputOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqOrderAction(CTulmQelcOrderActionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQuoteInsert(CTulmQelcInputQuoteField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQuoteAction(CTulmQelcQuoteActionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqExecOrderInsert(CTulmQelcInputExecOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqExecOrderAction(CTulmQelcExecOrderActionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQuoteDemand(CTulmQelcInputQuoteDemandField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqSubscribeTopic(CTulmQelcDisseminationField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryPartAccount(CTulmQelcQryPartAccountField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryOrder(CTulmQelcQryOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryQuote(CTulmQelcQryQuoteField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryTrade(CTulmQelcQryTradeField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryClient(CTulmQelcQryClientField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryPartPosition(CTulmQelcQryPartPositionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryClientPosition(CTulmQelcQryClientPositionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryInstrument(CTulmQelcQryInstrumentField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryInstrumentStatus(CTulmQelcQryInstrumentStatusField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryHedgeVolume(CTulmQelcQryHedgeVolumeField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryExecOrder(CTulmQelcQryExecOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryAbandonExecOrder(CTulmQelcQryAbandonExecOrderField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryMarketData(CTulmQelcQryMarketDataField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryBulletin(CTulmQelcQryBulletinField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryTopic(CTulmQelcDisseminationField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryExchangeRate(CTulmQelcQryExchangeRateField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqQryOptionSelfClose(CTulmQelcQryOptionSelfCloseField* field, int request) { return logged_in ? request_not_ready() : -1; }
int TradeApi::ReqAuthenticate(CTulmQelcProductAuthField* field, int request) { return check_login_gate(); }
}  // namespace Api

#include "api/tradeapi.h"

#include <cstring>
#include <initializer_list>

#include "base/strings.h"

namespace Api {

TradeApi::TradeApi(const char* path, Parallel::FdReactor* reactor_given)
    : Network::ClientSession(reactor_given, nullptr, nullptr),
      given_reactor(reactor_given),
      reactor(nullptr),
      spi(nullptr),
      front_count(0),
      name_server_count(0),
      address_mode('1'),
      session_keys(true),
      crypt_ready(false),
      auth_sent(false),
      auth_ok(false),
      init_crypt_value(0),
      request_queue(nullptr),
      queue_iterator(nullptr),
      control_flow(nullptr),
      control_writer(nullptr),
      request_flow(nullptr),
      request_writer(nullptr),
      response_flow(nullptr),
      private_flow(nullptr),
      public_flow(nullptr),
      user_flow(nullptr),
      session(nullptr),
      tick_timer(nullptr),
      private_resume(TE_RESUME_NONE),
      public_resume(TE_RESUME_NONE),
      user_resume(TE_RESUME_NONE),
      private_pending(true),
      public_pending(true),
      user_pending(true),
      data_center_id(0),
      logged_in(false),
      heartbeat_timeout(10),
      packet(0, 0, 'L'),
      request_log(nullptr),
      response_log(nullptr),
      last_login_time(0),
      link_time(0),
      resume_file(nullptr),
      resume_file_length(0),
      release_sign(0),
      released(false) {
    Base::str_ncpy(sizeof(flow_path) - 1, flow_path, path);
    std::memset(fronts, 0, sizeof(fronts));
    std::memset(name_servers, 0, sizeof(name_servers));
    std::memset(session_auth_text, 0, sizeof(session_auth_text));
    std::memset(trading_day, 0, sizeof(trading_day));
    std::memset(resume_day, 0, sizeof(resume_day));
    std::memset(max_order_local_id, 0, sizeof(max_order_local_id));
    std::memset(participant_id, 0, sizeof(participant_id));
    std::memset(user_id, 0, sizeof(user_id));
    std::memset(app_id, 0, sizeof(app_id));
    std::memset(system_info, 0, sizeof(system_info));
    std::memset(request_field, 0, sizeof(request_field));
    std::memset(reply_buffers, 0, sizeof(reply_buffers));
    std::memset(log_scratch, 0, sizeof(log_scratch));
    std::memset(resume_text, 0, sizeof(resume_text));
    for (FluxValue* flux : {&trade_flux, &query_flux}) {
        flux->sent = 0;
        flux->answered.store(0, std::memory_order_relaxed);
        flux->window_base = 0;
        flux->stamp = 0;
        flux->max_per_second = 0;
        flux->max_on_way = 0;
    }
}

TradeApi::~TradeApi() {
    if (request_log) std::fclose(request_log);
    if (response_log) std::fclose(response_log);
    if (resume_file) std::fclose(resume_file);
}

int TradeApi::Init() {
    if (reactor != nullptr) return -5;
    // The network side joins here once the reactor, flows and sessions
    // exist; until then only a given reactor can start the object.
    if (given_reactor == nullptr) return -9;
    reactor = given_reactor;
    return 0;
}

int TradeApi::on_event(int event, void* argument) { return 0; }

void TradeApi::start_sessions() {}

void TradeApi::teardown() {}

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

void TradeApi::RegisterSpi(CTulmQelcTraderSpi* callback) { spi.store(callback, std::memory_order_release); }

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


}  // namespace Api

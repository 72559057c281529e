#include "api/tradeapi.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <initializer_list>

#include "base/measure.h"
#include "base/random.h"
#include "base/strings.h"
#include "network/qelcsession.h"
#include "network/uri.h"
#include "parallel/fdreactor.h"

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
      released(false),
      start_state(0) {
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

namespace {
// One address as Init keeps it: numeric IPv4 text and port; port 0 marks
// an entry skipped.
struct Address {
    char host[INET_ADDRSTRLEN];
    int port;
};
}  // namespace

// The addresses that Init keeps, by the index of the entry in its table.
struct TradeApi::Resolved {
    Address fronts[MAX_FRONTS];
    int front_count;
    Address name_servers[MAX_NAME_SERVERS];
    int name_server_count;
};

// Parses the entry and looks its host up for IPv4; the first address wins.
static void resolve(const char* text, Address* out) {
    out->port = 0;
    Base::Uri uri(text);
    if (uri.get_port() == 0 || uri.get_host() == nullptr) return;
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(uri.get_host(), nullptr, &hints, &found) != 0 || found == nullptr) return;
    const sockaddr_in* ip = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    if (inet_ntop(AF_INET, &ip->sin_addr, out->host, sizeof(out->host)) != nullptr)
        out->port = uri.get_port();
    freeaddrinfo(found);
}

int TradeApi::resolve_addresses(Resolved* out) {
    api_mutex.enter();
    out->front_count = front_count;
    out->name_server_count = name_server_count;
    for (int i = 0; i < front_count; ++i) resolve(fronts[i], &out->fronts[i]);
    for (int i = 0; i < name_server_count; ++i) resolve(name_servers[i], &out->name_servers[i]);
    api_mutex.leave();
    return 0;
}

int TradeApi::Init() {
    int fresh = 0;
    if (!start_state.compare_exchange_strong(fresh, 1, std::memory_order_acq_rel)) return -5;
    Parallel::FdReactor* used = given_reactor;
    if (used == nullptr) {
        used = new Parallel::FdReactor(nullptr);
        // Opt-in: QEL_BUSY_POLL=<cpu> pins the own reactor there, polling without naps.
        used->set_busy_poll(Parallel::busy_poll_cpu());
    }
    // Release: the configuration calls of other threads see a started
    // object from here on and answer -10.
    reactor.store(used, std::memory_order_release);
    read_resume();

    request_queue = new Base::DataFlow(0, 0x100000, 0x100000, nullptr, nullptr, 0, nullptr, true, false);
    queue_iterator = new Base::DataFlow::Iterator(request_queue, used, nullptr, nullptr);
    control_flow = new Network::QelcFlow(0, 0x100000, 0x100000, nullptr, nullptr, 0, nullptr, true, false);
    control_writer = new Network::QelcFlow::Writer(control_flow, false);
    request_flow = new Network::QelcFlow(1, 0xa00000, 0xa00000, nullptr, nullptr, 0, nullptr, true, false);
    request_writer = new Network::QelcFlow::Writer(request_flow, false);
    response_flow = new Network::QelcFlow(1, 0xa00000, 0xa00000, nullptr, this, 0, nullptr, false, false);
    struct Topic {
        TE_RESUME_TYPE type;
        Network::QelcFlow** flow;
        unsigned short subject;
    };
    const Topic topics[] = {
        {private_resume, &private_flow, 2}, {public_resume, &public_flow, 3}, {user_resume, &user_flow, 5}};
    for (const Topic& topic : topics)
        if (topic.type != TE_RESUME_NONE)
            *topic.flow = new Network::QelcFlow(topic.subject, 0xa00000, 0xa00000, nullptr, this,
                                                resume_start_id(topic.subject), nullptr, false, false);
    get_system_info(system_info);

    Resolved* addresses = new Resolved;
    resolve_addresses(addresses);
    if (given_reactor == nullptr) {
        start_sessions(addresses);
        used->create(true, nullptr);
    } else {
        // The given reactor runs already: the session is built and opened on
        // its thread, and Init returns once that is done.
        Base::Sign done(0);
        used->add_event(START_EVENT, addresses, &done, this, false);
        done.join();
    }
    delete addresses;
    // Release: a Release on another thread that sees 2 finds the object whole.
    start_state.store(2, std::memory_order_release);
    return 0;
}

// Steps from the session on; on the reactor thread, or before it starts.
void TradeApi::start_sessions(const Resolved* addresses) {
    Parallel::FdReactor* used = reactor.load(std::memory_order_relaxed);
    session = new Network::QelcBondClientSession(used, this, nullptr, 2);
    tick_timer = used->add_timer(1, 1000000, false, this, false);
    unsigned int order[MAX_FRONTS];
    unsigned int seed = static_cast<unsigned int>(Base::Measure::get_clock());
    if (addresses->front_count > 0) {
        Base::Random::shuffle(order, addresses->front_count, seed);
        for (int i = 0; i < addresses->front_count; ++i) {
            const Address& front = addresses->fronts[order[i]];
            if (front.port != 0) session->open(front.host, front.port);
        }
    }
    if (addresses->name_server_count > 0) {
        Base::Random::shuffle(order, addresses->name_server_count, seed);
        for (int i = 0; i < addresses->name_server_count; ++i) {
            const Address& server = addresses->name_servers[order[i]];
            if (server.port != 0) session->register_fens(server.host, server.port);
        }
    }
    used->add_handler(this);
}

int TradeApi::on_event(int event, void* argument) {
    switch (event) {
    case WAKE_EVENT:
        if (crypt_ready.load(std::memory_order_acquire)) drain_queue();
        break;
    case RELEASE_EVENT:
        teardown(argument != nullptr);
        break;
    case START_EVENT:
        start_sessions(static_cast<const Resolved*>(argument));
        break;
    case RESPONSE_LOG_EVENT:
        swap_response_log(static_cast<FILE*>(argument));
        break;
    default:
        break;
    }
    return 0;
}

// On the reactor thread. No callback runs in it: spi is null already, and
// the close that deleting the session brings is swallowed by
// on_disconnected, as released is set.
void TradeApi::teardown(bool from_callback) {
    Parallel::FdReactor* used = reactor.load(std::memory_order_relaxed);
    used->remove_handler(this);
    used->remove_timer(tick_timer);
    save_resume();
    // A request racing with Release finds logged_in and link_time clear
    // under the lock and refuses, instead of writing into a deleted flow.
    api_mutex.enter();
    logged_in.store(false, std::memory_order_relaxed);
    link_time.store(0, std::memory_order_relaxed);
    api_mutex.leave();
    delete session;
    delete user_flow;
    delete public_flow;
    delete private_flow;
    delete response_flow;
    delete request_writer;
    delete request_flow;
    delete control_writer;
    delete control_flow;
    delete queue_iterator;
    delete request_queue;
    // From a callback nobody waits for this event: it stops the own
    // reactor's thread (Join joins it) and sets the sign itself.
    if (from_callback && given_reactor == nullptr) {
        reactor_unjoined = true;
        used->stop();
    }
    // Sets the sign last: Join may free the object as soon as it is set.
    if (from_callback) release_sign.set();
}

// The own reactor's thread is joined here, but the reactor object lives on
// until Join, so that Join can still ask it whether it runs the caller.
int TradeApi::Release() {
    // Acquire pairs with Init's last store: everything Init built is visible.
    if (start_state.load(std::memory_order_acquire) != 2) return -9;
    Parallel::FdReactor* used = reactor.load(std::memory_order_relaxed);
    if (released.exchange(true, std::memory_order_acq_rel)) return -5;
    spi.store(nullptr, std::memory_order_release);
    if (used->is_current()) {
        // Inside a callback: the teardown runs once the callback returned.
        used->add_event(RELEASE_EVENT, this, nullptr, this, true);
        return 0;
    }
    Base::Sign done(0);
    used->add_event(RELEASE_EVENT, nullptr, &done, this, false);
    done.join();
    if (given_reactor == nullptr) {
        used->stop();
        used->join();
    }
    release_sign.set();
    return 0;
}

int TradeApi::Join() {
    Parallel::FdReactor* used = reactor.load(std::memory_order_acquire);
    if (used != nullptr && used->is_running() && used->is_current()) return -5;
    // A trader that never started has nothing to wait for: Release refused
    // it with -9 and will never set the sign, so waiting would hang for ever.
    if (used == nullptr) {
        delete this;
        return 0;
    }
    release_sign.join();
    if (given_reactor == nullptr && used != nullptr) {
        if (reactor_unjoined) used->join();
        delete used;
    }
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

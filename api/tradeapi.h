// Api::TradeApi: the one implementation of CTulmQelcTraderApi.
//
// Application threads call the public operations; the reactor's thread runs
// the connection events, the inbound dispatch (on_write), the events and the
// one-second tick, and so every callback of CTulmQelcTraderSpi.
//
// api_mutex guards the request side: request_field, the writers, the gate
// limits and counters (`answered` aside), max_order_local_id, participant_id,
// user_id, the address tables, the pending flags and the request log. The
// state flags, link_time, the `answered` counters and spi are atomics read
// without it. Every callback path loads spi once and calls through that copy.
//
// The implementation is split by concern, one source file each:
//   tradeapi.cpp       construction, configuration, Init, Join, Release, events
//   tradegate.cpp      the request gate, the in-process login queue, pacing
//   traderequests.cpp  orders, actions, quotes, exercises, queries
//   tradelogin.cpp     key exchange, authentication and login on the wire
//   tradedispatch.cpp  on_write: inbound packets to callbacks
//   traderesume.cpp    connection events, the tick, trade.con, topic resume
//   tradelog.cpp       the request and response logs
//   systeminfo.cpp     terminal information and the login token
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "api/QelcTraderApi.h"
#include "cipher/sm2.h"
#include "flow/dataflow.h"
#include "network/qelcflow.h"
#include "network/qelcpacket.h"
#include "network/session.h"
#include "parallel/reactor.h"
#include "sync/mutex.h"
#include "sync/sign.h"

namespace Base {
class FieldDesc;
}
namespace Parallel {
class FdReactor;
}
namespace Network {
class QelcBondClientSession;
class QelcClientSession;
}
struct QelRspInfoField;
struct QelUserapiAuthenticInfoField;

namespace Api {

struct RequestForm;  // what differs between two direct requests (traderequests.cpp)

class TradeApi : public CTulmQelcTraderApi,
                 public Network::ClientSession,
                 public Parallel::Handler,
                 public Base::DataFlow::WriteCallback {
public:
    static constexpr int MAX_FRONTS = 64;
    static constexpr int MAX_NAME_SERVERS = 16;
    static constexpr int ADDRESS_SIZE = 64;
    static constexpr unsigned int MIN_HEARTBEAT_TIMEOUT = 4;
    static constexpr unsigned int MAX_HEARTBEAT_TIMEOUT = 181;
    static constexpr int FIELD_BUFFER_SIZE = 4096;

    // Events of this object's handler.
    static constexpr int WAKE_EVENT = 1001;          // drain the login queue
    static constexpr int RELEASE_EVENT = 1002;       // teardown of Release
    static constexpr int START_EVENT = 1003;         // Init's session steps on a given reactor
    static constexpr int RESPONSE_LOG_EVENT = 1004;  // swap of the response log

    // One request gate: a rate window and a limit on unanswered requests.
    struct FluxValue {
        uint32_t sent;                  // let through since the connection began
        std::atomic<uint32_t> answered; // replies since then; reactor thread writes
        uint32_t window_base;           // `sent` when the rate window opened
        uint64_t stamp;                 // ms; window start or hold start; 0 none
        uint32_t max_per_second;        // 0: no limit
        uint32_t max_on_way;            // 0: no limit
    };

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

    // Reactor-thread entry points (traderesume.cpp, tradedispatch.cpp, tradeapi.cpp).
    void on_connected() override;
    void on_disconnected(int reason) override;
    void on_write(unsigned long id, const void* data, unsigned short size) override;
    int on_event(int event, void* argument) override;
    bool on_timer(int id) override;

    // Read-only views of the configuration and state, for the library and its tests.
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
    bool is_started() const { return reactor.load(std::memory_order_acquire) != nullptr; }

private:
    // ---- configuration (tradeapi.cpp) ----
    int add_address(char (*table)[ADDRESS_SIZE], int& count, int& other_count, int limit,
                    const char* address);
    int set_resume(TE_RESUME_TYPE& slot, TE_RESUME_TYPE type);

    // ---- start and stop (tradeapi.cpp) ----
    struct Resolved;  // the numeric addresses that Init keeps
    int resolve_addresses(Resolved* out);
    void start_sessions(const Resolved* addresses);  // Init's steps from the bond session on
    void teardown(bool from_callback);               // Release's work on the reactor thread
    // Set by a teardown that stopped the own reactor's thread without
    // joining it (Release from inside a callback); Join joins it. Written
    // before release_sign is set and read after Join took it.
    bool reactor_unjoined = false;

    // ---- request gate and login queue (tradegate.cpp) ----
    // Writes one record to request_queue under the gate; see ReqUserLogin.
    int queue_request(unsigned short packet_id, int request, const void* field, int size,
                      bool authenticate);
    void drain_queue();
    // The login pacing: 0 when the login may go on (after a sleep of a
    // second off the lock when the last one was under a second ago), -3 when
    // it would have to sleep on the reactor thread.
    int pace_login();

    // ---- direct requests (traderequests.cpp) ----
    int send_request(const RequestForm& form, void* field, int request);
    int write_request(const RequestForm& form, const void* field, int request);
    int check_local_id(const RequestForm& form, char* field);

    // ---- key exchange, authentication, login (tradelogin.cpp) ----
    void write_key_request();
    void on_api_req_authenticate(CTulmQelcProductAuthField* field, int request);
    void on_api_req_user_login(CTulmQelcReqUserLoginField* field, int request);
    void on_rsp_qry_crypt_info(CTulmQelcTraderSpi* callback);
    void on_rsp_authenticate(CTulmQelcTraderSpi* callback);
    void on_rsp_user_login(CTulmQelcTraderSpi* callback);
    void on_rsp_user_logout(CTulmQelcTraderSpi* callback);
    // The channel key that a crypt reply's key text gives: 0 and no key for
    // "0", 1 with type and key set, -1 for a text that gives no usable key.
    // auth_text is the public-key text this connection sent; keys deciphers.
    static int read_session_key(const char* text, const char* auth_text, Cipher::Sm2& keys,
                                unsigned char& type, unsigned long& key);
    // A topic's position in a login: its count, or -1 while resuming from now.
    void add_topic_position(Network::QelcPacket* out, short topic, bool pending, Base::DataFlow* flow,
                            TE_RESUME_TYPE resume);
    friend struct LoginProbe;  // tests drive the login steps directly

    // ---- inbound dispatch (tradedispatch.cpp) ----
    // Takes the iterator's next record; when its id is `id`, decodes it in
    // struct form into reply_buffers[buffer], ends every text member with a
    // zero and returns the buffer; otherwise null.
    void* take_record(unsigned short id, const Base::FieldDesc* desc, int buffer);
    // The same for the record the iterator stands on, by its generated
    // coder when one is given.
    void* decode_record(const Base::FieldDesc* desc, Network::QelcPacket::FromStreamCoder coder, int buffer);
  public:
    struct DispatchEntry;  // one row of the packet table
  private:
    // take_record with the row's record and coder.
    void* take_entry_record(const DispatchEntry* entry, int buffer);
    // Decodes the header of a stored frame into `packet` and attaches the
    // iterator to its body; false when the frame can't hold the headers.
    bool open_frame(const void* data, unsigned short size);
    void dispatch(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    void dispatch_rsp_error(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    void dispatch_reply(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    void dispatch_return(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    void dispatch_return_many(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    void dispatch_query(const DispatchEntry* entry, CTulmQelcTraderSpi* callback);
    // One more answer on a gate, never past its `sent`.
    void count_answer(FluxValue* flux);

    // ---- connection events, tick, trade.con, topic resume (traderesume.cpp) ----
    void read_resume();                          // Init: open and read trade.con
    unsigned long resume_start_id(int topic) const;
    void save_resume();                          // write trade.con now
    void on_intl_rtn_dissemination();
    void parse_resume();
    int build_resume_text();
    void make_resume_path(char* path) const;     // 256 bytes
    void reset_connection();                     // under api_mutex
    void warn_heartbeat(Network::QelcClientSession* current);
    // The members of topic 2, 3 or 5; null for any other topic.
    Network::QelcFlow** topic_flow(int topic);
    TE_RESUME_TYPE* topic_resume(int topic);
    bool* topic_pending(int topic);
    // (topic, position) pairs of trade.con as read by Init.
    struct ResumePair {
        unsigned short topic;
        unsigned int sequence;
    };
    ResumePair resume_pairs[3] = {};
    // Tests reach the reactor-thread state through this class.
    friend class TradeApiProbe;

    // ---- logs (tradelog.cpp) ----
    void swap_response_log(FILE* file);

    // ---- terminal information and token (systeminfo.cpp) ----
    bool encrypt_user_api_info(QelUserapiAuthenticInfoField* out);

    // ---- state ----
    char flow_path[256];
    Parallel::FdReactor* given_reactor;
    std::atomic<Parallel::FdReactor*> reactor;  // null until Init; tested without the lock
    std::atomic<CTulmQelcTraderSpi*> spi;       // null until RegisterSpi and again from Release
    char fronts[MAX_FRONTS][ADDRESS_SIZE];
    int front_count;
    char name_servers[MAX_NAME_SERVERS][ADDRESS_SIZE];
    int name_server_count;
    char address_mode;

    Cipher::Sm2 session_keys;       // new pair on every connection
    char session_auth_text[301];    // own public key as last sent
    std::atomic<bool> crypt_ready;
    std::atomic<bool> auth_sent;
    std::atomic<bool> auth_ok;
    int init_crypt_value;

    Base::DataFlow* request_queue;
    Base::DataFlow::Iterator* queue_iterator;
    Network::QelcFlow* control_flow;
    Network::QelcFlow::Writer* control_writer;
    Network::QelcFlow* request_flow;
    Network::QelcFlow::Writer* request_writer;
    Network::QelcFlow* response_flow;
    Network::QelcFlow* private_flow;
    Network::QelcFlow* public_flow;
    Network::QelcFlow* user_flow;
    Network::QelcBondClientSession* session;
    Parallel::Timer* tick_timer;

    TE_RESUME_TYPE private_resume;
    TE_RESUME_TYPE public_resume;
    TE_RESUME_TYPE user_resume;
    bool private_pending;
    bool public_pending;
    bool user_pending;

    char trading_day[9];
    char resume_day[9];
    char max_order_local_id[13];
    char participant_id[11];
    char user_id[16];
    char app_id[41];
    char system_info[301];
    int data_center_id;
    std::atomic<bool> logged_in;
    unsigned int heartbeat_timeout;

    alignas(8) char request_field[FIELD_BUFFER_SIZE];  // under api_mutex
    alignas(8) char reply_buffers[3][FIELD_BUFFER_SIZE];  // reactor thread only
    Network::QelcPacket packet;
    Network::QelcPacket::Iterator packet_iterator;

    FILE* request_log;
    FILE* response_log;
    char log_scratch[2][FIELD_BUFFER_SIZE];

    FluxValue trade_flux;
    FluxValue query_flux;
    uint64_t last_login_time;  // ms
    // Reactor clock at connect, 0 while not connected: doubles as the
    // connected flag, read by application threads without the lock.
    std::atomic<uint64_t> link_time;

    FILE* resume_file;
    long resume_file_length;
    char resume_text[1024];

    Base::Sign release_sign;  // set by Release, waited on by Join
    std::atomic<bool> released;
    // 0 new, 1 Init running, 2 started: Init claims the object with one
    // compare-and-swap, so two racing Inits start it once; Release waits for 2.
    std::atomic<int> start_state;
    Base::Mutex api_mutex;    // the one lock of the request side
};

// The gate test; the caller holds api_mutex. 0, or -2 (too many on the way)
// or -3 (too many this second). Never counts: the caller adds to `sent`.
int control_flux(TradeApi::FluxValue* flux);
// The same on a given clock reading in milliseconds.
int control_flux(TradeApi::FluxValue* flux, uint64_t now_ms);

// Sets the terminating zero at text[length] and tells whether the text is
// empty or all blanks.
bool is_null_string(char* text, int length);

// One log line: time, name, the info's error when given, then the record.
// size 0 writes the record as it stands (internal form); otherwise it is
// taken as a struct-form record of that size and converted through scratch.
void write_log(FILE* file, const QelRspInfoField* info, const char* name, const void* record,
               const Base::FieldDesc* desc, int size, char* scratch);
void write_log(FILE* file, const char* name, const void* record, const Base::FieldDesc* desc,
               int size, char* scratch);

// Terminal information (systeminfo.cpp).
int get_system_info(char* out);
void get_api_info(char* out, int length, const char* user_id);
void trans_str(char* text, int length, int limit);

}  // namespace Api

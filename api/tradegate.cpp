// The request gate (rate window and on-way hold), the in-process queue of
// authentication and login requests, and the login pacing.
#include <cstring>

#include "api/tradeapi.h"
#include "base/measure.h"
#include "parallel/fdreactor.h"

namespace Api {

static const uint64_t HOLD_MS = 10000;   // an on-way hold lasts this long
static const uint64_t WINDOW_MS = 1000;  // a rate window lasts this long
static const uint64_t LOGIN_GAP_MS = 1000;
static const unsigned short AUTHENTICATE_PACKET = 24746;
static const unsigned short LOGIN_PACKET = 4097;
static const int QUEUE_HEAD = 6;  // packet id (2) and request number (4), unaligned

static uint64_t now_ms() { return Base::Measure::get_clock() / 10000; }

// All arithmetic on the counters is unsigned 32 bits and only differences
// are compared, so nothing wraps: `answered` never passes `sent`.
int control_flux(TradeApi::FluxValue* flux, uint64_t now) {
    // Relaxed: answered is counted by the reactor thread; a stale value
    // only delays a request by one call.
    uint32_t answered = flux->answered.load(std::memory_order_relaxed);
    if (flux->max_on_way != 0 && flux->sent - answered >= flux->max_on_way) {
        if (flux->stamp == 0) flux->stamp = now;
        if (flux->stamp + HOLD_MS >= now) return -2;
        flux->stamp = 0;
    }
    if (flux->max_per_second == 0) return 0;
    if (flux->stamp + WINDOW_MS < now) {
        flux->window_base = flux->sent;
        flux->stamp = now;
        return 0;
    }
    return flux->sent - flux->window_base >= flux->max_per_second ? -3 : 0;
}

int control_flux(TradeApi::FluxValue* flux) { return control_flux(flux, now_ms()); }

int TradeApi::ReqAuthenticate(CTulmQelcProductAuthField* field, int request) {
    if (reactor.load(std::memory_order_acquire) == nullptr) return -9;
    if (link_time.load(std::memory_order_acquire) == 0) return -12;
    if (logged_in.load(std::memory_order_acquire)) return -5;
    static_assert(sizeof(CTulmQelcProductAuthField) == 58, "queue record of an authentication");
    return queue_request(AUTHENTICATE_PACKET, request, field, sizeof(*field), true);
}

int TradeApi::ReqUserLogin(CTulmQelcReqUserLoginField* field, int request) {
    if (reactor.load(std::memory_order_acquire) == nullptr) return -9;
    if (link_time.load(std::memory_order_acquire) == 0) return -12;
    if (is_null_string(field->UserProductInfo, sizeof(field->UserProductInfo) - 1)) return -6;
    if (logged_in.load(std::memory_order_acquire)) return -5;
    if (auth_sent.load(std::memory_order_acquire) && !auth_ok.load(std::memory_order_acquire)) return -7;
    int paced = pace_login();
    if (paced != 0) return paced;
    static_assert(sizeof(CTulmQelcReqUserLoginField) == 204, "queue record of a login");
    return queue_request(LOGIN_PACKET, request, field, sizeof(*field), false);
}

// last_login_time is read under the lock, but the sleep happens off it, so
// other requests go on meanwhile. The reactor thread never sleeps: a login
// from inside a callback that comes too soon is refused with -3, and the
// application tries again, as after any gate refusal.
int TradeApi::pace_login() {
    api_mutex.enter();
    uint64_t last = last_login_time;
    api_mutex.leave();
    if (last + LOGIN_GAP_MS <= now_ms()) return 0;
    if (reactor.load(std::memory_order_relaxed)->is_current()) return -3;
    Base::Measure::sleep(static_cast<unsigned int>(LOGIN_GAP_MS));
    return 0;
}

int TradeApi::queue_request(unsigned short packet_id, int request, const void* field, int size,
                            bool authenticate) {
    api_mutex.enter();
    // Tested again under the lock: on_connected sets link_time only after
    // it cleared the queue, so a record written now belongs to this link.
    if (link_time.load(std::memory_order_acquire) == 0) {
        api_mutex.leave();
        return -12;
    }
    int result = control_flux(&trade_flux);
    if (result < 0) {
        api_mutex.leave();
        return result;
    }
    ++trade_flux.sent;
    if (!authenticate) last_login_time = now_ms();
    char* record = request_queue->alloc_object(static_cast<unsigned short>(QUEUE_HEAD + size));
    std::memcpy(record, &packet_id, 2);
    std::memcpy(record + 2, &request, 4);
    std::memcpy(record + QUEUE_HEAD, field, size);
    request_queue->commit_object(static_cast<unsigned short>(QUEUE_HEAD + size), true);
    if (authenticate) auth_sent.store(true, std::memory_order_release);
    api_mutex.leave();
    reactor.load(std::memory_order_relaxed)->add_event(WAKE_EVENT, nullptr, nullptr, this, false);
    return 0;
}

// Reactor thread, once the keys are settled. Each record is copied out of
// the queue first: behind its 6-byte head it sits unaligned.
void TradeApi::drain_queue() {
    while (const Base::DataFlow::Item* item = queue_iterator->next()) {
        if (item->length < QUEUE_HEAD) continue;
        unsigned short packet_id;
        int request;
        std::memcpy(&packet_id, item->data, 2);
        std::memcpy(&request, item->data + 2, 4);
        if (packet_id == AUTHENTICATE_PACKET && item->length >= QUEUE_HEAD + sizeof(CTulmQelcProductAuthField)) {
            CTulmQelcProductAuthField auth;
            std::memcpy(&auth, item->data + QUEUE_HEAD, sizeof(auth));
            on_api_req_authenticate(&auth, request);
        } else if (packet_id == LOGIN_PACKET &&
                   item->length >= QUEUE_HEAD + sizeof(CTulmQelcReqUserLoginField)) {
            CTulmQelcReqUserLoginField login;
            std::memcpy(&login, item->data + QUEUE_HEAD, sizeof(login));
            on_api_req_user_login(&login, request);
            std::memset(login.Password, 0, sizeof(login.Password));
        }
    }
}

}  // namespace Api

// Connection events, the one-second tick, trade.con and the resume of the
// topic flows.
//
// trade.con is a short text: a line of the trading day and the data centre,
// then a line (topic id, position) for each topic flow that exists, in the
// order 2, 3, 5. It is rewritten every second while connected, on each
// disconnection and at Release, and must read back whole after a crash of
// the process at any instant. So the text is written in one pwrite at
// offset 0, never longer than a page and padded with blanks over what the
// old text held (a blank line is skipped on reading), and only then is the
// file cut to the new length. A write of up to a page at a page boundary
// reaches the page cache whole or not at all, whatever kills the process,
// so every state the file passes through is either the old text, or the new
// text followed by blanks, or the new text alone.
#include "api/tradeapi.h"

#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <cstring>

#include "base/file.h"
#include "base/measure.h"
#include "base/print.h"
#include "network/qelcchannel.h"
#include "network/qelcsession.h"
#include "parallel/fdreactor.h"
#include "record/gen/qelfield.h"

namespace Api {

namespace {

const int TOPICS[3] = {2, 3, 5};
const unsigned int TOPIC_BLOCK_SIZE = 0xa00000;
const unsigned long CLOCK_SECOND = 10000000;  // reactor clock units (100 ns) in a second

// A disconnection reason of the channel as the application sees it.
int map_disconnect_reason(int reason) {
    switch (reason) {
    case -11:
    case -12: return 0x1001;
    case -13: return 0x1002;
    case -14: return 0x2001;
    case -23: return 0x2002;
    case -24: return 0x2003;
    case -16: return 0x2004;
    case -17: return 0x2005;
    case -19: return 0x2006;
    case -22: return 0x2007;
    case -25: return 0x2008;
    default: return reason;
    }
}

}  // namespace

Network::QelcFlow** TradeApi::topic_flow(int topic) {
    switch (topic) {
    case 2: return &private_flow;
    case 3: return &public_flow;
    case 5: return &user_flow;
    default: return nullptr;
    }
}

TE_RESUME_TYPE* TradeApi::topic_resume(int topic) {
    switch (topic) {
    case 2: return &private_resume;
    case 3: return &public_resume;
    case 5: return &user_resume;
    default: return nullptr;
    }
}

bool* TradeApi::topic_pending(int topic) {
    switch (topic) {
    case 2: return &private_pending;
    case 3: return &public_pending;
    case 5: return &user_pending;
    default: return nullptr;
    }
}

void TradeApi::make_resume_path(char* path) const {
    // A longer path is cut at 255 characters; the open then names what is left.
    const int length = std::snprintf(path, 256, "%s%ctrade.con", flow_path[0] ? flow_path : ".", '/');
    if (length >= 256) path[255] = 0;
}

// ---- trade.con --------------------------------------------------------------

// Opens trade.con for the life of the object (creating it when missing) and
// takes the day, the data centre and up to three positions from it. Nothing
// in the file is trusted: a line that doesn't match is skipped, and the
// table of positions is only ever read by resume_start_id.
void TradeApi::read_resume() {
    std::memset(resume_pairs, 0, sizeof(resume_pairs));
    char path[256];
    make_resume_path(path);
    const bool exists = Base::File::is_exist(path);
    resume_file = std::fopen(path, exists ? "r+b" : "w+b");
    if (resume_file == nullptr) {
        EPRINT("ERR! open file failed: [%s]\n", path);
        return;
    }
    if (exists) parse_resume();
    long length = 0;
    if (Base::File::get_length(resume_file, length)) resume_file_length = length;
}

void TradeApi::parse_resume() {
    char line[1024];
    if (!Base::File::read_line(resume_file, line, sizeof(line))) return;
    int day = 0;
    int center = 0;
    if (std::sscanf(line, "%8d,%3d", &day, &center) == 2) {
        if (day != 0) {
            std::snprintf(trading_day, sizeof(trading_day), "%8d", day);
            std::snprintf(resume_day, sizeof(resume_day), "%8d", day);
        }
        data_center_id = center;
    }
    int taken = 0;
    while (taken < 3 && Base::File::read_line(resume_file, line, sizeof(line))) {
        unsigned short topic = 0;
        unsigned int sequence = 0;
        if (std::sscanf(line, "%5hu,%10u", &topic, &sequence) != 2) continue;
        resume_pairs[taken].topic = topic;
        resume_pairs[taken].sequence = sequence;
        ++taken;
    }
}

unsigned long TradeApi::resume_start_id(int topic) const {
    const TE_RESUME_TYPE* type = const_cast<TradeApi*>(this)->topic_resume(topic);
    if (type == nullptr || *type != TE_RESUME_FROM_SAVED) return 0;
    for (const ResumePair& pair : resume_pairs)
        if (pair.topic == topic) return pair.sequence;
    return 0;
}

// Builds the text in resume_text; returns its length.
int TradeApi::build_resume_text() {
    const int day = static_cast<int>(std::strtol(resume_day, nullptr, 10));
    int length = std::snprintf(resume_text, sizeof(resume_text), "%8d,%3d\n", day, data_center_id);
    for (int topic : TOPICS) {
        const Network::QelcFlow* flow = *topic_flow(topic);
        if (flow == nullptr) continue;
        length += std::snprintf(resume_text + length, sizeof(resume_text) - length, "%5hu,%10u\n",
                                static_cast<unsigned short>(topic),
                                static_cast<unsigned int>(flow->get_count()));
    }
    return length;
}

void TradeApi::save_resume() {
    if (resume_file == nullptr) return;
    const int length = build_resume_text();
    // Blank out what the old text held beyond the new one in the same write;
    // the text area is far smaller than a page, so the write is one piece.
    int written = length;
    if (resume_file_length > length) {
        written = resume_file_length < static_cast<long>(sizeof(resume_text))
                      ? static_cast<int>(resume_file_length)
                      : static_cast<int>(sizeof(resume_text));
        std::memset(resume_text + length, ' ', written - length);
        resume_text[written - 1] = '\n';
    }
    const int fd = fileno(resume_file);
    if (::pwrite(fd, resume_text, written, 0) != written) return;
    if (resume_file_length > length && ::ftruncate(fd, length) != 0) return;
    resume_file_length = length;
}

// ---- connection events ------------------------------------------------------

void TradeApi::on_connected() {
    Network::ClientSession::on_connected();
    Network::QelcClientSession* current = session ? session->get_current() : nullptr;
    if (current) {
        current->set_heartbeat_timeout(heartbeat_timeout);
        current->enable_compress();
    }
    Parallel::FdReactor* own = reactor.load(std::memory_order_acquire);
    if (own && tick_timer) own->enable_timer(tick_timer, false);
    api_mutex.enter();
    reset_connection();
    for (FluxValue* flux : {&trade_flux, &query_flux}) {
        flux->max_per_second = 64;
        flux->max_on_way = 32;
    }
    api_mutex.leave();
    write_key_request();
    if (session) {
        session->subscribe(response_flow, nullptr, 0, false);
        session->publish(request_flow, 0, nullptr, nullptr);
        session->publish(control_flow, 0, nullptr, nullptr);
    }
    // Last: an application thread that sees link_time set (acquire) sees
    // the flows and the queue cleared for this connection.
    link_time.store(Base::Measure::get_clock(), std::memory_order_release);
    CTulmQelcTraderSpi* callback = spi.load(std::memory_order_acquire);
    if (callback) callback->OnFrontConnected();
}

void TradeApi::on_disconnected(int reason) {
    Network::ClientSession::on_disconnected(reason);
    // Release's teardown writes trade.con itself and reports nothing.
    if (released.load(std::memory_order_acquire)) return;
    Parallel::FdReactor* own = reactor.load(std::memory_order_acquire);
    if (own && tick_timer) own->disable_timer(tick_timer);
    // The positions as of the disconnection reach the file, also when no
    // channel is current any more.
    if (session && session->get_current())
        on_timer(1);
    else
        save_resume();
    api_mutex.enter();
    reset_connection();
    // Every flow that was carried or subscribed on this connection goes into
    // the next login.
    for (int topic : TOPICS)
        if (*topic_flow(topic)) *topic_pending(topic) = true;
    api_mutex.leave();
    link_time.store(0, std::memory_order_release);
    if (session) session->set_cipher(0, 0);
    CTulmQelcTraderSpi* callback = spi.load(std::memory_order_acquire);
    if (callback) callback->OnFrontDisconnected(map_disconnect_reason(reason));
}

// What every connection starts afresh with; the caller holds api_mutex.
void TradeApi::reset_connection() {
    for (Base::DataFlow* flow : {static_cast<Base::DataFlow*>(response_flow),
                                 static_cast<Base::DataFlow*>(request_flow),
                                 static_cast<Base::DataFlow*>(control_flow), request_queue})
        if (flow) flow->clear(0);
    if (queue_iterator) queue_iterator->seek(0);
    auth_sent.store(false, std::memory_order_release);
    auth_ok.store(false, std::memory_order_release);
    logged_in.store(false, std::memory_order_release);
    crypt_ready.store(false, std::memory_order_release);
    std::memset(participant_id, 0, sizeof(participant_id));
    std::memset(user_id, 0, sizeof(user_id));
    for (FluxValue* flux : {&trade_flux, &query_flux}) {
        flux->sent = 0;
        flux->answered.store(0, std::memory_order_relaxed);
        flux->window_base = 0;
        flux->stamp = 0;
        flux->max_per_second = 0;
        flux->max_on_way = 0;
    }
}

// ---- the one-second tick ----------------------------------------------------

bool TradeApi::on_timer(int id) {
    if (id != 1) return true;
    Network::QelcClientSession* current = session ? session->get_current() : nullptr;
    if (current == nullptr) return true;
    warn_heartbeat(current);
    // on_write has taken every stored frame already: the inbound flows keep
    // only their counts.
    for (Network::QelcFlow* flow : {response_flow, private_flow, public_flow, user_flow})
        if (flow) flow->recycle(~0ul);
    save_resume();
    return true;
}

// A warning when the channel has been silent for more than half of the
// heartbeat timeout in force on it (the front may have announced its own),
// at most once every half.
void TradeApi::warn_heartbeat(Network::QelcClientSession* current) {
    const Network::QelcClientChannel* channel = current->get_client_channel();
    if (channel == nullptr) return;
    const unsigned long idle = current->get_idle_timeout();
    const unsigned long half = static_cast<unsigned long>(channel->get_heartbeat_timeout() / 2) * CLOCK_SECOND;
    const uint64_t now = Base::Measure::get_clock();
    if (idle <= half || now - link_time.load(std::memory_order_relaxed) <= half) return;
    link_time.store(now, std::memory_order_release);
    CTulmQelcTraderSpi* callback = spi.load(std::memory_order_acquire);
    if (callback) callback->OnHeartBeatWarning(static_cast<int>(idle / CLOCK_SECOND));
}

// ---- the front's positions --------------------------------------------------

// One QelDisseminationField per topic: the front's word on where each flow
// stands overrules the client's. A topic flow that doesn't exist yet comes
// into being here.
void TradeApi::on_intl_rtn_dissemination() {
    const int length = packet.get_header().BodyLength;
    for (int taken = 0; packet_iterator.get_position() < length; ++taken) {
        const QelDisseminationField* topic = static_cast<const QelDisseminationField*>(
            take_record(QelDisseminationField::DESC.id, &QelDisseminationField::DESC, taken % 3));
        if (topic == nullptr) return;
        Network::QelcFlow** slot = topic_flow(topic->SequenceSeries);
        if (slot == nullptr) continue;
        if (*slot == nullptr) {
            api_mutex.enter();
            *topic_pending(topic->SequenceSeries) = false;
            api_mutex.leave();
            *slot = new Network::QelcFlow(static_cast<unsigned short>(topic->SequenceSeries),
                                          TOPIC_BLOCK_SIZE, TOPIC_BLOCK_SIZE, nullptr, this, 0, nullptr,
                                          false, false);
        }
        // Positions are 32-bit on the wire and in trade.con.
        (*slot)->clear(static_cast<unsigned int>(topic->SequenceNo));
        TE_RESUME_TYPE* type = topic_resume(topic->SequenceSeries);
        if (*type == TE_RESUME_FROM_NOW) *type = TE_RESUME_FROM_SAVED;
        std::memcpy(resume_day, trading_day, sizeof(resume_day));
        if (session) session->subscribe(*slot, nullptr, 0, false);
    }
}

}  // namespace Api

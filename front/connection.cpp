#include "front/connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/byteorder.h"
#include "base/measure.h"
#include "flow/datareader.h"
#include "front/exchange.h"
#include "network/channel.h"
#include "network/qelcchannel.h"
#include "network/tcpsocket.h"
#include "network/xmppacket.h"
#include "parallel/fdreactor.h"

namespace Front {

namespace {

const unsigned int FLOW_BLOCK = 0x100000;
const int PUMP_PERIOD = 1000;  // microseconds
const unsigned long TICKS_PER_MS = 10000;

unsigned long now_ms() { return Base::Measure::get_clock() / TICKS_PER_MS; }

}  // namespace

Connection::Connection(Exchange* ex, Parallel::FdReactor* r, const Faults& f, int n)
    : Network::QelcClientSession(r, nullptr, nullptr, nullptr, 1),
      exchange(ex),
      faults(f),
      number(n),
      inbound(new Network::QelcFlow(1, FLOW_BLOCK, FLOW_BLOCK, nullptr, this, 0, nullptr, false, false)),
      response(new Network::QelcFlow(1, FLOW_BLOCK, FLOW_BLOCK, nullptr, nullptr, 0, nullptr, false, false)),
      response_writer(response, false),
      pump_timer(nullptr),
      pending_frame_end(0),
      pending_is_data(false),
      frames_out(0),
      stall_until(0),
      silent(false),
      delay_timer(nullptr),
      cipher_type(0),
      cipher_key(0) {
    if (faults.raw()) pump_timer = r->add_timer(TIMER_PUMP, PUMP_PERIOD, false, this, false);
    if (faults.delay_ms > 0) delay_timer = r->add_timer(TIMER_DELAY, PUMP_PERIOD, false, this, false);
}

Connection::~Connection() {
    if (pump_timer) reactor->remove_timer(pump_timer);
    if (delay_timer) reactor->remove_timer(delay_timer);
    // The channel lets go of its readers on our flows before they go.
    close(Network::REASON_CLOSED);
    for (Out& out : outs) delete out.iterator;
    delete inbound;
    delete response;
}

void Connection::on_connected() {
    Network::QelcClientSession::on_connected();
    subscribe(inbound, nullptr, 0, false);
    if (!faults.raw()) {
        publish(response, 0, nullptr, nullptr, nullptr);
        return;
    }
    // The pump sends the channel's control frames too, so that a sliced
    // data frame is never cut by a heartbeat.
    Network::QelcClientChannel* channel = get_client_channel();
    cancel_publish(channel->get_control_flow());
    for (Base::DataFlow* flow : {static_cast<Base::DataFlow*>(channel->get_control_flow()),
                                 static_cast<Base::DataFlow*>(response)}) {
        Base::DataFlow::Iterator* it = new Base::DataFlow::Iterator(flow, nullptr, nullptr, nullptr);
        it->seek(0);
        outs.push_back(Out{flow, it});
    }
    reactor->enable_timer(pump_timer, true);
}

void Connection::on_write(unsigned long, const void* data, unsigned short size) {
    if (faults.delay_ms <= 0) {
        exchange->handle(this, static_cast<const char*>(data));
        return;
    }
    delayed.push_back(Delayed{now_ms() + unsigned(faults.delay_ms),
                              std::string(static_cast<const char*>(data), size)});
    reactor->enable_timer(delay_timer, false);
}

void Connection::handle_due() {
    unsigned long now = now_ms();
    while (!delayed.empty() && delayed.front().due <= now) {
        Delayed d = std::move(delayed.front());
        delayed.pop_front();
        exchange->handle(this, d.frame.data());
        if (!get_client_channel()->is_valid()) return;
    }
}

bool Connection::on_timer(int id) {
    if (id == TIMER_PUMP) return pump();
    if (id == TIMER_DELAY) {
        handle_due();
        return !delayed.empty();
    }
    return Network::QelcClientSession::on_timer(id);
}

int Connection::on_event(int id, void* data) {
    if (id != EVENT_CIPHER) return Network::QelcClientSession::on_event(id, data);
    switch_cipher();
    return 0;
}

void Connection::start_cipher(unsigned char type, unsigned long key) {
    cipher_type = type;
    cipher_key = key;
    switch_cipher();
}

// The key answer must leave in clear and the client's next frame is already
// enciphered, so the switch comes right behind the answer: every frame
// queued so far is put into its final form (sent, or waiting in the write
// buffer in clear), then the cipher changes, before anything is read again.
// A socket too full to take the queue has the switch tried again at the
// next pass.
void Connection::switch_cipher() {
    Network::QelcClientChannel* channel = get_client_channel();
    if (!channel->is_valid()) return;
    flush();
    if (!channel->is_valid()) return;
    // Bytes left in the write buffer are final already; frames the reply
    // flow still holds are not.
    Network::FlowChannel::PubItem* replies = channel->get_pub_item(1);
    if (replies && replies->reader && replies->reader->available()) {
        reactor->add_event(EVENT_CIPHER, nullptr, nullptr, this, true);
        return;
    }
    set_cipher(cipher_type, cipher_key);
}

void Connection::publish_topic(Network::QelcFlow* flow, unsigned long from) {
    for (Network::QelcFlow* f : published) {
        if (f != flow) continue;
        if (!faults.raw()) {
            cancel_publish(flow);
        } else {
            for (Out& out : outs)
                if (out.flow == flow) out.iterator->seek(from);
            return;
        }
    }
    published.push_back(flow);
    if (!faults.raw()) {
        publish(flow, from, nullptr, nullptr, nullptr);
        return;
    }
    Base::DataFlow::Iterator* it = new Base::DataFlow::Iterator(flow, nullptr, nullptr, nullptr);
    it->seek(from);
    outs.push_back(Out{flow, it});
}

void Connection::begin_stall() {
    if (faults.stall_ms > 0) stall_until = now_ms() + unsigned(faults.stall_ms);
}

void Connection::drop(int reason) {
    if (get_client_channel()->is_valid()) close(reason);
}

void Connection::recycle() {
    unsigned long count = inbound->get_count();
    if (count > inbound->get_start_id()) inbound->recycle(count);
}

// Takes the next frame into pending: control frames first, then the data
// flows in the order they were published.
bool Connection::next_frame() {
    for (size_t i = 0; i < outs.size(); ++i) {
        const Base::DataFlow::Item* item = outs[i].iterator->next();
        if (!item) continue;
        std::string frame(item->data, item->length);
        pending_is_data = i > 0;
        if (pending_is_data) {
            ++frames_out;
            if (faults.corrupt_at > 0 && frames_out == unsigned(faults.corrupt_at)) frame[4] = 9;
            if (faults.oversize_at > 0 && frames_out == unsigned(faults.oversize_at)) {
                // A Length that no frame may have; the reader stops at the header.
                frame.assign(64, '\0');
                frame[0] = 2;
                Base::put_be16(&frame[2], 65000);
            }
        }
        pending += frame;
        pending_frame_end = pending.size();
        return true;
    }
    return false;
}

bool Connection::pump() {
    Network::QelcClientChannel* channel = get_client_channel();
    if (!channel->is_valid()) return false;
    if (silent || now_ms() < stall_until) return true;
    for (int round = 0; round < 64; ++round) {
        if (pending.empty() && !next_frame()) return true;
        size_t piece = pending.size();
        if (faults.slice > 0 && piece > size_t(faults.slice)) piece = size_t(faults.slice);
        ssize_t n = ::send(channel->get_socket()->get_fd(), pending.data(), piece, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
        if (n <= 0) {
            drop(Network::REASON_SEND_FAILED);
            return false;
        }
        pending.erase(0, size_t(n));
        if (!pending.empty()) {
            if (faults.slice > 0) return true;  // one piece a tick
            continue;
        }
        if (pending_is_data) {
            if (faults.drop_after > 0 && frames_out >= unsigned(faults.drop_after)) {
                drop(Network::REASON_PEER_CLOSED);
                return false;
            }
            if (faults.silent_after > 0 && frames_out >= unsigned(faults.silent_after)) {
                silent = true;
                return true;
            }
        }
        if (faults.slice > 0) return true;
    }
    return true;
}

}  // namespace Front

#include "network/qelcchannel.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "flow/datareader.h"
#include "containers/list.h"
#include "containers/map.h"
#include "base/reportable.h"
#include "base/byteorder.h"
#include "network/crppacket.h"
#include "network/qelcflow.h"
#include "network/session.h"
#include "parallel/fdreactor.h"
#include "base/switches.h"

namespace Network {

namespace {

const unsigned short CONTROL_SUBJECT = 0xFFFF;
const int PREFIX = 6;          // Xmp and Crp headers
const int QELC_HEADER = 20;
const int BODY_LENGTH_AT = 14;  // in the Qelc header
const int SUBJECT_AT = 2;
const int SEQUENCE_LOW_AT = 8;
const int SEQUENCE_HIGH_AT = 12;

inline unsigned long reactor_clock() { return Base::read_clock(); }

inline bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

Base::Map* make_subject_map() {
    return new Base::Map(FlowChannel::subject_hash_func, FlowChannel::subject_equal_func, 53,
                         sizeof(unsigned short), 0, 64);
}

}  // namespace

// ---- construction -----------------------------------------------------------

QelcClientChannel::QelcClientChannel(Parallel::FdReactor* r, ClientSession* s,
                                     Base::Reportable* rep, int buffer_factor)
    : FlowChannel(r, rep),
      session(s),
      factor(buffer_factor < 1 ? 1 : buffer_factor),
      compress(false),
      last_heartbeat(0),
      last_write(0),
      last_read(reactor_clock()),
      heartbeat_timeout(60),
      pending(0),
      last_reason(0) {
    read_buffer = new char[size_t(BUFFER_SIZE) * factor];
    inflate_buffer = new char[size_t(BUFFER_SIZE) * factor];
    decipher_buffer = new char[BUFFER_SIZE];
    write_buffer = new char[size_t(BUFFER_SIZE) * factor];
    scratch = new char[size_t(SCRATCH_SIZE) * factor];
    reset_read_state();
    pub_map = make_subject_map();
    pub_list = new Base::List(false, 0);
    sub_map = make_subject_map();
    sub_list = new Base::List(false, 0);
    // The control flow has one reader, this channel's: its blocks are reused
    // as soon as the reader has passed them.
    control_flow = new QelcFlow(CONTROL_SUBJECT, 2 * QelcPacket::MAX_PACKAGE_SIZE,
                                2 * QelcPacket::MAX_PACKAGE_SIZE, nullptr, nullptr, 0, nullptr,
                                true, false);
    notify = new Parallel::FdNotify(r, this);
}

QelcClientChannel::~QelcClientChannel() {
    close(REASON_CLOSED);
    delete sub_list;
    delete sub_map;
    delete pub_list;
    delete pub_map;
    delete control_flow;
    delete notify;
    delete[] scratch;
    delete[] write_buffer;
    delete[] decipher_buffer;
    delete[] inflate_buffer;
    delete[] read_buffer;
}

void QelcClientChannel::reset_read_state() {
    read_ptr = read_buffer;
    recv_count = 0;
    recv_space = BUFFER_SIZE * factor;
}

// ---- connection -------------------------------------------------------------

bool QelcClientChannel::connect(const char* host, int port, int timeout) {
    if (is_valid()) return false;
    if (!socket.open() || !socket.connect(host, port, timeout)) {
        if (reporter) reporter->report(5, "QelcClientChannel", "connect error! [%s] [%d]", host, port);
        socket.close();
        return false;
    }
    if (reporter) reporter->report(5, "QelcClientChannel", "connect ok! [%s] [%d]", host, port);
    setup();
    return true;
}

void QelcClientChannel::create(int fd) {
    if (is_valid() || fd <= 0) return;
    socket.open(fd);
    setup();
}

void QelcClientChannel::setup() {
    socket.set_blocking(false);
    read_blocked.store(0, std::memory_order_relaxed);
    control_flow->clear(0);
    pending = 0;
    last_reason = 0;
    reset_read_state();
    // Silence is counted from this connection on, not from the last one.
    last_read = reactor_clock();
    last_heartbeat = 0;
    Base::DataReader* reader = new QelcFlow::DataReader(control_flow, notify, nullptr, nullptr, reporter);
    publish(control_flow, nullptr, nullptr, reader, nullptr, nullptr);
    if (session) session->on_connected();
    if (!is_valid()) return;  // closed by the owner inside on_connected
    reactor->add_fd(this);
    // The descriptor went in with EPOLLIN; an owner that blocked reading
    // in on_connected has its interest applied now.
    if (is_read_blocking()) reactor->set_blocking(this, false);
    const char* peer = socket.get_remote_address();
    write_log(TRACE_CONNECTED, static_cast<unsigned short>(strlen(peer) + 1), peer);
}

int QelcClientChannel::close(int reason) {
    if (is_valid()) {
        // Out of the reactor first: from any thread, nothing else then
        // reads, writes or traces on this channel.
        reactor->remove_fd(this);
        write_log(TRACE_CLOSING, 0, nullptr);
        socket.close();
        last_reason = reason;
        if (session) session->on_disconnected(reason);
    }
    clear_tables();
    return reason;
}

void QelcClientChannel::clear_tables() {
    while (SubItem* item = static_cast<SubItem*>(sub_list->pop_front())) delete item;
    sub_map->clear();
    while (PubItem* item = static_cast<PubItem*>(pub_list->pop_front())) {
        delete item->reader;
        delete item;
    }
    pub_map->clear();
}

// ---- tables -----------------------------------------------------------------

FlowChannel::PubItem* QelcClientChannel::get_pub_item(unsigned short subject) const {
    return static_cast<PubItem*>(pub_map->search(&subject));
}

FlowChannel::SubItem* QelcClientChannel::get_sub_item(unsigned short subject) const {
    return static_cast<SubItem*>(sub_map->search(&subject));
}

bool QelcClientChannel::publish(Base::DataFlow* flow, Base::DataFlow::AckCallback* ack,
                                Base::DataFlow::ReadCallback* read_callback,
                                Base::DataReader* reader, Parallel::FlowRecycler* recycler,
                                unsigned int* waiting) {
    unsigned short subject = flow->get_subject();
    PubItem* item = get_pub_item(subject);
    bool fresh = item == nullptr;
    if (fresh) {
        item = new PubItem();
        item->subject = subject;
    } else {
        delete item->reader;
    }
    item->flow = flow;
    item->ack_callback = ack;
    item->read_callback = read_callback;
    item->recycler = recycler;
    item->waiting = waiting;
    item->reader = reader ? reader
                          : new QelcFlow::DataReader(static_cast<QelcFlow*>(flow), notify,
                                                     read_callback, recycler, reporter);
    if (fresh) {
        pub_list->push_back(item);
        pub_map->insert(&subject, item);
    }
    notify->wakeup(true);
    return true;
}

bool QelcClientChannel::subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                                  bool no_sequence_check) {
    unsigned short subject = flow->get_subject();
    SubItem* item = get_sub_item(subject);
    bool fresh = item == nullptr;
    if (fresh) {
        item = new SubItem();
        item->subject = subject;
    }
    item->flow = flow;
    item->filter = filter;
    item->limit = limit;
    item->no_sequence_check = no_sequence_check;
    item->blocked = false;
    item->last_stored = 0;
    if (fresh) {
        sub_list->push_back(item);
        sub_map->insert(&subject, item);
    }
    return true;
}

void QelcClientChannel::cancel_publish(Base::DataFlow* flow) {
    if (PubItem* item = get_pub_item(flow->get_subject())) item->flow = nullptr;
}

void QelcClientChannel::cancel_subscribe(Base::DataFlow* flow) {
    if (SubItem* item = get_sub_item(flow->get_subject())) item->flow = nullptr;
}

// ---- state ------------------------------------------------------------------

void QelcClientChannel::get_id(int& read_id, int& write_id) const {
    read_id = is_read_blocking() ? 0 : socket.get_fd();
    write_id = (pending || FlowChannel::available(pub_list)) ? read_id : 0;
}

bool QelcClientChannel::available() const {
    return pending || FlowChannel::available(pub_list);
}

unsigned long QelcClientChannel::get_idle_timeout() const {
    unsigned long now = reactor_clock();
    return now > last_read ? now - last_read : 0;
}

void QelcClientChannel::set_read_blocking(bool blocking) {
    unsigned char value = blocking ? 1 : 0;
    if (read_blocked.load(std::memory_order_relaxed) == value) return;
    read_blocked.store(value, std::memory_order_relaxed);
    reactor->set_blocking(this, pending != 0);
}

// ---- read path --------------------------------------------------------------

void QelcClientChannel::notify_stored(unsigned long now) {
    for (Base::List::Node* n = sub_list->get_head(); n; n = n->next) {
        SubItem* item = static_cast<SubItem*>(n->value);
        if (item->flow && item->last_stored == now) item->flow->notify();
    }
}

// Frames stored before the fault are announced before the tables go.
int QelcClientChannel::fail(int reason, bool stored, unsigned long now) {
    if (stored) notify_stored(now);
    return close(reason);
}

// A trace record says its length in 16 bits, header included; a larger read
// (a big buffer factor) is traced as several records, in order.
void QelcClientChannel::trace_received(const char* data, long n) {
    const long most = 65535 - TRACE_HEADER_SIZE;
    for (long at = 0; at < n; at += most) {
        long part = n - at < most ? n - at : most;
        write_log(TRACE_RECEIVED, static_cast<unsigned short>(part), data + at);
    }
}

int QelcClientChannel::read() {
    if (!is_valid()) return last_reason < 0 ? last_reason : -1;
    const unsigned long now = reactor_clock();
    bool stored = false, got = false;
    for (int round = 0; round < ROUNDS; ++round) {
        ssize_t n = ::recv(socket.get_fd(), read_ptr + recv_count, size_t(recv_space), 0);
        if (n == 0) {
            write_log(TRACE_RECV_ZERO, 0, nullptr);
            return fail(REASON_PEER_CLOSED, stored, now);
        }
        if (n < 0) {
            if (would_block(errno) || errno == EINTR) break;
            write_log(TRACE_RECV_ERROR, 0, nullptr);
            return fail(REASON_READ_FAILED, stored, now);
        }
        got = true;
        trace_received(read_ptr + recv_count, n);
        recv_count += int(n);
        recv_space -= int(n);
        int r = take_frames(now, stored);
        if (r < 0) return r;
        if (recv_count == 0) {
            reset_read_state();
        } else if (recv_space == 0) {
            memmove(read_buffer, read_ptr, size_t(recv_count));
            read_ptr = read_buffer;
            recv_space = BUFFER_SIZE * factor - recv_count;
        }
    }
    if (stored) notify_stored(now);
    if (got) last_read = now;
    return 0;
}

int QelcClientChannel::take_frames(unsigned long now, bool& stored) {
    while (recv_count > 5) {
        unsigned char* f = reinterpret_cast<unsigned char*>(read_ptr);
        unsigned short length = Base::get_be16(f + 2);
        if (length == 0) {
            // Control frame: one item, never enciphered or compressed.
            if (f[0] != 0 || f[1] >= 128 || f[1] == 1) return fail(REASON_READ_FAILED, stored, now);
            int size = f[1] + 4;
            if (size > recv_count) return 1;
            if (f[1] == 6 && f[4] == XmpPacket::TAG_HEARTBEAT_INTERVAL && f[5] == 4) {
                unsigned int w = Base::get_be32(f + 6);
                heartbeat_timeout = w == 0 ? 4 : (w < 60 ? w : 60) * 3 + 1;
            }
            read_ptr += size;
            recv_count -= size;
            continue;
        }
        if (f[0] != XmpPacket::TYPE_DATA || f[1] != 0) return fail(REASON_READ_FAILED, stored, now);
        unsigned short size = static_cast<unsigned short>(length + 4);
        if (size <= 5 || size > MAX_FRAME_SIZE) return fail(REASON_LENGTH, stored, now);
        if (size > recv_count) return 1;
        read_ptr += size;
        recv_count -= size;
        int r = store_frame(reinterpret_cast<char*>(f), size, now, stored);
        if (r < 0) return r;
    }
    return 0;
}

int QelcClientChannel::store_frame(char* frame, unsigned short size, unsigned long now,
                                   bool& stored) {
    unsigned short length = static_cast<unsigned short>(size - 4);
    if (cipher.get_type() != 0) {
        memcpy(decipher_buffer, frame, 4);
        if (!decode(reinterpret_cast<unsigned char*>(decipher_buffer) + 4,
                    reinterpret_cast<unsigned char*>(frame) + 4, length))
            return fail(REASON_DECODE, stored, now);
        frame = decipher_buffer;
    }
    unsigned char version = static_cast<unsigned char>(frame[4]);
    unsigned char method = static_cast<unsigned char>(frame[5]);
    if (version != CrpPacket::VERSION ||
        (method != CrpPacket::METHOD_PLAIN && method != CrpPacket::METHOD_ZERO))
        return fail(REASON_READ_FAILED, stored, now);
    if (method == CrpPacket::METHOD_PLAIN) {
        // The Qelc header must be there before its BodyLength is believed.
        if (length < 2 + QELC_HEADER ||
            Base::get_be16(frame + PREFIX + BODY_LENGTH_AT) + 2 + QELC_HEADER != length)
            return fail(REASON_LENGTH, stored, now);
    } else {
        int decoded = MAX_FRAME_SIZE;
        if (CrpPacket::decode_zero(reinterpret_cast<unsigned char*>(inflate_buffer) + PREFIX,
                                   decoded, reinterpret_cast<unsigned char*>(frame) + PREFIX,
                                   size - PREFIX) != 0 ||
            decoded < QELC_HEADER ||
            decoded != Base::get_be16(inflate_buffer + PREFIX + BODY_LENGTH_AT) + QELC_HEADER)
            return fail(REASON_LENGTH, stored, now);
        inflate_buffer[0] = XmpPacket::TYPE_DATA;
        inflate_buffer[1] = 0;
        Base::put_be16(inflate_buffer + 2, static_cast<uint16_t>(decoded + 2));
        inflate_buffer[4] = CrpPacket::VERSION;
        inflate_buffer[5] = CrpPacket::METHOD_PLAIN;
        size = static_cast<unsigned short>(decoded + PREFIX);
        frame = inflate_buffer;
    }

    const char* header = frame + PREFIX;
    unsigned short subject = Base::get_be16(header + SUBJECT_AT);
    unsigned long sequence = Base::get_be32(header + SEQUENCE_LOW_AT) |
                             static_cast<unsigned long>(static_cast<unsigned char>(header[SEQUENCE_HIGH_AT])) << 32;
    SubItem* item;
    bool check = subject != 1;
    if ((subject == 0 || subject == 4) && !get_sub_item(subject)) {
        item = get_sub_item(1);
        check = false;
    } else {
        item = get_sub_item(subject);
        if ((!item || !item->flow) && subject == 5) item = get_sub_item(2);
    }
    if (!item || !item->flow) return fail(REASON_NO_SUBSCRIPTION, stored, now);
    if (item->blocked) return 0;
    if (check && !item->no_sequence_check && sequence != item->flow->get_count() + 1)
        return fail(REASON_SEQUENCE, stored, now);
    if (item->filter) {
        bool ok = item->filter(item->flow, frame, size);
        if (!is_valid()) return last_reason < 0 ? last_reason : -1;
        if (!ok) return fail(REASON_FILTER, stored, now);
        if (!item->flow) return fail(REASON_NO_SUBSCRIPTION, stored, now);
    }
    Base::DataFlow* flow = item->flow;
    char* room = flow->alloc_object(size);
    memcpy(room, frame, size);
    item->last_stored = now;
    stored = true;
    flow->commit_object(size, false);
    // A write callback may have closed the channel under us.
    if (!is_valid()) return last_reason < 0 ? last_reason : -1;
    return 0;
}

// ---- write path -------------------------------------------------------------

int QelcClientChannel::write() {
    if (!is_valid()) return -2;
    if (pending == 0 && !FlowChannel::available(pub_list)) return -2;
    if (pending) {
        int r = write(write_buffer, int(pending));
        if (r != 0) return r;
        if (pending) return 0;
    }
    for (Base::List::Node* n = pub_list->get_head(); n; n = n->next) {
        PubItem* item = static_cast<PubItem*>(n->value);
        if (!item->flow || !item->reader || !item->reader->available()) continue;
        int r = write(item->reader, item->waiting);
        if (r != 0) return r;
        if (pending) return 0;
    }
    return 0;
}

int QelcClientChannel::compress_block(const char* block, int size, char* out, int& out_size) {
    int at = 0, pos = 0;
    while (at < size) {
        const unsigned char* f = reinterpret_cast<const unsigned char*>(block + at);
        if (size - at < 4) return close(REASON_LENGTH);
        int length = Base::get_be16(f + 2);
        if (length < 3 || at + length + 4 > size) return close(REASON_LENGTH);
        // Keep the coded form only if strictly shorter: the capacity says so,
        // and it also keeps the output within the plain block's size.
        int coded = length - 3;
        unsigned char* dst = reinterpret_cast<unsigned char*>(out + pos);
        if (coded > 0 && CrpPacket::encode_zero(dst + PREFIX, coded, f + PREFIX, length - 2) == 0) {
            dst[0] = XmpPacket::TYPE_DATA;
            dst[1] = 0;
            Base::put_be16(dst + 2, static_cast<uint16_t>(coded + 2));
            dst[4] = CrpPacket::VERSION;
            dst[5] = CrpPacket::METHOD_ZERO;
            pos += coded + PREFIX;
        } else {
            memcpy(dst, f, size_t(length + 4));
            pos += length + 4;
        }
        at += length + 4;
    }
    out_size = pos;
    return 0;
}

int QelcClientChannel::encipher_block(const char* block, int size) {
    int at = 0;
    while (at < size) {
        const unsigned char* f = reinterpret_cast<const unsigned char*>(block + at);
        if (size - at < 4) return close(REASON_ENCODE);
        int length = Base::get_be16(f + 2);
        if (length < 3 || at + length + 4 > size) return close(REASON_ENCODE);
        unsigned char* dst = reinterpret_cast<unsigned char*>(write_buffer + at);
        memcpy(dst, f, 4);
        if (!encode(dst + 4, f + 4, length)) return close(REASON_ENCODE);
        at += length + 4;
    }
    return 0;
}

int QelcClientChannel::write(Base::DataReader* reader, unsigned int* waiting) {
    Base::DataFlow* flow = reader->get_flow();
    const bool plain_flow = flow == control_flow;
    const bool compressing = compress && !plain_flow;
    const bool enciphering = cipher.get_type() != 0 && !plain_flow;
    for (int round = 0; round < ROUNDS; ++round) {
        flow = reader->get_flow();
        unsigned short length = static_cast<unsigned short>(SCRATCH_SIZE * factor);
        const char* block = (flow && flow->reference_mode)
                                ? prepare_reader_buffer(reader, length, scratch)
                                : reader->read(length);
        if (!block || length == 0) {
            if (waiting && reader->in_file() && reader->available()) ++*waiting;
            return 0;
        }
        int size = length;
        if (compressing) {
            char* out = enciphering ? inflate_buffer : write_buffer;
            int r = compress_block(block, size, out, size);
            if (r != 0) return r;
            block = out;
        }
        if (enciphering) {
            int r = encipher_block(block, size);
            if (r != 0) return r;
            block = write_buffer;
        }
        if (block == write_buffer) pending = static_cast<unsigned int>(size);
        int r = write(block, size);
        if (r != 0) return r;
        if (pending) return 0;
    }
    return 0;
}

int QelcClientChannel::write(const char* buffer, int size) {
    const bool sending_pending = pending != 0;
    ssize_t n = ::send(socket.get_fd(), buffer, size_t(size), MSG_NOSIGNAL);
    if (n > 0) {
        write_log(TRACE_SENT, static_cast<unsigned short>(n), buffer);
        if (sending_pending) {
            pending -= static_cast<unsigned int>(n);
            if (pending) memmove(write_buffer, write_buffer + n, pending);
        } else if (n < size) {
            memmove(write_buffer, buffer + n, size_t(size - n));
            pending = static_cast<unsigned int>(size - n);
        }
        last_write = reactor_clock();
        return 0;
    }
    if (n == 0) {
        write_log(TRACE_SEND_ZERO, 0, nullptr);
        return close(REASON_PEER_CLOSED);
    }
    if (would_block(errno) || errno == EINTR) {
        // The reader has passed these bytes: from here the write buffer is
        // their only copy.
        if (!sending_pending) {
            memmove(write_buffer, buffer, size_t(size));
            pending = static_cast<unsigned int>(size);
        }
        return -1;
    }
    write_log(TRACE_SEND_ERROR, 0, nullptr);
    return close(REASON_SEND_FAILED);
}

// ---- control frames ---------------------------------------------------------

void QelcClientChannel::append_control(const char* frame, int size) {
    char* room = control_flow->alloc_object(static_cast<unsigned short>(size));
    memcpy(room, frame, size_t(size));
    control_flow->commit_object(static_cast<unsigned short>(size), true);
}

void QelcClientChannel::send_heartbeat() {
    unsigned long now = reactor_clock();
    unsigned int t = heartbeat_timeout;
    unsigned long period = (t ? (t - 1) / 3 : 0) * CLOCK_SECOND;
    if (last_heartbeat + period > now) return;
    char frame[XmpPacket::HEARTBEAT_SIZE];
    append_control(frame, XmpPacket::write_heartbeat(frame));
    last_heartbeat = now;
}

void QelcClientChannel::set_heartbeat_timeout(unsigned int seconds) {
    heartbeat_timeout = seconds;
    char frame[XmpPacket::HEARTBEAT_INTERVAL_SIZE];
    append_control(frame, XmpPacket::write_heartbeat_interval(frame, seconds ? (seconds - 1) / 3 : 0));
}

// ---- server channel ---------------------------------------------------------

QelcServerChannel::QelcServerChannel(Parallel::FdReactor* r, ServerSession* s,
                                     Base::Reportable* rep)
    : FlowChannel(r, rep), session(s), pub_count(0), sub_count(0) {
    memset(pubs, 0, sizeof(pubs));
    memset(subs, 0, sizeof(subs));
}

QelcServerChannel::~QelcServerChannel() { close(REASON_CLOSED); }

bool QelcServerChannel::listen(const char* host, int port) {
    if (socket.get_fd() != 0) return false;
    if (!socket.open() || !socket.bind(host, port)) {
        socket.close();
        return false;
    }
    if (!socket.listen(512)) {
        socket.close();
        return false;
    }
    socket.set_blocking(false);
    reactor->add_fd(this);
    return true;
}

int QelcServerChannel::close(int reason) {
    if (socket.get_fd() != 0) {
        reactor->remove_fd(this);
        socket.close();
    }
    return reason;
}

int QelcServerChannel::read() {
    int fd = socket.accept();
    if (fd < 1) return 0;
    ClientSession* client = session ? session->create_client(fd) : nullptr;
    if (!client) {
        ::close(fd);
        return 0;
    }
    session->on_client_created(client);
    client->on_created();
    return 0;
}

bool QelcServerChannel::publish(Base::DataFlow* flow, Base::DataFlow::AckCallback* ack,
                                Base::DataFlow::ReadCallback* read_callback,
                                Base::DataReader* reader, Parallel::FlowRecycler* recycler,
                                unsigned int* waiting) {
    unsigned int n = pub_count.load(std::memory_order_relaxed);
    if (n >= MAX_FLOWS) return false;
    pubs[n] = PubRecord{flow, ack, read_callback, reader, recycler, waiting};
    // Sequentially consistent store, a full fence: the entry is complete
    // before a reader on another thread can see the count that covers it.
    pub_count.store(n + 1, std::memory_order_seq_cst);
    return true;
}

bool QelcServerChannel::subscribe(Base::DataFlow* flow, FrameFilter, unsigned long, bool) {
    unsigned int n = sub_count.load(std::memory_order_relaxed);
    if (n >= MAX_FLOWS) return false;
    subs[n] = flow;
    // Full fence, as in publish.
    sub_count.store(n + 1, std::memory_order_seq_cst);
    return true;
}

void QelcServerChannel::publish_flow(QelcClientChannel* channel) {
    unsigned int n = pub_count.load(std::memory_order_acquire);
    // Each connection gets a reader of its own, which its channel makes and
    // owns; a stored reader could not be shared among them.
    for (unsigned int i = 0; i < n; ++i)
        channel->publish(pubs[i].flow, pubs[i].ack, pubs[i].read_callback, nullptr, nullptr, nullptr);
}

void QelcServerChannel::subscribe_flow(QelcClientChannel* channel) {
    unsigned int n = sub_count.load(std::memory_order_acquire);
    for (unsigned int i = 0; i < n; ++i) channel->subscribe(subs[i], nullptr, 0, false);
}

}  // namespace Network

#include "network/qelcsession.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "containers/list.h"
#include "base/reportable.h"
#include "sync/sign.h"
#include "base/strings.h"
#include "base/switches.h"
#include "network/tcpsocket.h"
#include "network/qelcchannel.h"
#include "network/qelcflow.h"
#include "parallel/fdreactor.h"

namespace Network {

namespace {

// Copies a host name into a table slot of the given size with its zero; a
// name that does not fit is refused rather than cut, since a cut name is
// another host.
bool copy_host(char* slot, size_t size, const char* host) {
    if (!host || strlen(host) >= size) return false;
    Base::str_ncpy(size - 1, slot, host);
    return true;
}

unsigned int clamp(unsigned int v, unsigned int low, unsigned int high) {
    return v < low ? low : (v > high ? high : v);
}

// Drops what is still queued for a session and its channel before they are
// freed: a forced event holds a raw pointer to its handler, and an own
// event of the fd reactor to its descriptor. Nothing queued runs here: a
// destructor never re-enters the event loop.
void forget_events(Parallel::FdReactor* reactor, Parallel::Handler* handler, Channel* channel) {
    reactor->cancel_events(handler);
    if (channel) reactor->cancel_events_about(static_cast<Parallel::Fd*>(channel));
}

}  // namespace

// ---- QelcClientSession ------------------------------------------------------

QelcClientSession::QelcClientSession(Parallel::FdReactor* r, ClientSession* parent,
                                     Base::Reportable* rep, Base::DataFlow* log,
                                     int buffer_factor, int connect_period)
    : ClientSession(r, parent, rep),
      port(0),
      idle_limit(120 * CLOCK_SECOND),
      heartbeat_timeout(60),
      destroying(false) {
    host[0] = '\0';
    channel = new QelcClientChannel(r, this, rep, buffer_factor);
    channel->set_log(log);
    heartbeat_timer = r->add_timer(TIMER_HEARTBEAT, HEARTBEAT_PERIOD, false, this, false);
    connect_timer = r->add_timer(TIMER_CONNECT, connect_period, false, this, false);
    buffer_timer = r->add_timer(TIMER_BUFFER, BUFFER_PERIOD, false, this, false);
}

QelcClientSession::~QelcClientSession() {
    // From here on timers and queued events find nothing to do.
    destroying.store(true, std::memory_order_release);
    // Timers first: once removed, none of them runs, here or on the reactor
    // thread, while the channel closes.
    reactor->remove_timer(heartbeat_timer);
    reactor->remove_timer(connect_timer);
    reactor->remove_timer(buffer_timer);
    channel->close(REASON_CLOSED);
    forget_events(reactor, this, channel);
    delete channel;
}

void QelcClientSession::set_periods(int heartbeat_us, int connect_us, int buffer_us) {
    heartbeat_timer->interval = heartbeat_us;
    connect_timer->interval = connect_us;
    buffer_timer->interval = buffer_us;
}

bool QelcClientSession::open(const char* new_host, int new_port) {
    if (!copy_host(host, sizeof(host), new_host)) return false;
    bool first = port == 0;
    port = new_port;
    channel->set_last_read(Base::read_clock());
    reactor->enable_timer(connect_timer, first);
    return true;
}

bool QelcClientSession::open(int fd) {
    channel->create(fd);
    return true;
}

int QelcClientSession::close(int reason) {
    if (port != 0) reactor->disable_timer(connect_timer);
    if (channel->is_valid()) channel->close(reason);
    return reason;
}

void QelcClientSession::flush() {
    while (channel->is_valid() && channel->available())
        if (channel->write() != 0) break;
}

void QelcClientSession::publish(Base::DataFlow* flow, unsigned long id,
                                Parallel::FlowRecycler* recycler, ReaderFactory factory,
                                unsigned int* waiting) {
    Base::DataReader* reader =
        factory ? factory(flow, channel->get_notify(), nullptr, recycler, reporter)
                : new QelcFlow::DataReader(static_cast<QelcFlow*>(flow), channel->get_notify(),
                                           nullptr, recycler, reporter);
    reader->seek(id);
    channel->publish(flow, nullptr, nullptr, reader, recycler, waiting);
}

void QelcClientSession::cancel_publish(Base::DataFlow* flow) { channel->cancel_publish(flow); }

void QelcClientSession::subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                                  bool no_sequence_check) {
    channel->subscribe(flow, filter, limit, no_sequence_check);
    if (limit != 0) reactor->enable_timer(buffer_timer, true);
}

void QelcClientSession::cancel_subscribe(Base::DataFlow* flow) { channel->cancel_subscribe(flow); }
void QelcClientSession::enable_compress() { channel->enable_compress(); }
void QelcClientSession::set_read_blocking(bool blocking) { channel->set_read_blocking(blocking); }
bool QelcClientSession::is_read_blocking() const { return channel->is_read_blocking(); }
unsigned long QelcClientSession::get_idle_timeout() const { return channel->get_idle_timeout(); }

void QelcClientSession::set_timeout(unsigned int seconds) {
    idle_limit = clamp(seconds, 4, 184) * CLOCK_SECOND;
}

void QelcClientSession::set_heartbeat_timeout(unsigned int seconds) {
    seconds = clamp(seconds, 4, 181);
    heartbeat_timeout = seconds;
    idle_limit = seconds * CLOCK_SECOND;
    channel->set_heartbeat_timeout(seconds);
}

Channel* QelcClientSession::get_channel() { return channel; }

void QelcClientSession::on_connected() {
    reactor->enable_timer(heartbeat_timer, true);
    ClientSession::on_connected();
}

void QelcClientSession::on_connect_failed(ClientSession* failed) {
    if (session) {
        session->on_connect_failed(failed);
        return;
    }
    if (!destroying.load(std::memory_order_acquire)) reactor->enable_timer(connect_timer, false);
}

void QelcClientSession::on_disconnected(int reason) {
    ClientSession::on_disconnected(reason);
    if (destroying.load(std::memory_order_acquire)) return;
    reactor->disable_timer(heartbeat_timer);
    if (reason == REASON_CLOSED) return;
    if (port == 0) {
        // Forced: the owner destroys this session on that event, which must
        // not happen inside the channel's close, still on the stack.
        ClientSession* top = get_top_session();
        if (top->get_handler())
            reactor->add_event(EVENT_CLIENT_LOST, top, nullptr, top->get_handler(), true);
        return;
    }
    if (reason != REASON_SILENT && channel->get_idle_timeout() < idle_limit)
        reactor->enable_timer(connect_timer, false);
    else
        reactor->add_event(EVENT_RECHECK, nullptr, nullptr, this, true);
}

bool QelcClientSession::on_timer(int id) {
    if (destroying.load(std::memory_order_acquire)) return false;
    switch (id) {
    case TIMER_HEARTBEAT: {
        if (!channel->is_valid()) return false;
        if (channel->get_idle_timeout() < idle_limit) {
            unsigned int t = channel->get_heartbeat_timeout();
            if (t != heartbeat_timeout) {
                // The peer announced an interval: take it and echo it.
                heartbeat_timeout = t;
                idle_limit = clamp(t + 3, 4, 184) * CLOCK_SECOND;
                channel->set_heartbeat_timeout(t);
            }
            channel->send_heartbeat();
            return true;
        }
        // Last chance: the reactor may simply not have come round to it.
        if (!channel->is_read_blocking() && channel->read() < 0) return false;
        if (!channel->is_valid()) return false;
        if (channel->get_idle_timeout() < idle_limit) return true;
        channel->close(REASON_SILENT);
        return false;
    }
    case TIMER_CONNECT:
        if (!channel->connect(host, port, 0))
            reactor->add_event(EVENT_RECHECK, nullptr, nullptr, this, true);
        return false;
    case TIMER_BUFFER:
        channel->check_sub_buffer();
        return true;
    default:
        return true;
    }
}

int QelcClientSession::on_event(int id, void*) {
    if (id != EVENT_RECHECK || destroying.load(std::memory_order_acquire)) return 0;
    Channel* current = get_channel();
    if (current && current->get_id() > 0) return 0;
    on_connect_failed(this);
    return 0;
}

// ---- QelcBondClientSession --------------------------------------------------

QelcBondClientSession::QelcBondClientSession(Parallel::FdReactor* r, ClientSession* parent,
                                             Base::Reportable* rep, int buffer_factor)
    : ClientSession(r, parent, rep),
      factor(buffer_factor),
      current(-1),
      fens_index(-1),
      connect_period(QelcClientSession::CONNECT_PERIOD),
      retired_count(0),
      destroying(false) {
    memset(front_hosts, 0, sizeof(front_hosts));
    memset(front_ports, 0, sizeof(front_ports));
    memset(sessions, 0, sizeof(sessions));
    memset(fens_hosts, 0, sizeof(fens_hosts));
    memset(fens_ports, 0, sizeof(fens_ports));
    fens_buffer[0] = '\0';
    fens_timer = r->add_timer(TIMER_FENS, FENS_PERIOD, false, this, false);
}

QelcBondClientSession::~QelcBondClientSession() {
    destroying.store(true, std::memory_order_release);
    reactor->remove_timer(fens_timer);
    forget_events(reactor, this, nullptr);
    delete_retired();
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i) {
        delete sessions[i];
        sessions[i] = nullptr;
    }
}

void QelcBondClientSession::delete_retired() {
    for (int i = 0; i < retired_count; ++i) delete retired[i];
    retired_count = 0;
}

void QelcBondClientSession::set_periods(int fens_us, int connect_us) {
    fens_timer->interval = fens_us;
    connect_period = connect_us;
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i)
        sessions[i]->get_connect_timer()->interval = connect_us;
}

QelcClientSession* QelcBondClientSession::make_child(int i) {
    QelcClientSession* child =
        new QelcClientSession(reactor, this, reporter, nullptr, factor, connect_period);
    sessions[i] = child;
    return child;
}

void QelcBondClientSession::start_child(int i) {
    sessions[i]->open(front_hosts[i], front_ports[i]);
}

bool QelcBondClientSession::open(const char* host, int port) {
    int i = 0;
    while (i < MAX_FRONTS && sessions[i]) ++i;
    if (i == MAX_FRONTS || !copy_host(front_hosts[i], sizeof(front_hosts[i]), host)) return false;
    front_ports[i] = port;
    make_child(i);
    if (current == -1) {
        current = 0;
        start_child(0);
    }
    return true;
}

bool QelcBondClientSession::register_fens(const char* host, int port) {
    int i = 0;
    while (i < MAX_FRONTS && fens_ports[i] != 0) ++i;
    if (i == MAX_FRONTS || !copy_host(fens_hosts[i], sizeof(fens_hosts[i]), host)) return false;
    fens_ports[i] = port;
    if (fens_index == -1) {
        fens_index = 0;
        reactor->enable_timer(fens_timer, true);
    }
    return true;
}

int QelcBondClientSession::close(int reason) {
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i) sessions[i]->close(reason);
    return reason;
}

void QelcBondClientSession::publish(Base::DataFlow* flow, unsigned long id,
                                    Parallel::FlowRecycler* recycler, ReaderFactory factory) {
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i)
        sessions[i]->publish(flow, id, recycler, factory, nullptr);
}

void QelcBondClientSession::cancel_publish(Base::DataFlow* flow) {
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i) sessions[i]->cancel_publish(flow);
}

void QelcBondClientSession::cancel_subscribe(Base::DataFlow* flow) {
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i) sessions[i]->cancel_subscribe(flow);
}

void QelcBondClientSession::subscribe(Base::DataFlow* flow, FrameFilter filter,
                                      unsigned long limit, bool no_sequence_check) {
    for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i)
        sessions[i]->subscribe(flow, filter, limit, no_sequence_check);
}

QelcClientSession* QelcBondClientSession::get_current() const {
    return current < 0 ? nullptr : sessions[current];
}

Channel* QelcBondClientSession::get_channel() {
    QelcClientSession* child = get_current();
    return child ? child->get_channel() : nullptr;
}

// A child to throw away is freed later, from a forced event of this
// session: the call that retires it may have come up through the child.
void QelcBondClientSession::retire_child(QelcClientSession* child, bool destroy) {
    if (child->get_port() != 0) reactor->disable_timer(child->get_connect_timer());
    if (child->get_client_channel()->is_valid()) child->get_client_channel()->close(REASON_CLOSED);
    if (!destroy) return;
    if (retired_count == 0)
        reactor->add_event(EVENT_DELETE_RETIRED, nullptr, nullptr, this, true);
    retired[retired_count++] = child;
}

void QelcBondClientSession::on_connect_failed(ClientSession* failed) {
    if (session) session->on_connect_failed(failed);
    if (destroying.load(std::memory_order_acquire)) return;
    if (failed != this) {
        if (current == -1) {
            ask_fens();
            return;
        }
        if (reporter)
            reporter->report(2, "QelcBondClientSession", "connect failed [%s] [%d]",
                             front_hosts[current], front_ports[current]);
        retire_child(sessions[current], false);
        current += 1;
        if (current == MAX_FRONTS || !sessions[current]) {
            if (fens_index == -1) {
                current = 0;  // round robin over the fixed list
            } else {
                for (int i = 0; i < MAX_FRONTS && sessions[i]; ++i) {
                    retire_child(sessions[i], true);
                    sessions[i] = nullptr;
                }
                memset(front_hosts, 0, sizeof(front_hosts));
                memset(front_ports, 0, sizeof(front_ports));
                current = -1;
                ask_fens();
                return;
            }
        }
    }
    if (current == -1) {
        ask_fens();
        return;
    }
    if (reporter)
        reporter->report(2, "QelcBondClientSession", "try connect [%s] [%d]", front_hosts[current],
                         front_ports[current]);
    start_child(current);
}

void QelcBondClientSession::ask_fens() {
    if (fens_ports[0] == 0) return;  // no name server registered
    fens_index += 1;
    if (fens_index >= MAX_FRONTS || fens_ports[fens_index] == 0) fens_index = 0;
    reactor->enable_timer(fens_timer, false);
}

// Forced, so that it runs after the timer call that posts it has returned:
// run inline, its re-enabling of the fens timer would be undone by that
// call's false result.
void QelcBondClientSession::post_retry() {
    reactor->add_event(EVENT_BOND_RETRY, nullptr, nullptr, this, true);
}

int QelcBondClientSession::on_event(int id, void*) {
    if (id == EVENT_DELETE_RETIRED) delete_retired();
    if (id != EVENT_BOND_RETRY || destroying.load(std::memory_order_acquire)) return 0;
    Channel* channel = get_channel();
    if (channel && channel->get_id() > 0) return 0;
    on_connect_failed(this);
    return 0;
}

bool QelcBondClientSession::on_timer(int id) {
    if (id != TIMER_FENS) return true;
    if (destroying.load(std::memory_order_acquire) || fens_index < 0) return false;
    const char* host = fens_hosts[fens_index];
    int port = fens_ports[fens_index];
    if (reporter) reporter->report(5, "QelcBondClientSession", "try fens [%s] [%d]", host, port);
    int fd = Base::tcp_connect(host, port, 0);
    if (fd < 1) {
        post_retry();
        return false;
    }
    // Connecting is the request; the answer ends when the server closes or
    // stays silent for the wait.
    int n = Base::tcp_recv(fd, fens_buffer, sizeof(fens_buffer) - 1, FENS_WAIT_MS, nullptr);
    ::close(fd);
    if (n <= 0) {
        post_retry();
        return false;
    }
    fens_buffer[n] = '\0';
    for (int i = 0; i < n; ++i)
        if (fens_buffer[i] == '\r') fens_buffer[i] = '\n';
    int position = 0, used = 0;
    while (char* token = Base::str_token(fens_buffer, "\n", position)) {
        uri.parse(token);
        if (uri.get_port() <= 0 || !uri.get_host()) continue;
        if (strlen(uri.get_host()) >= sizeof(front_hosts[0])) {
            if (reporter)
                reporter->report(4, "QelcBondClientSession", "host name too long from fens [%s]",
                                 uri.get_host());
            continue;
        }
        if (reporter)
            reporter->report(5, "QelcBondClientSession", "get address from fens [%s] [%d]",
                             uri.get_host(), uri.get_port());
        int i = 0;
        while (i < MAX_FRONTS && sessions[i]) ++i;
        if (i < MAX_FRONTS) {
            copy_host(front_hosts[i], sizeof(front_hosts[i]), uri.get_host());
            front_ports[i] = uri.get_port();
            make_child(i);
            if (current == -1) {
                current = 0;
                start_child(0);
            }
        }
        ++used;
    }
    if (used == 0) post_retry();
    return false;
}

// ---- QelcServerSession ------------------------------------------------------

QelcServerSession::QelcServerSession(Parallel::FdReactor* r, ServerSession* parent,
                                     Base::Reportable* rep, int buffer_factor)
    : ServerSession(r, parent, rep), factor(buffer_factor) {
    channel = new QelcServerChannel(r, this, rep);
    clients = new Base::List(false, 0);
}

QelcServerSession::~QelcServerSession() {
    // No new client comes once the listener is gone.
    channel->close(REASON_CLOSED);
    reactor->cancel_events_about(static_cast<Parallel::Fd*>(channel));
    delete channel;
    channel = nullptr;
    Base::Sign sign(0);
    reactor->add_event(EVENT_DESTROY_CLIENTS, nullptr, &sign, this, false);
    sign.join();
    // A lost client's 1012 may still be queued; it is dropped.
    forget_events(reactor, this, nullptr);
    delete clients;
}

bool QelcServerSession::open(const char* host, int port) {
    bool ok = channel->listen(host, port);
    if (reporter) {
        if (ok)
            reporter->report(5, "QelcServerSession", "open success! [%s] [%d] [%p]", host, port,
                             static_cast<void*>(this));
        else
            reporter->report(4, "QelcServerSession", "open failed! [%s] [%d] [%p]", host, port,
                             static_cast<void*>(this));
    }
    return ok;
}

int QelcServerSession::close(int reason) {
    if (reporter)
        reporter->report(5, "QelcServerSession", "close! [%d] [%p]", reason, static_cast<void*>(this));
    if (channel) channel->close(reason);
    return reason;
}

void QelcServerSession::publish(Base::DataFlow* flow) {
    channel->publish(flow, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void QelcServerSession::subscribe(Base::DataFlow* flow) { channel->subscribe(flow, nullptr, 0, false); }

unsigned long QelcServerSession::get_client_count() const { return clients->get_count(); }

void QelcServerSession::disconnect_all() {
    while (Base::List::Node* head = clients->get_head()) {
        ClientSession* client = static_cast<ClientSession*>(head->value);
        on_client_destroy(client);
        delete client;
    }
}

void QelcServerSession::on_accepted(int fd) {
    reactor->add_event(EVENT_ACCEPTED, reinterpret_cast<void*>(static_cast<intptr_t>(fd)), nullptr,
                       this, false);
}

ClientSession* QelcServerSession::create_client(int fd) {
    if (ClientSession* made = ServerSession::create_client(fd)) return made;
    QelcClientSession* client = new QelcClientSession(reactor, nullptr, reporter, nullptr, factor);
    client->get_client_channel()->create(fd);
    return client;
}

void QelcServerSession::on_client_created(ClientSession* client) {
    QelcClientChannel* c = static_cast<QelcClientChannel*>(client->get_channel());
    if (channel && c) {
        channel->subscribe_flow(c);
        channel->publish_flow(c);
    }
    client->set_node(this, clients->push_back(client));
    ServerSession::on_client_created(client);
}

void QelcServerSession::on_client_destroy(ClientSession* client) {
    ServerSession::on_client_destroy(client);
    if (client->get_node()) clients->remove(client->get_node());
    client->set_node(nullptr, nullptr);
}

int QelcServerSession::on_event(int id, void* data) {
    switch (id) {
    case EVENT_ACCEPTED:
        ServerSession::on_accepted(static_cast<int>(reinterpret_cast<intptr_t>(data)));
        break;
    case EVENT_CLIENT_LOST: {
        // Only a client still on the list: a loss that raced with a
        // destroy-all must not free it twice.
        for (Base::List::Node* n = clients->get_head(); n; n = n->next) {
            if (n->value != data) continue;
            ClientSession* client = static_cast<ClientSession*>(data);
            on_client_destroy(client);
            delete client;
            break;
        }
        break;
    }
    case EVENT_DESTROY_CLIENTS:
        disconnect_all();
        break;
    default:
        break;
    }
    return 0;
}

// ---- QelcBondServerSession --------------------------------------------------

QelcBondServerSession::QelcBondServerSession(Parallel::FdReactor* r, ServerSession* parent,
                                             Base::Reportable* rep, int buffer_factor)
    : ServerSession(r, parent, rep), factor(buffer_factor) {
    memset(listeners, 0, sizeof(listeners));
}

QelcBondServerSession::~QelcBondServerSession() {
    for (int i = 0; i < MAX_LISTENERS && listeners[i]; ++i) delete listeners[i];
}

bool QelcBondServerSession::open(const char* host, int port) {
    int i = 0;
    while (i < MAX_LISTENERS && listeners[i]) ++i;
    if (i == MAX_LISTENERS) return false;
    QelcServerSession* listener = new QelcServerSession(reactor, this, reporter, factor);
    if (!listener->open(host, port)) {
        delete listener;
        return false;
    }
    listeners[i] = listener;
    return true;
}

int QelcBondServerSession::close(int reason) {
    for (int i = 0; i < MAX_LISTENERS && listeners[i]; ++i) listeners[i]->close(reason);
    return reason;
}

void QelcBondServerSession::publish(Base::DataFlow* flow) {
    for (int i = 0; i < MAX_LISTENERS && listeners[i]; ++i) listeners[i]->publish(flow);
}

}  // namespace Network

// The Qelc sessions.
//
// Network::QelcClientSession owns one QelcClientChannel and the address it
// goes to, and runs three timers: 11 heartbeat and silence check (1 s), 12
// connect attempt (1.5 s, on demand), 14 subscription buffer check (1 s). A
// lost connection is tried again at the same address after 1.5 s while the
// front was alive until just now; after silence, or a failed connect, the
// parent decides (on_connect_failed). A session without an address (an
// accepted connection) posts event 1012 to its owner's handler instead, and
// is destroyed there. Events 1012 and 1014 are posted forced, so that they
// run at the reactor's next pass and never inside the channel's close. A
// session going away drops the events still queued for it and its channel.
//
// Network::QelcBondClientSession: fail-over over up to 256 fronts, one
// child session each, tried one at a time, round robin; with name servers
// ("fens") registered, a used-up list is thrown away and a name server is
// asked for a fresh one: connecting is the request, and the answer is plain
// text, one URI per line (a host that does not fit its slot is skipped).
// Children of a used-up list are freed by a forced event (1017) of the
// bond, never inside the call that retires them.
//
// Network::QelcServerSession listens on one address and gives each accepted
// connection its own QelcClientSession bound to the server's flows;
// Network::QelcBondServerSession listens on up to 256.
//
// Everything but construction and open/register runs on the reactor thread.
#pragma once

#include <atomic>

#include "flow/dataflow.h"
#include "network/uri.h"
#include "network/flowchannel.h"
#include "network/session.h"
#include "parallel/reactor.h"

namespace Base {
class DataReader;
class Notify;
class List;
}  // namespace Base

namespace Parallel {
class FlowRecycler;
struct Timer;
}  // namespace Parallel

namespace Network {

class QelcClientChannel;
class QelcServerChannel;

enum : int {
    EVENT_ACCEPTED = 1011,
    EVENT_CLIENT_LOST = 1012,
    EVENT_DESTROY_CLIENTS = 1013,
    EVENT_RECHECK = 1014,
    EVENT_BOND_RETRY = 1015,
    EVENT_DELETE_RETIRED = 1017,
};

enum : int {
    TIMER_HEARTBEAT = 11,
    TIMER_CONNECT = 12,
    TIMER_FENS = 13,
    TIMER_BUFFER = 14,
};

typedef Base::DataReader* (*ReaderFactory)(Base::DataFlow* flow, Base::Notify* notify,
                                            Base::DataFlow::ReadCallback* callback,
                                            Parallel::FlowRecycler* recycler,
                                            Base::Reportable* reporter);

class QelcClientSession : public ClientSession, public Parallel::Handler {
public:
    static const unsigned long CLOCK_SECOND = 10000000;
    static const int HEARTBEAT_PERIOD = 1000000;  // microseconds
    static const int CONNECT_PERIOD = 1500000;
    static const int BUFFER_PERIOD = 1000000;

    QelcClientSession(Parallel::FdReactor* reactor, ClientSession* parent,
                      Base::Reportable* reporter, Base::DataFlow* log, int buffer_factor,
                      int connect_period = CONNECT_PERIOD);
    ~QelcClientSession() override;

    bool open(const char* host, int port);  // false: host of 64 bytes or more
    bool open(int fd);
    int close(int reason);
    void flush();

    void publish(Base::DataFlow* flow, unsigned long id, Parallel::FlowRecycler* recycler,
                 ReaderFactory factory, unsigned int* waiting);
    void cancel_publish(Base::DataFlow* flow);
    void subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                   bool no_sequence_check);
    void cancel_subscribe(Base::DataFlow* flow);
    void enable_compress();
    void set_read_blocking(bool blocking);
    bool is_read_blocking() const;
    unsigned long get_idle_timeout() const;

    void set_timeout(unsigned int seconds);
    void set_heartbeat_timeout(unsigned int seconds);
    unsigned int get_heartbeat_timeout() const { return heartbeat_timeout; }
    unsigned long get_idle_limit() const { return idle_limit; }

    void on_connected() override;
    void on_disconnected(int reason) override;
    void on_connect_failed(ClientSession* failed) override;
    Channel* get_channel() override;

    int on_event(int id, void* data) override;
    bool on_timer(int id) override;

    QelcClientChannel* get_client_channel() const { return channel; }
    const char* get_host() const { return host; }
    int get_port() const { return port; }
    Parallel::Timer* get_connect_timer() const { return connect_timer; }
    // Shorter periods for a test or a tool; reactor thread, or before start.
    void set_periods(int heartbeat_us, int connect_us, int buffer_us);

private:
    char host[64];
    int port;
    unsigned long idle_limit;
    unsigned int heartbeat_timeout;
    QelcClientChannel* channel;
    Parallel::Timer* heartbeat_timer;
    Parallel::Timer* connect_timer;
    Parallel::Timer* buffer_timer;
    std::atomic<bool> destroying;
};

class QelcBondClientSession : public ClientSession, public Parallel::Handler {
public:
    static const int MAX_FRONTS = 256;
    static const int FENS_PERIOD = 1000000;  // microseconds
    static const int FENS_WAIT_MS = 500;

    QelcBondClientSession(Parallel::FdReactor* reactor, ClientSession* parent,
                          Base::Reportable* reporter, int buffer_factor);
    ~QelcBondClientSession() override;

    // A host name of 32 bytes or more is refused (false), as is a full table.
    bool open(const char* host, int port);
    bool register_fens(const char* host, int port);
    int close(int reason);

    void publish(Base::DataFlow* flow, unsigned long id, Parallel::FlowRecycler* recycler,
                 ReaderFactory factory);
    void cancel_publish(Base::DataFlow* flow);
    void cancel_subscribe(Base::DataFlow* flow);
    void subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                   bool no_sequence_check);

    QelcClientSession* get_current() const;
    Channel* get_channel() override;
    void on_connect_failed(ClientSession* failed) override;
    int on_event(int id, void* data) override;
    bool on_timer(int id) override;

    int get_current_index() const { return current; }
    int get_fens_index() const { return fens_index; }
    QelcClientSession* get_child(int i) const { return sessions[i]; }
    const char* get_front_host(int i) const { return front_hosts[i]; }
    int get_front_port(int i) const { return front_ports[i]; }
    // Shorter periods for a test or a tool: the fens timer and each child's
    // connect timer. Reactor thread, or before start.
    void set_periods(int fens_us, int connect_us);

private:
    QelcClientSession* make_child(int i);
    void start_child(int i);
    void retire_child(QelcClientSession* child, bool destroy);
    void delete_retired();
    void ask_fens();
    void post_retry();

    int factor;
    char front_hosts[MAX_FRONTS][32];
    int front_ports[MAX_FRONTS];
    QelcClientSession* sessions[MAX_FRONTS];
    int current;
    char fens_hosts[MAX_FRONTS][32];
    int fens_ports[MAX_FRONTS];
    int fens_index;
    Parallel::Timer* fens_timer;
    Base::Uri uri;
    char fens_buffer[8192];
    int connect_period;
    QelcClientSession* retired[MAX_FRONTS];  // thrown away, freed by event 1017
    int retired_count;
    std::atomic<bool> destroying;
};

class QelcServerSession : public ServerSession, public Parallel::Handler {
public:
    QelcServerSession(Parallel::FdReactor* reactor, ServerSession* parent,
                      Base::Reportable* reporter, int buffer_factor);
    ~QelcServerSession() override;

    bool open(const char* host, int port);
    int close(int reason);
    void publish(Base::DataFlow* flow);
    void subscribe(Base::DataFlow* flow);
    void disconnect_all();

    void on_accepted(int fd) override;
    ClientSession* create_client(int fd) override;
    void on_client_created(ClientSession* client) override;
    void on_client_destroy(ClientSession* client) override;
    int on_event(int id, void* data) override;

    QelcServerChannel* get_channel() const { return channel; }
    unsigned long get_client_count() const;

private:
    int factor;
    QelcServerChannel* channel;
    Base::List* clients;
};

class QelcBondServerSession : public ServerSession {
public:
    static const int MAX_LISTENERS = 256;

    QelcBondServerSession(Parallel::FdReactor* reactor, ServerSession* parent,
                          Base::Reportable* reporter, int buffer_factor);
    ~QelcBondServerSession() override;

    bool open(const char* host, int port);
    int close(int reason);
    void publish(Base::DataFlow* flow);
    QelcServerSession* get_listener(int i) const { return listeners[i]; }

private:
    int factor;
    QelcServerSession* listeners[MAX_LISTENERS + 1];
};

}  // namespace Network

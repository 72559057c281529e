#include "front/core.h"

#include <cstdio>

#include "front/connection.h"
#include "front/exchange.h"
#include "network/channel.h"
#include "network/qelcchannel.h"
#include "network/qelcsession.h"
#include "network/tcpsocket.h"
#include "parallel/fdreactor.h"
#include "sync/sign.h"

namespace Front {

namespace {

const int TICK_PERIOD = 1000000;  // microseconds

struct Call {
    const std::function<void()>* fn;
};

}  // namespace

Parallel::FdReactor* Core::make_reactor() {
    Parallel::FdReactor* r = new Parallel::FdReactor("qelfront");
    r->create(true, nullptr);
    return r;
}

Core::Core(const Config& c)
    : Network::ServerSession(make_reactor(), nullptr, nullptr),
      config(c),
      exchange(new Exchange(c)),
      listener(nullptr),
      tick_timer(nullptr),
      faults(c.faults),
      numbers(0),
      port(0),
      started(false) {}

Core::~Core() {
    stop();
    reactor->stop();
    reactor->join();
    delete reactor;
    delete exchange;
}

void Core::call(const std::function<void()>& fn) {
    Base::Sign done(0);
    reactor->add_event(EVENT_CALL, const_cast<std::function<void()>*>(&fn), &done, this, false);
    done.join();
}

bool Core::start(char* error, int size) {
    if (started) return true;
    bool ok = false;
    call([&] {
        if (!exchange->open(error, size)) return;
        listener = new Network::QelcServerSession(reactor, this, nullptr, 1);
        if (!listener->open(config.host, config.port)) {
            snprintf(error, size_t(size), "can't listen on %s:%d", config.host, config.port);
            delete listener;
            listener = nullptr;
            return;
        }
        port = listener->get_channel()->get_socket()->get_local_port();
        tick_timer = reactor->add_timer(TIMER_TICK, TICK_PERIOD, true, this, false);
        ok = true;
    });
    started = ok;
    return ok;
}

void Core::stop() {
    if (!started) return;
    call([&] {
        reactor->remove_timer(tick_timer);
        tick_timer = nullptr;
        // Destroys every connection through on_client_destroy.
        delete listener;
        listener = nullptr;
        exchange->close();
    });
    started = false;
}

void Core::set_faults(const Faults& f) {
    call([&] { faults = f; });
}

int Core::get_connection_count() {
    int n = 0;
    call([&] { n = int(connections.size()); });
    return n;
}

void Core::drop_all(int reason) {
    call([&] {
        std::vector<Connection*> all = connections;
        for (Connection* c : all) c->drop(reason);
    });
}

Network::ClientSession* Core::create_client(int fd) {
    Connection* c = new Connection(exchange, reactor, faults, ++numbers);
    c->get_client_channel()->create(fd);
    return c;
}

void Core::on_client_created(Network::ClientSession* client) {
    Connection* c = static_cast<Connection*>(client);
    connections.push_back(c);
    if (!config.quiet)
        printf("qelfront: connection %d from %s\n", c->get_number(),
               c->get_client_channel()->get_socket()->get_remote_address());
}

void Core::on_client_destroy(Network::ClientSession* client) {
    Connection* c = static_cast<Connection*>(client);
    for (size_t i = 0; i < connections.size(); ++i)
        if (connections[i] == c) {
            connections.erase(connections.begin() + long(i));
            break;
        }
    if (!config.quiet)
        printf("qelfront: connection %d closed (%d)\n", c->get_number(),
               c->get_client_channel()->get_last_reason());
}

int Core::on_event(int id, void* data) {
    if (id == EVENT_CALL) (*static_cast<const std::function<void()>*>(data))();
    return 0;
}

bool Core::on_timer(int id) {
    if (id != TIMER_TICK) return true;
    exchange->tick();
    for (Connection* c : connections) c->recycle();
    return true;
}

}  // namespace Front

// Front::Core: the running front. It owns a reactor thread, the listening
// QelcServerSession (whose parent it is), the exchange and the accepted
// connections, and ticks the exchange once a second.
//
// Each accepted descriptor becomes a Front::Connection with the faults in
// force at that moment. A lost connection is destroyed by the listener on
// the reactor thread, which tells the core first.
//
// start() and stop() are called from one outside thread; call() runs a
// function on the reactor thread and waits for it; everything else runs on
// the reactor thread.
#pragma once

#include <functional>
#include <vector>

#include "front/config.h"
#include "network/session.h"
#include "parallel/reactor.h"

namespace Network {
class QelcServerSession;
}
namespace Parallel {
class FdReactor;
}

namespace Front {

class Connection;
class Exchange;

class Core : public Network::ServerSession, public Parallel::Handler {
public:
    enum : int {
        EVENT_CALL = 1041,
        TIMER_TICK = 41,
    };

    explicit Core(const Config& config);
    ~Core() override;

    bool start(char* error, int size);
    void stop();
    int get_port() const { return port; }
    void call(const std::function<void()>& fn);

    // For the connections accepted from now on.
    void set_faults(const Faults& faults);
    int get_connection_count();
    // Closes every connection with reason; the trader sees the front go.
    void drop_all(int reason);
    Exchange* get_exchange() const { return exchange; }

    Network::ClientSession* create_client(int fd) override;
    void on_client_created(Network::ClientSession* client) override;
    void on_client_destroy(Network::ClientSession* client) override;
    int on_event(int id, void* data) override;
    bool on_timer(int id) override;

private:
    static Parallel::FdReactor* make_reactor();

    Config config;
    Exchange* exchange;
    Network::QelcServerSession* listener;
    Parallel::Timer* tick_timer;
    std::vector<Connection*> connections;
    Faults faults;
    int numbers;
    int port;
    bool started;
};

}  // namespace Front

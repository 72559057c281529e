// Front::Server: a simulated exchange front that a trader application can
// start in its own process, for a demo or a test, with nothing else to run.
//
//   Front::Config config;            // defaults: 127.0.0.1:17001, built-in users
//   Front::Server front(config);
//   if (!front.start()) puts(front.get_error());
//   ...                              // traders connect to tcp://127.0.0.1:17001
//   front.stop();
//
// It speaks the trader's protocol over TCP on its own thread: key exchange,
// authentication, login, orders matched by price and time between users,
// the other order-family requests, queries, and the numbered topic flows
// with resume. The header needs nothing but the configuration's.
#pragma once

#include "front/config.h"

namespace Front {

class Core;

class Server {
public:
    explicit Server(const Config& config);
    ~Server();  // stops

    bool start();
    void stop();
    bool is_running() const { return running; }
    int get_port() const;
    const char* get_error() const { return error; }

    // Faults for the connections accepted from now on.
    void set_faults(const Faults& faults);
    // Closes every connection, as a front that fails would.
    void drop_connections();
    int get_connection_count();
    Core* get_core() const { return core; }

    // The text form of a public record, "Name=value ..." for every member
    // that isn't empty; record_name is the public name without the prefix,
    // e.g. "OrderField". Returns the length, or -1 for an unknown record.
    static int record_text(const char* record_name, const void* record, char* out, int size);

private:
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    Core* core;
    bool running;
    char error[256];
};

}  // namespace Front

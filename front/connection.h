// Front::Connection: one accepted trader connection of the front.
//
// It is the accepted side's QelcClientSession, so frames, heartbeats,
// compression and the channel cipher are the network layer's. Every inbound
// packet (requests on subject 1, the key exchange and login on subject 0)
// lands in one inbound flow whose write callback hands it to the exchange;
// replies go out on a response flow of subject 1 made for this connection,
// and the topic flows the login asks for are published from the position it
// names.
//
// Faults (Front::Faults) are applied here. With any fault on the byte
// stream the channel's write path is bypassed: the connection takes the
// control and data frames off their flows itself and sends them from a
// one-millisecond pump timer, sliced, held, broken or cut off as asked; the
// session key is then never offered (the pump writes frames in clear).
// A delay holds each request in a queue until it is due.
//
// Reactor thread only. The server destroys a connection once it is lost.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "flow/dataflow.h"
#include "front/config.h"
#include "network/qelcflow.h"
#include "network/qelcsession.h"

namespace Front {

class Exchange;

class Connection : public Network::QelcClientSession, public Base::DataFlow::WriteCallback {
public:
    enum : int {
        TIMER_PUMP = 31,
        TIMER_DELAY = 32,
        EVENT_CIPHER = 1031,
    };

    Connection(Exchange* exchange, Parallel::FdReactor* reactor, const Faults& faults, int number);
    ~Connection() override;

    void on_connected() override;
    void on_write(unsigned long id, const void* data, unsigned short size) override;
    bool on_timer(int id) override;
    int on_event(int id, void* data) override;

    // The writer of replies on this connection.
    Network::QelcFlow::Writer* replies() { return &response_writer; }
    // Switches the channel cipher once everything written so far has gone.
    void start_cipher(unsigned char type, unsigned long key);
    // Sends flow from id on, after what the reply flow holds now.
    void publish_topic(Network::QelcFlow* flow, unsigned long from);
    // Holds output (raw mode) for the stall of the faults, from now.
    void begin_stall();
    // Closes with a reason; the server destroys the connection afterwards.
    void drop(int reason);
    // Frees what the inbound flow holds of handled requests.
    void recycle();

    const Faults& get_faults() const { return faults; }
    int get_number() const { return number; }
    unsigned long get_frames_out() const { return frames_out; }

    // Session state, kept by the exchange.
    const User* user = nullptr;
    bool logged_in = false;
    bool authenticated = false;
    int crypt_value = 0;
    char key_text[301] = {};

private:
    struct Out {
        Base::DataFlow* flow;
        Base::DataFlow::Iterator* iterator;
    };
    struct Delayed {
        unsigned long due;
        std::string frame;
    };

    void switch_cipher();
    bool pump();
    bool next_frame();
    void handle_due();

    Exchange* exchange;
    Faults faults;
    int number;
    Network::QelcFlow* inbound;
    Network::QelcFlow* response;
    Network::QelcFlow::Writer response_writer;
    std::vector<Network::QelcFlow*> published;
    // Raw mode.
    Parallel::Timer* pump_timer;
    std::vector<Out> outs;
    std::string pending;
    size_t pending_frame_end;
    bool pending_is_data;
    unsigned long frames_out;
    unsigned long stall_until;
    bool silent;
    // Delay.
    Parallel::Timer* delay_timer;
    std::deque<Delayed> delayed;
    unsigned char cipher_type;
    unsigned long cipher_key;
};

}  // namespace Front

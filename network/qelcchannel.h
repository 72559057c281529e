// Network::QelcClientChannel: the flow channel on one TCP connection, used
// by both ends (a connecting client, and an accepted connection on a
// server). Network::QelcServerChannel: the listening socket of a server.
//
// Reading (read(), on readiness): the stream is cut into frames. Control
// frames (Type 0) are consumed here: a tag-7 frame sets the heartbeat
// timeout, anything else only proves the peer alive. A data frame (Type 2,
// ExtLength 0) is deciphered, decompressed, checked against the next
// sequence number of its subscribed flow, and appended to that flow whole,
// uncompressed and in clear. Flows are notified once per call. Any fault
// closes the connection with its reason; no frame is skipped, except those
// of a subscription blocked by its buffer limit.
//
// Writing (write(), polled by the reactor): published flows are a durable
// queue in front of the socket, and a reader's position is where sending
// resumes. Blocks of whole frames go to send() straight from flow memory;
// compression and the cipher work frame by frame into the channel's
// buffers. Bytes that the socket does not take wait in the write buffer and
// go first on the next call. Control frames travel through a private
// control flow and are never compressed or enciphered.
//
// Every member is touched on the reactor thread only; other threads reach
// the channel by appending to a flow, whose producer wakes the reactor.
#pragma once

#include <atomic>

#include "network/tcpsocket.h"
#include "network/flowchannel.h"

namespace Base {
class List;
class Map;
}  // namespace Base

namespace Parallel {
class FdNotify;
}

namespace Network {

class ClientSession;
class ServerSession;
class QelcFlow;

class QelcClientChannel : public FlowChannel {
public:
    static const int BUFFER_SIZE = 8200;     // 2 x XmpPacket::MAX_PACKAGE_SIZE
    static const int MAX_FRAME_SIZE = 8194;  // largest frame on the wire
    static const int SCRATCH_SIZE = 4026;    // QelcPacket::MAX_PACKAGE_SIZE
    static const int ROUNDS = 8;             // recv or send rounds per call
    static const unsigned long CLOCK_SECOND = 10000000;

    QelcClientChannel(Parallel::FdReactor* reactor, ClientSession* session,
                      Base::Reportable* reporter, int buffer_factor);
    ~QelcClientChannel() override;

    int read() override;
    int write() override;
    void get_id(int& read_id, int& write_id) const override;
    int get_id() const override { return socket.get_fd(); }

    Base::TcpSocket* get_socket() override { return &socket; }
    bool listen(const char* host, int port) override { return false; }
    bool connect(const char* host, int port, int timeout) override;
    int close(int reason) override;
    void create(int fd);

    bool publish(Base::DataFlow* flow, Base::DataFlow::AckCallback* ack,
                 Base::DataFlow::ReadCallback* read_callback, Base::DataReader* reader,
                 Parallel::FlowRecycler* recycler, unsigned int* waiting) override;
    bool subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                   bool no_sequence_check) override;
    void cancel_publish(Base::DataFlow* flow);
    void cancel_subscribe(Base::DataFlow* flow);

    int write(Base::DataReader* reader, unsigned int* waiting);
    int write(const char* buffer, int size);

    void send_heartbeat();
    void set_heartbeat_timeout(unsigned int seconds);
    unsigned int get_heartbeat_timeout() const { return heartbeat_timeout; }
    void enable_compress() { compress = true; }

    bool is_valid() const { return socket.get_fd() != 0; }
    bool available() const;
    PubItem* get_pub_item(unsigned short subject) const;
    SubItem* get_sub_item(unsigned short subject) const;
    unsigned long get_idle_timeout() const;
    void set_last_read(unsigned long clock) { last_read = clock; }
    int check_sub_buffer() { return FlowChannel::check_sub_buffer(sub_list); }
    void set_read_blocking(bool blocking);
    bool is_read_blocking() const { return read_blocked.load(std::memory_order_relaxed) != 0; }

    ClientSession* get_session() const { return session; }
    Parallel::FdNotify* get_notify() const { return notify; }
    QelcFlow* get_control_flow() const { return control_flow; }
    unsigned int get_pending() const { return pending; }
    int get_last_reason() const { return last_reason; }

private:
    void setup();
    void reset_read_state();
    void clear_tables();
    int fail(int reason, bool stored, unsigned long now);
    void trace_received(const char* data, long n);
    void notify_stored(unsigned long now);
    // Handles the frames in hand; returns 0, 1 when a frame is incomplete,
    // or the negative reason of a close.
    int take_frames(unsigned long now, bool& stored);
    int store_frame(char* frame, unsigned short size, unsigned long now, bool& stored);
    int compress_block(const char* block, int size, char* out, int& out_size);
    int encipher_block(const char* block, int size);
    void append_control(const char* frame, int size);

    ClientSession* session;
    int factor;
    Base::TcpSocket socket;
    int recv_space;
    int recv_count;
    char* read_ptr;
    char* read_buffer;
    char* inflate_buffer;
    char* decipher_buffer;
    bool compress;
    Base::Map* pub_map;
    Base::List* pub_list;
    Base::Map* sub_map;
    Base::List* sub_list;
    QelcFlow* control_flow;
    unsigned long last_heartbeat;
    unsigned long last_write;
    unsigned long last_read;
    unsigned int heartbeat_timeout;
    char* write_buffer;
    unsigned int pending;
    char* scratch;
    Parallel::FdNotify* notify;
    int last_reason;
};

class QelcServerChannel : public FlowChannel {
public:
    static const int MAX_FLOWS = 256;

    QelcServerChannel(Parallel::FdReactor* reactor, ServerSession* session,
                      Base::Reportable* reporter);
    ~QelcServerChannel() override;

    int read() override;
    int write() override { return -2; }
    void get_id(int& read_id, int& write_id) const override {
        read_id = socket.get_fd();
        write_id = 0;
    }
    int get_id() const override { return socket.get_fd(); }

    Base::TcpSocket* get_socket() override { return &socket; }
    bool listen(const char* host, int port) override;
    bool connect(const char* host, int port, int timeout) override { return false; }
    int close(int reason) override;

    // Stored for later clients; nothing happens at once.
    bool publish(Base::DataFlow* flow, Base::DataFlow::AckCallback* ack,
                 Base::DataFlow::ReadCallback* read_callback, Base::DataReader* reader,
                 Parallel::FlowRecycler* recycler, unsigned int* waiting) override;
    bool subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                   bool no_sequence_check) override;

    // Binds every stored flow on an accepted connection.
    void publish_flow(QelcClientChannel* channel);
    void subscribe_flow(QelcClientChannel* channel);

private:
    struct PubRecord {
        Base::DataFlow* flow;
        Base::DataFlow::AckCallback* ack;
        Base::DataFlow::ReadCallback* read_callback;
        Base::DataReader* reader;
        Parallel::FlowRecycler* recycler;
        unsigned int* counter;
    };

    ServerSession* session;
    Base::TcpSocket socket;
    PubRecord pubs[MAX_FLOWS];
    std::atomic<unsigned int> pub_count;
    Base::DataFlow* subs[MAX_FLOWS];
    std::atomic<unsigned int> sub_count;
};

}  // namespace Network

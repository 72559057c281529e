// Network::Channel: the transport endpoint under every session, a
// Parallel::Fd that the fd reactor polls.
//
// Besides what a descriptor does it keeps two services: a binary trace of
// everything that crosses the socket, appended to an optional log flow, and
// the symmetric per-frame cipher that the login exchange switches on. The
// cipher works below everything else: flows, packets and compression never
// see it.
//
// Trace record (integers big-endian): channel id (4), seconds (4), kind (2),
// data length n (2), microseconds (4), then n bytes of data. Kinds: 0 peer
// address text with its zero, 1 bytes received, 2 bytes sent, 3 recv error,
// 4 send error, 5 closing, 6 recv gave 0, 7 send gave 0, 8 set_cipher (type
// and the 8-byte key in native order). A closed channel (id 0) writes none.
//
// Everything runs on the reactor thread of the channel; no lock.
#pragma once

#include "network/channelcipher.h"
#include "parallel/fd.h"

namespace Base {
class DataFlow;
class Reportable;
class TcpSocket;
}  // namespace Base

namespace Parallel {
class FdReactor;
}

namespace Network {

// Reasons passed to close(); 0 is a deliberate close, never followed by a
// reconnect.
enum : int {
    REASON_CLOSED = 0,
    REASON_PEER_CLOSED = -11,
    REASON_READ_FAILED = -12,
    REASON_SEND_FAILED = -13,
    REASON_SILENT = -14,
    REASON_BUFFER_DRAINED = -15,
    REASON_NO_SUBSCRIPTION = -16,
    REASON_SEQUENCE = -17,
    REASON_LENGTH = -19,
    REASON_FILTER = -22,
    REASON_ENCODE = -23,
    REASON_DECODE = -24,
    REASON_LOGIN = -25,
};

enum : unsigned short {
    TRACE_CONNECTED = 0,
    TRACE_RECEIVED = 1,
    TRACE_SENT = 2,
    TRACE_RECV_ERROR = 3,
    TRACE_SEND_ERROR = 4,
    TRACE_CLOSING = 5,
    TRACE_RECV_ZERO = 6,
    TRACE_SEND_ZERO = 7,
    TRACE_CIPHER = 8,
};

class Channel : public Parallel::Fd {
public:
    static const int TRACE_HEADER_SIZE = 16;

    Channel(Parallel::FdReactor* reactor, Base::Reportable* reporter);
    ~Channel() override;

    virtual Base::TcpSocket* get_socket() = 0;
    virtual bool listen(const char* host, int port) = 0;
    virtual bool connect(const char* host, int port, int timeout) = 0;
    virtual int close(int reason) = 0;

    void set_log(Base::DataFlow* flow) { log = flow; }
    Base::DataFlow* get_log() const { return log; }
    void write_log(unsigned short kind, unsigned short size, const void* data);

    void set_cipher(unsigned char type, unsigned long key);
    unsigned char get_cipher_type() const { return cipher.get_type(); }
    bool encode(unsigned char* out, const unsigned char* in, int size) {
        return cipher.encode(out, in, size);
    }
    bool decode(unsigned char* out, const unsigned char* in, int size) {
        return cipher.decode(out, in, size);
    }

    Parallel::FdReactor* get_reactor() const { return reactor; }
    Base::Reportable* get_reporter() const { return reporter; }

protected:
    Parallel::FdReactor* reactor;
    Base::Reportable* reporter;
    Base::DataFlow* log;
    ChannelCipher cipher;

private:
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
};

}  // namespace Network

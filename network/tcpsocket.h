// Base::Socket and Base::TcpSocket: thin wrappers over the IPv4 socket calls
// that channels and the name-server query need, plus tcp_connect, tcp_send
// and tcp_recv, which give a connected descriptor and move bytes with
// bounded waits.
//
// Addresses are IPv4 dotted text only, parsed by inet_addr; there is no name
// resolution. Descriptor 0 means "no socket" throughout, so a socket call
// that returns 0 counts as a failure. Failures are results; errno is left to
// the caller. A socket object belongs to one thread; the statics hold no
// state. select_read/select_write wait on a private epoll instance made for
// each call: they are meant for connecting and one-off queries, not the data
// path, which runs through the reactor.
#pragma once

namespace Base {

class Socket {
public:
    Socket();
    virtual ~Socket();  // closes a non-zero descriptor
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    virtual bool open() = 0;
    virtual bool open(int fd);
    virtual void close();
    virtual bool listen(int backlog);
    virtual int accept();  // the new descriptor, or the call's failure
    virtual bool connect(const char* host, int port);
    virtual bool bind(const char* host, int port);

    static void startup() {}
    static void cleanup() {}

    // Splits "host:port" in place at the first colon; null without a colon.
    static char* get_address_port(char* text, int& port);

    // Waits up to timeout ms: 1 ready, 0 timed out or another event only
    // (a hang-up alone), -1 on failure.
    static int select_read(int fd, int timeout);
    static int select_write(int fd, int timeout);
    int select_read(int timeout) { return select_read(fd, timeout); }
    int select_write(int timeout) { return select_write(fd, timeout); }

    static void set_blocking(int fd, bool blocking);
    void set_blocking(bool blocking) { set_blocking(fd, blocking); }

    static int get_option(int fd, int level, int name, void* value, unsigned int* size);
    int get_option(int level, int name, void* value, unsigned int* size) {
        return get_option(fd, level, name, value, size);
    }

    int get_fd() const { return fd; }
    const char* get_local_address() const { return local_address; }
    int get_local_port() const { return local_port; }

protected:
    int fd;
    char local_address[32];
    int local_port;
};

class TcpSocket : public Socket {
public:
    TcpSocket();

    bool open() override;         // new socket with SO_REUSEADDR, TCP_NODELAY
    bool open(int fd) override;   // adopts an accepted descriptor
    bool listen(int backlog) override;
    using Socket::connect;
    // Connects within timeout ms (500 when below 1); blocking afterwards.
    virtual bool connect(const char* host, int port, int timeout);
    static bool connect(int fd, const char* host, int port, int timeout);

    // Starts a non-blocking connect; check_connect() completes it.
    bool try_connect(const char* host, int port);
    bool check_connect();

    void get_address();  // fills local and remote address and port
    // Address text (up to 16 bytes) of one end; the port, or -1.
    static int get_local(int fd, char* text);
    static int get_remote(int fd, char* text);

    const char* get_remote_address() const { return remote_address; }
    int get_remote_port() const { return remote_port; }
    bool is_adopted() const { return adopted; }

private:
    char remote_address[32];
    int remote_port;
    bool adopted;
};

// A fresh socket connected within timeout ms (500 when below 1), in blocking
// mode; -1 on any failure.
int tcp_connect(const char* host, int port, int timeout);
// Move up to size bytes, waiting at most timeout ms for each chunk; return
// the bytes moved. *closed (if given) tells whether the peer closed or the
// call failed, as opposed to a time-out.
int tcp_send(int fd, const char* data, int size, int timeout, bool* closed);
int tcp_recv(int fd, char* data, int size, int timeout, bool* closed);

}  // namespace Base

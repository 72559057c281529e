#include "network/tcpsocket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Base {

namespace {

sockaddr_in make_address(const char* host, int port) {
    sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(host);
    address.sin_port = htons(uint16_t(port));
    return address;
}

int wait_for(int fd, int timeout, uint32_t wanted) {
    int epoll_fd = epoll_create(1);
    if (epoll_fd < 0) return -1;
    epoll_event interest;
    std::memset(&interest, 0, sizeof(interest));
    interest.events = wanted;
    interest.data.fd = fd;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &interest) < 0) {
        ::close(epoll_fd);
        return -1;
    }
    epoll_event ready;
    int n = epoll_wait(epoll_fd, &ready, 1, timeout);
    ::close(epoll_fd);
    if (n <= 0) return n;
    return (ready.events & wanted) ? 1 : 0;
}

void set_int_option(int fd, int level, int name, int value) {
    setsockopt(fd, level, name, &value, sizeof(value));
}

// Address text and port of one end of fd; -1 if the call failed, and the
// text is then left as it was.
int end_of(int fd, char* text, bool remote) {
    sockaddr_in address;
    socklen_t size = sizeof(address);
    int rc = remote ? getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size)
                    : getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    if (rc != 0) return -1;
    inet_ntop(AF_INET, &address.sin_addr, text, INET_ADDRSTRLEN);
    return ntohs(address.sin_port);
}

// The connect with a bound wait shared by TcpSocket::connect and
// tcp_connect; the descriptor is blocking again whatever the outcome.
bool connect_within(int fd, const char* host, int port, int timeout) {
    sockaddr_in address = make_address(host, port);
    Socket::set_blocking(fd, false);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        Socket::set_blocking(fd, true);
        return true;
    }
    if (errno != EINPROGRESS) {
        Socket::set_blocking(fd, true);
        return false;
    }
    bool ok = Socket::select_write(fd, timeout < 1 ? 500 : timeout) > 0;
    if (ok) {
        int error = 0;
        unsigned int size = sizeof(error);
        ok = Socket::get_option(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    }
    Socket::set_blocking(fd, true);
    return ok;
}

}  // namespace

Socket::Socket() : fd(0), local_port(0) { std::memset(local_address, 0, sizeof(local_address)); }

Socket::~Socket() {
    if (fd != 0) ::close(fd);
}

bool Socket::open(int descriptor) {
    fd = descriptor;
    return true;
}

void Socket::close() {
    if (fd != 0) ::close(fd);
    fd = 0;
}

bool Socket::listen(int backlog) { return ::listen(fd, backlog) == 0; }

int Socket::accept() { return ::accept(fd, nullptr, nullptr); }

bool Socket::connect(const char* host, int port) {
    sockaddr_in address = make_address(host, port);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

bool Socket::bind(const char* host, int port) {
    sockaddr_in address = make_address(host, port);
    return ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

char* Socket::get_address_port(char* text, int& port) {
    char* colon = std::strchr(text, ':');
    if (!colon) return nullptr;
    *colon = 0;
    port = int(std::strtol(colon + 1, nullptr, 10));
    return text;
}

int Socket::select_read(int fd, int timeout) { return wait_for(fd, timeout, EPOLLIN); }

int Socket::select_write(int fd, int timeout) { return wait_for(fd, timeout, EPOLLOUT); }

void Socket::set_blocking(int fd, bool blocking) {
    int non_blocking = blocking ? 0 : 1;
    ioctl(fd, FIONBIO, &non_blocking);
}

int Socket::get_option(int fd, int level, int name, void* value, unsigned int* size) {
    return getsockopt(fd, level, name, value, size);
}

TcpSocket::TcpSocket() : remote_port(0), adopted(false) {
    std::memset(remote_address, 0, sizeof(remote_address));
}

bool TcpSocket::open() {
    remote_address[0] = 0;
    remote_port = 0;
    int descriptor = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (descriptor < 1) {
        // Descriptor 0 means "none" here, so a 0 from socket() is given back.
        if (descriptor == 0) ::close(descriptor);
        fd = 0;
        return false;
    }
    fd = descriptor;
    set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    return true;
}

bool TcpSocket::open(int descriptor) {
    adopted = true;
    if (descriptor == 0) return true;
    fd = descriptor;
    set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    get_address();
    return true;
}

bool TcpSocket::listen(int backlog) {
    bool ok = Socket::listen(backlog);
    if (fd != 0) get_address();
    return ok;
}

bool TcpSocket::connect(const char* host, int port, int timeout) {
    if (fd == 0) return false;
    if (!connect_within(fd, host, port, timeout)) return false;
    get_address();
    return true;
}

bool TcpSocket::connect(int descriptor, const char* host, int port, int timeout) {
    if (descriptor == 0) return false;
    return connect_within(descriptor, host, port, timeout);
}

bool TcpSocket::try_connect(const char* host, int port) {
    if (fd == 0) return false;
    set_blocking(false);
    sockaddr_in address = make_address(host, port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return true;
    return errno == EINPROGRESS;
}

bool TcpSocket::check_connect() {
    if (fd == 0) return false;
    bool ok = select_write(0) > 0;
    if (ok) {
        int error = 0;
        unsigned int size = sizeof(error);
        ok = get_option(SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    }
    set_blocking(true);
    if (ok) get_address();
    return ok;
}

void TcpSocket::get_address() {
    local_port = end_of(fd, local_address, false);
    remote_port = end_of(fd, remote_address, true);
}

int TcpSocket::get_local(int fd, char* text) { return end_of(fd, text, false); }

int TcpSocket::get_remote(int fd, char* text) { return end_of(fd, text, true); }

int tcp_connect(const char* host, int port, int timeout) {
    int fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (fd < 1) {
        if (fd == 0) ::close(fd);
        return -1;
    }
    if (!connect_within(fd, host, port, timeout)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int tcp_send(int fd, const char* data, int size, int timeout, bool* closed) {
    if (closed) *closed = false;
    if (size < 1) return 0;
    int done = 0;
    while (true) {
        if (Socket::select_write(fd, timeout) < 1) return done;
        ssize_t n = ::send(fd, data + done, size_t(size - done), MSG_NOSIGNAL);
        if (n < 1) {
            if (closed) *closed = true;
            return done;
        }
        done += int(n);
        if (done >= size) return done;
    }
}

int tcp_recv(int fd, char* data, int size, int timeout, bool* closed) {
    if (closed) *closed = false;
    if (size < 1) return 0;
    int done = 0;
    while (true) {
        if (Socket::select_read(fd, timeout) < 1) return done;
        ssize_t n = ::recv(fd, data + done, size_t(size - done), 0);
        if (n < 1) {
            if (closed) *closed = true;
            return done;
        }
        done += int(n);
        if (done >= size) return done;
    }
}

}  // namespace Base

// Parallel::FdReactor: the reactor with an epoll set and a list of
// descriptors; the class the trader runs.
//
// Reading is driven by readiness (level-triggered epoll, never EPOLLET);
// writing is polled: every active descriptor's write() is called once a
// pass. Only after a send would block (write() returns -1) does the reactor
// ask epoll for EPOLLOUT and retire the descriptor behind the sentinel; when
// EPOLLOUT fires the interest falls back to EPOLLIN and the descriptor comes
// back to the front. The list reads [active] notify_fd [retired].
//
// notify_fd is an eventfd: it is both the sentinel of the list and the way
// other threads wake the loop out of its 10 ms epoll_wait.
//
// Events: 21 add_fd, 22 remove_fd (blocking), 23 bring a descriptor back to
// the front, 24 retire it. set_blocking() changes the epoll interest on the
// calling thread, relying on epoll_ctl being safe beside epoll_wait.
//
// Busy-poll mode, for an application that gives the network thread a core
// of its own: set_busy_poll(cpu) before create() pins the thread to that CPU
// and makes every pass look at the descriptors (epoll_wait without waiting)
// and the event queue without ever napping; other threads then post without
// writing the eventfd, as nobody sleeps on it. The thread takes the whole
// core. busy_poll_cpu() reads the choice from the environment.
#pragma once

#include <sys/epoll.h>

#include "parallel/fd.h"
#include "parallel/reactor.h"

namespace Parallel {

enum : int {
    EVENT_ADD_FD = 21,
    EVENT_REMOVE_FD = 22,
    EVENT_ACTIVATE_FD = 23,
    EVENT_RETIRE_FD = 24,
};

constexpr int EPOLL_EVENTS = 8192;

// The CPU named by the environment variable QEL_BUSY_POLL (a decimal CPU
// number this process may run on), or -1 when it is absent or names no
// such CPU: the default, napping reactor.
int busy_poll_cpu();

class FdReactor : public Reactor {
public:
    explicit FdReactor(const char* name);
    ~FdReactor() override;  // deletes every Fd still in its list

    void add_fd(Fd* fd);
    void remove_fd(Fd* fd);  // blocks until done
    // Interest: EPOLLIN unless read_blocked, plus EPOLLOUT if write_blocked.
    void set_blocking(Fd* fd, bool write_blocked);

    void wakeup(bool remote) override;
    int on_event(int id, void* data) override;

    // Before create(): cpu >= 0 selects busy-poll mode on that CPU, a
    // negative cpu the napping reactor (the default).
    void set_busy_poll(int cpu) { busy_cpu = cpu < 0 ? -1 : cpu; }
    int get_busy_poll() const { return busy_cpu; }

    uint64_t get_fd_count() const { return fd_count; }

    class NotifyFd;

protected:
    void thread_proc() override;
    bool fd_proc(bool busy);

    void link_fd_front(Fd* fd);
    void unlink_fd(Fd* fd);
    void retire_fd(Fd* fd);  // behind notify_fd
    void activate_fd(Fd* fd);

    Fd fd_head;  // header node of the circular descriptor list
    uint64_t fd_count;
    NotifyFd* notify_fd;
    int epoll_fd;
    int busy_cpu;  // set before the thread starts, then only read
    epoll_event epoll_events[EPOLL_EVENTS];
};

class FdReactor::NotifyFd : public Fd {
public:
    explicit NotifyFd(FdReactor* reactor);
    ~NotifyFd() override;  // closes the eventfd

    int read() override;   // drains the eventfd
    int write() override;  // the wake-up itself; any thread
    void get_id(int& a, int& b) const override {
        a = event_fd;
        b = 0;
    }
    int get_id() const override { return event_fd; }

private:
    FdReactor* reactor;
    int event_fd;
    char buffer[16];
};

// Brings a retired descriptor back to the front when a flow it writes from
// gains data (enhanced mode only).
class FdNotify : public Base::Notify {
public:
    FdNotify(FdReactor* reactor, Fd* fd);
    void wakeup(bool remote) override;

    FdReactor* reactor;
    Fd* fd;
};

}  // namespace Parallel

#include "parallel/fdreactor.h"

#include "parallel/ring.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sync/sign.h"
#include "base/switches.h"

namespace Parallel {

namespace {

bool notify_enhanced() { return Base::g_enable_notify_enhance; }

void set_interest(int epoll_fd, int op, Fd* fd, uint32_t events) {
    epoll_event interest;
    std::memset(&interest, 0, sizeof(interest));
    interest.events = events;
    interest.data.ptr = fd;
    epoll_ctl(epoll_fd, op, fd->get_id(), &interest);
}

uint32_t read_interest(const Fd* fd) {
    return fd->read_blocked.load(std::memory_order_relaxed) ? 0u : uint32_t(EPOLLIN);
}

}  // namespace

int busy_poll_cpu() {
    const char* text = std::getenv("QEL_BUSY_POLL");
    if (!text || !*text) return -1;
    long cpu = 0;
    for (const char* p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return -1;
        cpu = cpu * 10 + (*p - '0');
        if (cpu >= CPU_SETSIZE) return -1;
    }
    // Only a CPU this process is allowed on: pinning to another would fail.
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return -1;
    return CPU_ISSET(int(cpu), &allowed) ? int(cpu) : -1;
}

// ---- NotifyFd ----

FdReactor::NotifyFd::NotifyFd(FdReactor* reactor) : reactor(reactor) {
    event_fd = eventfd(0, 0);
    fcntl(event_fd, F_SETFL, O_NONBLOCK);
    std::memset(buffer, 0, sizeof(buffer));
}

FdReactor::NotifyFd::~NotifyFd() {
    if (event_fd >= 0) close(event_fd);
}

int FdReactor::NotifyFd::read() {
    ssize_t n = ::read(event_fd, buffer, 8);
    (void)n;
    return 0;
}

int FdReactor::NotifyFd::write() {
    uint64_t t = 0;
    if (notify_enhanced()) {
        t = Base::read_clock();
        // Rate limit, and no wake-up while the loop is sure to stay awake.
        if (last_active.load(std::memory_order_relaxed) + SIGNAL_GAP > t) return 0;
        if (t + SIGNAL_GAP < reactor->get_busy_until()) return 0;
    }
    uint64_t one = 1;
    ssize_t n = ::write(event_fd, &one, sizeof(one));
    (void)n;
    last_active.store(t, std::memory_order_relaxed);
    return 0;
}

// ---- FdReactor ----

FdReactor::FdReactor(const char* name) : Reactor(name), fd_count(0), busy_cpu(-1) {
    notify_fd = new NotifyFd(this);
    epoll_fd = epoll_create(EPOLL_EVENTS);
}

FdReactor::~FdReactor() {
    close(epoll_fd);
    if (notify_fd->is_linked()) {
        unlink_fd(notify_fd);
        fd_count -= 1;
    }
    delete notify_fd;
    while (fd_head.next != &fd_head) {
        Fd* fd = fd_head.next;
        unlink_fd(fd);
        delete fd;
    }
}

void FdReactor::add_fd(Fd* fd) { add_event(EVENT_ADD_FD, fd, nullptr, nullptr, false); }

void FdReactor::remove_fd(Fd* fd) {
    Base::Sign done(0);
    add_event(EVENT_REMOVE_FD, fd, &done, nullptr, false);
    done.join();
}

void FdReactor::set_blocking(Fd* fd, bool write_blocked) {
    if (fd->get_id() < 1) return;
    uint32_t events = read_interest(fd);
    if (write_blocked) events |= EPOLLOUT;
    set_interest(epoll_fd, EPOLL_CTL_MOD, fd, events);
}

void FdReactor::wakeup(bool remote) {
    // A busy-polling loop never naps and finds every post by itself: a
    // remote wake-up has nothing to do, not even ask whose thread calls
    // (a system call on every commit of a flow the loop reads).
    if (remote && busy_cpu >= 0) return;
    if (remote && !is_current()) {
        // A busy-polling loop never sleeps: it finds the post by itself.
        if (busy_cpu < 0) notify_fd->write();
    } else {
        busy_until.store(now + BUSY_SPAN, std::memory_order_relaxed);
    }
}

void FdReactor::link_fd_front(Fd* fd) { ring_link_after(fd, &fd_head); }

void FdReactor::unlink_fd(Fd* fd) { ring_unlink(fd); }

void FdReactor::retire_fd(Fd* fd) {
    ring_unlink(fd);
    ring_link_before(fd, &fd_head);
    fd->last_active.store(0, std::memory_order_relaxed);
}

void FdReactor::activate_fd(Fd* fd) {
    unlink_fd(fd);
    link_fd_front(fd);
    fd->last_active.store(now, std::memory_order_relaxed);
}

int FdReactor::on_event(int id, void* data) {
    Fd* fd = static_cast<Fd*>(data);
    switch (id) {
    case EVENT_ADD_FD:
        link_fd_front(fd);
        fd_count += 1;
        if (fd->get_id() > 0) set_interest(epoll_fd, EPOLL_CTL_ADD, fd, EPOLLIN);
        return 0;
    case EVENT_REMOVE_FD:
        if (fd->is_linked()) {
            if (fd->get_id() > 0) set_interest(epoll_fd, EPOLL_CTL_DEL, fd, 0);
            unlink_fd(fd);
            fd_count -= 1;
        }
        return 0;
    case EVENT_ACTIVATE_FD:
        if (fd->is_linked()) activate_fd(fd);
        return 0;
    case EVENT_RETIRE_FD:
        if (fd->is_linked()) retire_fd(fd);
        return 0;
    default:
        return Reactor::on_event(id, data);
    }
}

bool FdReactor::fd_proc(bool busy) {
    if (fd_head.next != notify_fd) {
        bool enhanced = notify_enhanced();
        Fd* fd = fd_head.next;
        while (fd != notify_fd && fd != &fd_head) {
            Fd* next = fd->next;  // saved first: write() may move fd
            int r = fd->write();
            if (r == 0) {
                fd->last_active.store(now, std::memory_order_relaxed);
                busy = true;
            } else if (r == FD_IDLE || r == FD_EMPTY) {
                if (enhanced && fd->notify_enabled.load(std::memory_order_relaxed)) {
                    if (now >= fd->last_active.load(std::memory_order_relaxed) + IDLE_LIMIT)
                        retire_fd(fd);
                    else
                        busy = true;
                }
            } else if (r == FD_BLOCKED) {
                if (fd->get_id() > 0)
                    set_interest(epoll_fd, EPOLL_CTL_MOD, fd, read_interest(fd) | EPOLLOUT);
                retire_fd(fd);
            }
            fd = next;
        }
        ring_rotate(&fd_head, static_cast<Fd*>(notify_fd));
    }
    int timeout = busy || busy_cpu >= 0 ? 0 : (now > get_busy_until() ? NAP_MS : 0);
    int n = epoll_wait(epoll_fd, epoll_events, EPOLL_EVENTS, timeout);
    if (n < 1) return busy;
    for (int i = 0; i < n; i++) {
        Fd* fd = static_cast<Fd*>(epoll_events[i].data.ptr);
        uint32_t events = epoll_events[i].events;
        if (events & (EPOLLIN | EPOLLERR)) {
            // Negative: the descriptor closed itself and may be gone.
            if (fd->read() < 0) continue;
            fd->last_active.store(now, std::memory_order_relaxed);
        }
        if (events & EPOLLOUT) {
            if (fd->get_id() > 0) {
                // Writability is wanted once: back to reading alone.
                set_interest(epoll_fd, EPOLL_CTL_MOD, fd, read_interest(fd));
                if (fd->is_linked()) activate_fd(fd);
            }
        }
    }
    return true;
}

void FdReactor::thread_proc() {
    if (busy_cpu >= 0) {
        // Pinned where the application set a core aside; if that fails the
        // loop still polls, wherever the scheduler puts it.
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(busy_cpu, &one);
        pthread_setaffinity_np(pthread_self(), sizeof(one), &one);
    }
    on_event(EVENT_ADD_FD, notify_fd);
    while (running.load(std::memory_order_relaxed)) {
        now = Base::read_clock();
        bool events = event_proc();
        bool worked = handler_proc();
        bool timers = timer_proc();
        bool more = fd_proc(worked || events || timers);
        if (more)
            wakeup(false);
        else if (!notify_enhanced())
            busy_until.store(0, std::memory_order_relaxed);
    }
    on_event(EVENT_REMOVE_FD, notify_fd);
}

// ---- FdNotify ----

FdNotify::FdNotify(FdReactor* reactor, Fd* fd)
    : Base::Notify(reactor ? static_cast<Base::NotifyGroup*>(reactor) : nullptr),
      reactor(reactor),
      fd(fd) {
    fd->notify_enabled.store(1, std::memory_order_relaxed);
}

void FdNotify::wakeup(bool remote) {
    if (reactor && notify_enhanced() && fd->notify_enabled.load(std::memory_order_relaxed))
        reactor->add_event(EVENT_ACTIVATE_FD, fd, nullptr, nullptr, false);
}

}  // namespace Parallel

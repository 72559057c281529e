// Parallel::Fd: a descriptor as the fd reactor sees it. Channels derive from
// it.
//
// read() is called when epoll reports the descriptor readable (or in
// error); a negative result means the object closed itself inside read()
// and may be gone, so the reactor touches it no more. write() is polled once
// every pass while the descriptor is active; its result tells the reactor:
//   0       progress was made
//   -1      the send would block: wait for EPOLLOUT behind the sentinel
//   -2, -3  nothing to send now (in enhanced mode a quiet notified
//           descriptor is retired after a while)
// get_id() is the kernel descriptor; 0 or less keeps the object out of the
// epoll set (it is still polled by write()).
#pragma once

#include <atomic>
#include <cstdint>

namespace Parallel {

enum : int { FD_BLOCKED = -1, FD_IDLE = -2, FD_EMPTY = -3 };

class Fd {
public:
    Fd();
    virtual ~Fd();

    virtual int read() { return 0; }
    virtual int write() { return 0; }
    virtual void get_id(int& a, int& b) const {
        a = 0;
        b = 0;
    }
    virtual int get_id() const { return 0; }

    bool is_linked() const { return next != this; }

    Fd* prev;
    Fd* next;
    // Written by the reactor, and for the wake-up descriptor also by the
    // threads that wake it: relaxed, a timing hint only.
    std::atomic<uint64_t> last_active;
    std::atomic<uint8_t> notify_enabled;  // set by a FdNotify
    // Reading suspended: the epoll interest leaves out EPOLLIN. Set by the
    // owner, read by set_blocking() and the reactor.
    std::atomic<uint8_t> read_blocked;
};

}  // namespace Parallel

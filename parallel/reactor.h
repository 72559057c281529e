// Parallel::EventThread and Parallel::Reactor: a thread with a lock-free
// mailbox, and on top of it a set of polled handlers and a heap of timers.
//
// Any thread may post an event (add_event); the event thread runs it, so all
// state of one reactor is touched by one thread only. A post from the event
// thread itself (unless forced) runs at once, inline. A post with a
// Base::Sign wakes the thread and has the sign set after the event ran; a
// post without one wakes nothing and is seen by the next pass, at worst one
// nap (10 ms) later.
//
// A reactor pass does bounded work: at most 8 events, one on_invoke of each
// active handler, at most 8 timer entries. After work the loop keeps polling
// until busy_until (750 us after the last work) has passed, then naps up to
// 10 ms on its notify sign. The handler list reads
// [active handlers] handler_end [idle handlers]: only those before the
// sentinel are polled. Timers are cancelled lazily: each arming gets a new
// seq, and a heap entry whose seq no longer matches its timer is dropped
// when it comes up.
//
// A handler that goes away while events for it are still queued calls
// cancel_events first: those events are then dropped when they come up
// (their posters' signs are still set), and the loop is never re-entered.
//
// Base::g_enable_notify_enhance (base/switches.h) selects the enhanced mode: wake-ups are rate
// limited, the loop spins until busy_until, and quiet notified handlers are
// parked behind handler_end until their HandlerNotify brings them back.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "flow/notify.h"
#include "parallel/thread.h"

namespace Base {
class Heap;
class LFQueue;
class LFStack;
class List;
class Sign;
}  // namespace Base

namespace Parallel {

// Reactor timing, in ticks of 100 ns.
constexpr uint64_t BUSY_SPAN = 7500;    // polling goes on this long after work
constexpr uint64_t SIGNAL_GAP = 2000;   // least gap between two wake-ups
constexpr uint64_t IDLE_LIMIT = 5500;   // a notified handler parks after this
constexpr int NAP_MS = 10;
constexpr int EVENTS_PER_PASS = 8;
constexpr int TIMERS_PER_PASS = 8;

// Reactor event ids. Ids from 1001 up belong to the receiving handler class.
enum : int {
    EVENT_ADD_TIMER = 11,
    EVENT_REMOVE_TIMER = 12,
    EVENT_ENABLE_TIMER_NOW = 13,
    EVENT_ENABLE_TIMER = 14,
    EVENT_DISABLE_TIMER = 15,
    EVENT_ADD_HANDLER = 16,
    EVENT_REMOVE_HANDLER = 17,
    EVENT_ENABLE_HANDLER = 18,
    EVENT_DISABLE_HANDLER = 19,
    EVENT_NOTIFY = 20,
    EVENT_CANCEL_HANDLER = 31,  // cancel_events from another thread
    EVENT_CANCEL_DATA = 32,     // cancel_events_about from another thread
    EVENT_CANCEL_END = 33,      // every event a cancel covers has come up
};

// Something the reactor polls (on_invoke), or hands events and timers to.
// Links point at the handler itself while it is in no list.
class Handler {
public:
    Handler();
    virtual ~Handler();

    virtual bool on_invoke() { return false; }  // true: did work
    virtual int on_event(int id, void* data) { return 0; }
    virtual bool on_timer(int id) { return false; }  // true: fire again

    bool is_linked() const { return next != this; }

    Handler* prev;
    Handler* next;
    uint64_t last_active;
    std::atomic<uint8_t> notify_enabled;  // set by a HandlerNotify
};

// A timer; interval in microseconds. Valid from add_timer to remove_timer.
struct Timer {
    int id;
    Handler* handler;
    int interval;
    uint64_t seq;
    uint8_t immediate;
    uint8_t enabled;
};

class EventThread : public Thread, public Base::NotifyGroup {
public:
    explicit EventThread(const char* name);
    ~EventThread() override;

    // Runs on_event(id, data) of handler (or of this thread when handler is
    // null) on the event thread, then sets sign if given.
    void add_event(int id, void* data, Base::Sign* sign, Handler* handler, bool force);

    // remote: another thread has work for this one.
    void wakeup(bool remote) override;
    virtual int on_event(int id, void* data) = 0;

    bool event_proc();  // the loop's share of events; true if any ran

    // Once it returns, no event queued for handler before the call runs any
    // more; they are dropped when they come up (a poster's sign is still
    // set). On the event thread it returns at once; from another thread it
    // waits until the event thread has come to it (the thread must be
    // running), and the events queued ahead of it have run by then.
    // Afterwards handler may be freed; a new handler at the same address
    // gets what is posted to it from then on.
    void cancel_events(Handler* handler);
    // The same for the thread's own events (posted with no handler) whose
    // data is the given object, such as a descriptor about to be freed.
    void cancel_events_about(const void* data);

    uint64_t get_busy_until() const { return busy_until.load(std::memory_order_relaxed); }

    class NotifySign;

protected:
    // Read by other threads without ordering: a stale value costs one
    // needless signal or one nap.
    std::atomic<uint64_t> busy_until;
    uint64_t now;  // the reading at the start of the current pass
    NotifySign* notify_sign;
    Base::LFQueue* event_queue;
    Base::LFStack* event_pool;

private:
    struct Cancel {
        const void* target;  // a handler, or the data of an own event
        bool own;            // target is data
        uint64_t cut;        // events stamped below it are dropped
    };
    struct Event;
    void run_event(Event* event);
    bool is_cancelled(const Event* event) const;
    void cancel(const void* target, bool own);
    void cancel_here(const void* target, bool own);
    void end_cancel(uint64_t cut);

    // Stamps every queued event. Only its modification order matters: a post
    // that happens before a cancel gets a lower stamp than the cancel's cut.
    std::atomic<uint64_t> post_count;
    std::vector<Cancel> cancels;  // event thread only
};

class Reactor : public EventThread {
public:
    explicit Reactor(const char* name);
    ~Reactor() override;

    Timer* add_timer(int id, int interval, bool enabled, Handler* handler, bool immediate);
    void remove_timer(Timer* timer);  // blocks until done
    void enable_timer(Timer* timer, bool immediate);
    void disable_timer(Timer* timer);  // blocks until done

    void add_handler(Handler* handler);
    void remove_handler(Handler* handler);  // blocks until done
    void enable_handler(Handler* handler);
    void disable_handler(Handler* handler);  // blocks until done

    // Brings back the parked readers of a consumer list of Base::Notify*.
    void notify(Base::List* list) override;
    virtual bool on_timer(int id) { return false; }
    int on_event(int id, void* data) override;

    uint64_t get_handler_count() const { return handler_count; }

protected:
    void thread_proc() override;
    bool handler_proc();
    bool timer_proc();

    void link_handler_front(Handler* handler);
    void park_handler(Handler* handler);  // behind handler_end
    void unlink_handler(Handler* handler);
    void arm_timer(Timer* timer, uint64_t due);
    void post_and_wait(int id, void* data);

    uint64_t timer_seq;
    Base::Heap* timer_heap;
    Base::LFStack* timer_pool;
    Handler handler_head;  // header node of the circular handler list
    uint64_t handler_count;
    Handler* handler_end;
};

// Puts a parked handler back in front of handler_end when a flow it reads
// is written to (enhanced mode only).
class HandlerNotify : public Base::Notify {
public:
    HandlerNotify(Reactor* reactor, Handler* handler);
    void wakeup(bool remote) override;

    Reactor* reactor;
    Handler* handler;
};

}  // namespace Parallel

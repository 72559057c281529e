#include "parallel/reactor.h"

#include "parallel/ring.h"

#include "containers/heap.h"
#include "sync/lfqueue.h"
#include "sync/lfstack.h"
#include "containers/list.h"
#include "sync/sign.h"
#include "base/switches.h"

#include <vector>

namespace Parallel {

namespace {

bool notify_enhanced() { return Base::g_enable_notify_enhance; }

// A timer heap entry; the heap keeps the earliest due time on top.
struct TimerEntry {
    Timer* timer;
    uint64_t seq;
    uint64_t due;
};

int compare_timer(const void* a, const void* b) {
    uint64_t due_a = static_cast<const TimerEntry*>(a)->due;
    uint64_t due_b = static_cast<const TimerEntry*>(b)->due;
    if (due_a < due_b) return 1;
    if (due_a > due_b) return -1;
    return 0;
}

uint64_t interval_ticks(const Timer* timer) { return uint64_t(int64_t(timer->interval) * 10); }

bool heap_empty(Base::Heap* heap) { return heap->get_size() == 0; }

TimerEntry* heap_top(Base::Heap* heap) { return static_cast<TimerEntry*>(heap->top()); }

}  // namespace

// One posted event; recycled through the event pool.
struct EventThread::Event {
    int id;
    Handler* handler;
    void* data;
    Base::Sign* sign;
    uint64_t stamp;  // from post_count, for cancel_events
};

Handler::Handler() : prev(this), next(this), last_active(0), notify_enabled(0) {}

Handler::~Handler() {}

// ---- EventThread ----

class EventThread::NotifySign {
public:
    explicit NotifySign(EventThread* owner) : owner(owner), last_set(0), sign(0) {}
    virtual ~NotifySign() {}

    void set() {
        if (!notify_enhanced()) {
            sign.set();
            return;
        }
        uint64_t t = Base::read_clock();
        if (last_set.load(std::memory_order_relaxed) + SIGNAL_GAP > t) return;
        // The loop stays awake long enough to see the work unsignalled.
        if (owner->get_busy_until() > t + SIGNAL_GAP) return;
        sign.set();
        last_set.store(t, std::memory_order_relaxed);
    }

    // Naps up to 10 ms; a signal clears however many piled up.
    bool wait() { return sign.timed_wait(NAP_MS, true); }

    EventThread* owner;
    std::atomic<uint64_t> last_set;  // plain timing hint, any thread
    Base::Sign sign;
};

EventThread::EventThread(const char* name)
    : Thread(name),
      busy_until(0),
      now(0),
      notify_sign(new NotifySign(this)),
      event_queue(new Base::LFQueue(1024)),
      event_pool(new Base::LFStack(1024)),
      post_count(0) {}

EventThread::~EventThread() {
    while (Event* event = static_cast<Event*>(event_pool->pop())) delete event;
    // Events never run: their posters are released all the same.
    while (Event* event = static_cast<Event*>(event_queue->pop())) {
        if (event->sign) event->sign->set();
        delete event;
    }
    delete event_pool;
    delete event_queue;
    delete notify_sign;
}

void EventThread::add_event(int id, void* data, Base::Sign* sign, Handler* handler, bool force) {
    if (!force && is_current()) {
        if (handler)
            handler->on_event(id, data);
        else
            on_event(id, data);
        if (sign) sign->set();
        return;
    }
    Event* event = nullptr;
    if (!event_pool->is_empty()) event = static_cast<Event*>(event_pool->pop());
    if (!event) event = new Event();
    event->id = id;
    event->handler = handler;
    event->data = data;
    event->sign = sign;
    event->stamp = post_count.fetch_add(1, std::memory_order_relaxed);
    event_queue->push(event);
    // Without a sign nobody waits: the next pass picks the event up.
    if (sign) wakeup(true);
}

void EventThread::wakeup(bool remote) {
    if (remote && !is_current())
        notify_sign->set();
    else
        busy_until.store(now + BUSY_SPAN, std::memory_order_relaxed);
}

bool EventThread::event_proc() {
    if (event_queue->is_empty()) return false;
    int handled = 0;
    while (true) {
        Event* event = static_cast<Event*>(event_queue->pop());
        if (!event) return handled > 0;
        run_event(event);
        // Only now, after the event ran, is a blocked poster released.
        if (event->sign) event->sign->set();
        event_pool->push(event);
        if (++handled >= EVENTS_PER_PASS) return true;
        if (event_queue->is_empty()) return true;
    }
}

void EventThread::run_event(Event* event) {
    Handler* handler = event->handler;
    if (!handler && event->id == EVENT_CANCEL_HANDLER)
        cancel_here(event->data, false);
    else if (!handler && event->id == EVENT_CANCEL_DATA)
        cancel_here(event->data, true);
    else if (!handler && event->id == EVENT_CANCEL_END)
        end_cancel(event->stamp);
    else if (!cancels.empty() && is_cancelled(event))
        return;  // what it names is gone: only the poster is released
    else if (handler)
        handler->on_event(event->id, event->data);
    else
        on_event(event->id, event->data);
}

void EventThread::cancel_events(Handler* handler) { cancel(handler, false); }

void EventThread::cancel_events_about(const void* data) { cancel(data, true); }

void EventThread::cancel(const void* target, bool own) {
    if (is_current()) {
        cancel_here(target, own);
        return;
    }
    // Every event queued before this one runs first, as the queue is FIFO;
    // the note only covers those posted concurrently with it.
    Base::Sign done(0);
    add_event(own ? EVENT_CANCEL_DATA : EVENT_CANCEL_HANDLER, const_cast<void*>(target), &done,
              nullptr, true);
    done.join();
}

// The cut is the stamp of an end mark queued behind every event stamped
// before it; when that mark comes up the note has done its work. Stamps are
// unique, so the cut names the note.
void EventThread::cancel_here(const void* target, bool own) {
    if (event_queue->is_empty()) return;  // nothing queued can name it
    Event* mark = nullptr;
    if (!event_pool->is_empty()) mark = static_cast<Event*>(event_pool->pop());
    if (!mark) mark = new Event();
    mark->id = EVENT_CANCEL_END;
    mark->handler = nullptr;
    mark->data = nullptr;
    mark->sign = nullptr;
    mark->stamp = post_count.fetch_add(1, std::memory_order_relaxed);
    cancels.push_back(Cancel{target, own, mark->stamp});
    event_queue->push(mark);
}

void EventThread::end_cancel(uint64_t cut) {
    for (size_t i = 0; i < cancels.size(); ++i) {
        if (cancels[i].cut == cut) {
            cancels.erase(cancels.begin() + long(i));
            return;
        }
    }
}

bool EventThread::is_cancelled(const Event* event) const {
    const void* named = event->handler ? static_cast<const void*>(event->handler) : event->data;
    bool own = event->handler == nullptr;
    for (const Cancel& c : cancels)
        if (c.own == own && c.target == named && event->stamp < c.cut) return true;
    return false;
}

// ---- Reactor ----

Reactor::Reactor(const char* name)
    : EventThread(name),
      timer_seq(0),
      timer_heap(new Base::Heap(compare_timer, sizeof(TimerEntry), 0, 0, nullptr)),
      timer_pool(new Base::LFStack(0)),
      handler_count(0),
      handler_end(new Handler()) {
    handler_head.prev = handler_head.next = &handler_head;
    ring_link_before(handler_end, &handler_head);
    handler_count = 1;
}

Reactor::~Reactor() {
    // A timer whose entry still matches it is live and freed here; records
    // whose entries are all stale belong to the pool or to their owner. They
    // are freed after the heap is empty, since a stale entry for the same
    // record may still come up.
    std::vector<Timer*> live;
    while (!heap_empty(timer_heap)) {
        TimerEntry entry = *heap_top(timer_heap);
        timer_heap->pop();
        if (entry.seq == entry.timer->seq) live.push_back(entry.timer);
    }
    for (Timer* timer : live) delete timer;
    while (Timer* timer = static_cast<Timer*>(timer_pool->pop())) delete timer;
    delete timer_pool;
    delete timer_heap;
    unlink_handler(handler_end);
    delete handler_end;
    while (handler_head.prev != &handler_head) {
        Handler* handler = handler_head.prev;
        unlink_handler(handler);
        delete handler;
    }
}

void Reactor::link_handler_front(Handler* handler) { ring_link_after(handler, &handler_head); }

void Reactor::unlink_handler(Handler* handler) { ring_unlink(handler); }

void Reactor::park_handler(Handler* handler) {
    ring_unlink(handler);
    ring_link_before(handler, &handler_head);
}

void Reactor::arm_timer(Timer* timer, uint64_t due) {
    TimerEntry entry{timer, timer->seq, due};
    timer_heap->push(&entry);
}

void Reactor::post_and_wait(int id, void* data) {
    Base::Sign done(0);
    add_event(id, data, &done, nullptr, false);
    done.join();
}

Timer* Reactor::add_timer(int id, int interval, bool enabled, Handler* handler, bool immediate) {
    Timer* timer = nullptr;
    if (!timer_pool->is_empty()) timer = static_cast<Timer*>(timer_pool->pop());
    if (!timer) timer = new Timer();
    // seq is left alone: only the reactor thread writes it.
    timer->id = id;
    timer->handler = handler;
    timer->interval = interval;
    timer->immediate = immediate ? 1 : 0;
    timer->enabled = enabled ? 1 : 0;
    add_event(EVENT_ADD_TIMER, timer, nullptr, nullptr, false);
    return timer;
}

void Reactor::remove_timer(Timer* timer) {
    if (timer) post_and_wait(EVENT_REMOVE_TIMER, timer);
}

void Reactor::enable_timer(Timer* timer, bool immediate) {
    add_event(immediate ? EVENT_ENABLE_TIMER_NOW : EVENT_ENABLE_TIMER, timer, nullptr, nullptr, false);
}

void Reactor::disable_timer(Timer* timer) { post_and_wait(EVENT_DISABLE_TIMER, timer); }

void Reactor::add_handler(Handler* handler) {
    add_event(EVENT_ADD_HANDLER, handler, nullptr, nullptr, false);
}

void Reactor::remove_handler(Handler* handler) { post_and_wait(EVENT_REMOVE_HANDLER, handler); }

void Reactor::enable_handler(Handler* handler) {
    add_event(EVENT_ENABLE_HANDLER, handler, nullptr, nullptr, false);
}

void Reactor::disable_handler(Handler* handler) { post_and_wait(EVENT_DISABLE_HANDLER, handler); }

void Reactor::notify(Base::List* list) { add_event(EVENT_NOTIFY, list, nullptr, nullptr, false); }

int Reactor::on_event(int id, void* data) {
    Timer* timer = static_cast<Timer*>(data);
    Handler* handler = static_cast<Handler*>(data);
    switch (id) {
    case EVENT_ADD_TIMER:
        timer->seq = ++timer_seq;
        if (timer->enabled) arm_timer(timer, timer->immediate ? now : now + interval_ticks(timer));
        return 0;
    case EVENT_REMOVE_TIMER:
        *timer = Timer();  // seq 0: no heap entry can match it any more
        timer_pool->push(timer);
        return 0;
    case EVENT_ENABLE_TIMER_NOW:
    case EVENT_ENABLE_TIMER:
        if (!timer->enabled) {
            timer->seq = ++timer_seq;
            timer->enabled = 1;
            arm_timer(timer, id == EVENT_ENABLE_TIMER_NOW ? now : now + interval_ticks(timer));
        }
        return 0;
    case EVENT_DISABLE_TIMER:
        timer->enabled = 0;  // the entry stays and dies when it comes up
        return 0;
    case EVENT_ADD_HANDLER:
        link_handler_front(handler);
        handler_count += 1;
        return 0;
    case EVENT_REMOVE_HANDLER:
        if (handler->is_linked()) {
            unlink_handler(handler);
            handler_count -= 1;
        }
        return 0;
    case EVENT_ENABLE_HANDLER:
        if (handler->is_linked()) {
            unlink_handler(handler);
            link_handler_front(handler);
            handler->last_active = now;
        }
        return 0;
    case EVENT_DISABLE_HANDLER:
        if (handler->is_linked()) {
            park_handler(handler);
            handler->last_active = 0;
        }
        return 0;
    case EVENT_NOTIFY: {
        Base::List* list = static_cast<Base::List*>(data);
        for (Base::List::Node* node = list->get_head(); node; node = node->next)
            static_cast<Base::Notify*>(node->value)->wakeup(false);
        return 0;
    }
    default:
        return -1;
    }
}

bool Reactor::handler_proc() {
    if (handler_head.next == handler_end) return false;
    bool worked = false;
    bool enhanced = notify_enhanced();
    Handler* handler = handler_head.next;
    while (handler != handler_end && handler != &handler_head) {
        // Saved first: the handler may unlink or move itself.
        Handler* next = handler->next;
        if (handler->on_invoke()) {
            worked = true;
            handler->last_active = now;
        } else if (enhanced && handler->notify_enabled.load(std::memory_order_relaxed)) {
            if (now >= handler->last_active + IDLE_LIMIT) {
                park_handler(handler);
                handler->last_active = 0;
            } else {
                worked = true;  // went quiet only lately: keep polling it
            }
        }
        handler = next;
    }
    ring_rotate(&handler_head, handler_end);
    return worked;
}

bool Reactor::timer_proc() {
    if (heap_empty(timer_heap)) return false;
    int popped = 0;
    while (true) {
        TimerEntry* top = heap_top(timer_heap);
        if (top->due > now) return popped > 0;
        TimerEntry entry = *top;
        popped += 1;
        timer_heap->pop();
        Timer* timer = entry.timer;
        if (entry.seq == timer->seq && timer->enabled) {
            bool again = timer->handler ? timer->handler->on_timer(timer->id) : on_timer(timer->id);
            // A timer removed or re-armed inside its own on_timer has a new
            // seq by now (0 once pooled, where another thread may already be
            // filling it in): this entry is stale and the record is left alone.
            if (entry.seq == timer->seq) {
                if (again) {
                    entry.due = now + interval_ticks(timer);
                    timer_heap->push(&entry);
                } else {
                    timer->enabled = 0;
                }
            }
        }
        if (popped >= TIMERS_PER_PASS || heap_empty(timer_heap)) return true;
    }
}

void Reactor::thread_proc() {
    while (running.load(std::memory_order_relaxed)) {
        now = Base::read_clock();
        bool events = event_proc();
        bool worked = handler_proc();
        bool timers = timer_proc();
        if (events || worked || timers) {
            wakeup(false);
            continue;
        }
        if (get_busy_until() < now && notify_sign->wait()) {
            wakeup(false);
            continue;
        }
        if (!notify_enhanced()) busy_until.store(0, std::memory_order_relaxed);
    }
}

// ---- HandlerNotify ----

HandlerNotify::HandlerNotify(Reactor* reactor, Handler* handler)
    : Base::Notify(reactor ? static_cast<Base::NotifyGroup*>(reactor) : nullptr),
      reactor(reactor),
      handler(handler) {
    handler->notify_enabled.store(1, std::memory_order_relaxed);
}

void HandlerNotify::wakeup(bool remote) {
    if (reactor && notify_enhanced() && handler->notify_enabled.load(std::memory_order_relaxed))
        reactor->add_event(EVENT_ENABLE_HANDLER, handler, nullptr, nullptr, false);
}

}  // namespace Parallel

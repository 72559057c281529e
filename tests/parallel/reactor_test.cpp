#include "parallel/reactor.h"
#include "parallel/fdreactor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "containers/list.h"
#include "reactor_helpers.h"

namespace {

using test_reactor::ALL_MODES;
using test_reactor::Mode;
using test_reactor::ModeScope;
using test_reactor::run_on;
using test_reactor::wait_on;
using test_reactor::wait_until;

// A reactor that can tell where a handler stands in its list (call on the
// reactor thread only).
class ProbeReactor : public Parallel::Reactor {
public:
    using Reactor::Reactor;
    bool is_parked(Parallel::Handler* handler) {
        for (auto* h = handler_end->next; h != &handler_head; h = h->next)
            if (h == handler) return true;
        return false;
    }
    std::vector<int> own_timers;  // timers without a handler land here
    bool on_timer(int id) override {
        own_timers.push_back(id);
        return false;
    }
};

using Running = test_reactor::Running<ProbeReactor>;

// Records events and timers as the reactor thread delivers them; read by
// the test only after a sign has handed them over.
class Recorder : public Parallel::Handler {
public:
    Parallel::Reactor* reactor = nullptr;
    std::vector<std::pair<int, intptr_t>> events;
    std::vector<int> timers;
    bool off_thread = false;
    int on_event(int id, void* data) override {
        if (reactor && !reactor->is_current()) off_thread = true;
        events.emplace_back(id, reinterpret_cast<intptr_t>(data));
        return 0;
    }
    bool on_timer(int id) override {
        if (reactor && !reactor->is_current()) off_thread = true;
        timers.push_back(id);
        return false;
    }
};

void events_from_many_threads_run_in_order(Mode mode) {
    ModeScope scope(mode);
    Running reactor;
    Recorder recorder;
    recorder.reactor = reactor.reactor.get();
    constexpr int THREADS = 4, EACH = 400;
    std::vector<std::thread> posters;
    for (int t = 0; t < THREADS; t++) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < EACH; i++) {
                bool last = i == EACH - 1;
                Base::Sign done(0);
                reactor->add_event(1001 + t, reinterpret_cast<void*>(intptr_t(i)),
                                   last ? &done : nullptr, &recorder, false);
                if (last) done.join();
            }
        });
    }
    for (auto& p : posters) p.join();
    EXPECT_FALSE(recorder.off_thread);
    ASSERT_EQ(recorder.events.size(), size_t(THREADS * EACH));
    std::vector<intptr_t> next(THREADS, 0);
    for (auto& [id, value] : recorder.events) {
        int t = id - 1001;
        ASSERT_TRUE(t >= 0 && t < THREADS);
        EXPECT_EQ(value, next[t]) << "thread " << t;
        next[t] = value + 1;
    }
}

TEST(Reactor, EventsFromOtherThreadsRunOnItInOrderInEveryMode) {
    for (Mode mode : ALL_MODES) events_from_many_threads_run_in_order(mode);
}

TEST(Reactor, SignBlocksPosterAndSameThreadPostRunsAtOnce) {
    Running reactor;
    // A sign releases the poster only after the event has run.
    struct Slow : Parallel::Handler {
        bool done = false;
        int on_event(int, void*) override {
            Base::Measure::sleep(20);
            done = true;
            return 0;
        }
    } slow;
    Base::Sign sign(0);
    reactor->add_event(1001, nullptr, &sign, &slow, false);
    sign.join();
    EXPECT_TRUE(slow.done);

    // On the reactor thread an unforced post runs inline, a forced one queues.
    Recorder recorder;
    std::vector<int> trace;
    run_on(*reactor, [&] {
        trace.push_back(1);
        Base::Sign inline_sign(0);
        reactor->add_event(7, nullptr, &inline_sign, &recorder, false);
        trace.push_back(int(recorder.events.size()));  // already 1
        EXPECT_EQ(inline_sign.get_count(), 1);
        reactor->add_event(8, nullptr, nullptr, &recorder, true);
        trace.push_back(int(recorder.events.size()));  // still 1
    });
    EXPECT_EQ(trace, (std::vector<int>{1, 1, 1}));
    ASSERT_TRUE(wait_on(*reactor, [&] { return recorder.events.size() == 2; }));
    EXPECT_EQ(recorder.events[1].first, 8);

    // Unknown ids reach the reactor's own on_event and are refused.
    int result = 0;
    run_on(*reactor, [&] { result = reactor->on_event(999, nullptr); });
    EXPECT_EQ(result, -1);
}

void timers_fire_in_due_order(Mode mode) {
    ModeScope scope(mode);
    Running reactor;
    Recorder recorder;
    recorder.reactor = reactor.reactor.get();
    std::vector<Parallel::Timer*> timers;
    // Added inline in one pass: all share one "now", so order is by interval.
    run_on(*reactor, [&] {
        timers.push_back(reactor->add_timer(3, 30000, true, &recorder, false));
        timers.push_back(reactor->add_timer(1, 10000, true, &recorder, false));
        timers.push_back(reactor->add_timer(4, 0, false, &recorder, false));  // never armed
        timers.push_back(reactor->add_timer(2, 20000, true, &recorder, false));
        timers.push_back(reactor->add_timer(0, 50000000, true, &recorder, true));  // immediate
        timers.push_back(reactor->add_timer(5, 40000, true, nullptr, false));  // the reactor's own
    });
    ASSERT_TRUE(wait_on(*reactor, [&] { return reactor->own_timers.size() == 1; }));
    run_on(*reactor, [&] {
        EXPECT_EQ(recorder.timers, (std::vector<int>{0, 1, 2, 3}));
        EXPECT_EQ(reactor->own_timers, (std::vector<int>{5}));
    });
    EXPECT_FALSE(recorder.off_thread);
    for (auto* timer : timers) reactor->remove_timer(timer);
}

TEST(Reactor, TimersFireInDueOrderInEveryMode) {
    for (Mode mode : ALL_MODES) timers_fire_in_due_order(mode);
}

// Counts firings of each timer id; repeats while its budget lasts.
class Repeater : public Parallel::Handler {
public:
    std::vector<int> fired = std::vector<int>(16, 0);
    std::vector<int> budget = std::vector<int>(16, 0);
    bool on_timer(int id) override {
        fired[id] += 1;
        return --budget[id] > 0;
    }
};

// Waits until a fresh one-shot timer, due after everything armed so far,
// has fired: every older entry has come up by then.
void drain_timers(Running& reactor, Repeater& repeater, int interval_us) {
    Parallel::Timer* sentinel = reactor->add_timer(15, interval_us, true, &repeater, false);
    ASSERT_TRUE(wait_on(*reactor, [&] { return repeater.fired[15] > 0; }));
    reactor->remove_timer(sentinel);
    run_on(*reactor, [&] { repeater.fired[15] = 0; });
}

TEST(Reactor, StaleTimerEntriesAreDropped) {
    Running reactor;
    Repeater repeater;

    // Disabled and enabled again before the old entry came up: one firing.
    Parallel::Timer* once = nullptr;
    run_on(*reactor, [&] {
        once = reactor->add_timer(1, 20000, true, &repeater, false);
        reactor->disable_timer(once);
        reactor->enable_timer(once, false);
        reactor->enable_timer(once, true);  // already enabled: no change
    });
    drain_timers(reactor, repeater, 60000);
    run_on(*reactor, [&] { EXPECT_EQ(repeater.fired[1], 1); });

    // A disabled timer never fires; re-enabled with immediate it does, once.
    Parallel::Timer* off = reactor->add_timer(2, 10000, false, &repeater, false);
    reactor->disable_timer(off);
    drain_timers(reactor, repeater, 30000);
    run_on(*reactor, [&] { EXPECT_EQ(repeater.fired[2], 0); });
    reactor->enable_timer(off, true);
    drain_timers(reactor, repeater, 10000);
    run_on(*reactor, [&] { EXPECT_EQ(repeater.fired[2], 1); });

    // Interval 0 repeating: due again at once, 8 entries a pass at most,
    // until on_timer says stop.
    run_on(*reactor, [&] { repeater.budget[3] = 100; });
    Parallel::Timer* spin = reactor->add_timer(3, 0, true, &repeater, true);
    drain_timers(reactor, repeater, 1000);
    ASSERT_TRUE(wait_on(*reactor, [&] { return repeater.fired[3] >= 100; }));
    drain_timers(reactor, repeater, 1000);
    run_on(*reactor, [&] { EXPECT_EQ(repeater.fired[3], 100); });

    // A repeating timer stopped by disable_timer from another thread.
    run_on(*reactor, [&] { repeater.budget[4] = 1000000; });
    Parallel::Timer* tick = reactor->add_timer(4, 100, true, &repeater, false);
    ASSERT_TRUE(wait_on(*reactor, [&] { return repeater.fired[4] >= 3; }));
    reactor->disable_timer(tick);
    int stopped_at = 0;
    run_on(*reactor, [&] { stopped_at = repeater.fired[4]; });
    drain_timers(reactor, repeater, 2000);
    run_on(*reactor, [&] { EXPECT_EQ(repeater.fired[4], stopped_at); });

    for (auto* timer : {once, off, spin, tick}) reactor->remove_timer(timer);
    reactor->remove_timer(nullptr);  // ignored
}

// A timer that removes itself inside on_timer and, in the same call, arms a
// new timer, which reuses the pooled record at once.
class SelfRemover : public Parallel::Handler {
public:
    Parallel::Reactor* reactor = nullptr;
    Parallel::Timer* self = nullptr;
    Parallel::Timer* reused = nullptr;
    bool repeat = true;
    std::vector<int> fired;
    bool on_timer(int id) override {
        fired.push_back(id);
        if (id == 1) {
            reactor->remove_timer(self);
            reused = reactor->add_timer(2, 1000, true, this, false);
            return repeat;
        }
        return false;
    }
};

TEST(Reactor, TimerRemovedInsideItsOwnOnTimer) {
    for (bool repeat : {true, false}) {
        Running reactor;
        SelfRemover remover;
        remover.reactor = reactor.reactor.get();
        remover.repeat = repeat;
        run_on(*reactor, [&] { remover.self = reactor->add_timer(1, 1000, true, &remover, false); });
        ASSERT_TRUE(wait_on(*reactor, [&] { return remover.fired.size() >= 2; }));
        Repeater later;
        drain_timers(reactor, later, 20000);
        run_on(*reactor, [&] {
            // The record was pooled and reused; the old entry died, the new
            // timer fired once, whatever the removed one's on_timer returned.
            EXPECT_EQ(remover.reused, remover.self);
            EXPECT_EQ(remover.fired, (std::vector<int>{1, 2}));
        });
        reactor->remove_timer(remover.reused);
    }
}

class Poller : public Parallel::Handler {
public:
    std::atomic<long> invoked{0};
    std::atomic<bool> busy{true};
    bool on_invoke() override {
        invoked.fetch_add(1);
        return busy.load();
    }
};

TEST(Reactor, HandlersArePolledUntilDisabledOrRemoved) {
    Running reactor;
    Poller a, b;
    EXPECT_EQ(reactor->get_handler_count(), 1u);  // the sentinel
    reactor->add_handler(&a);
    reactor->add_handler(&b);
    ASSERT_TRUE(wait_until([&] { return a.invoked.load() > 10 && b.invoked.load() > 10; }));
    run_on(*reactor, [&] { EXPECT_EQ(reactor->get_handler_count(), 3u); });

    reactor->disable_handler(&a);
    long frozen = a.invoked.load();
    long b_then = b.invoked.load();
    ASSERT_TRUE(wait_until([&] { return b.invoked.load() > b_then + 10; }));
    EXPECT_EQ(a.invoked.load(), frozen);
    run_on(*reactor, [&] { EXPECT_TRUE(reactor->is_parked(&a)); });

    reactor->enable_handler(&a);
    ASSERT_TRUE(wait_until([&] { return a.invoked.load() > frozen + 10; }));

    reactor->remove_handler(&a);
    reactor->remove_handler(&a);  // self-linked now: nothing
    reactor->disable_handler(&a);
    reactor->enable_handler(&a);
    frozen = a.invoked.load();
    b_then = b.invoked.load();
    ASSERT_TRUE(wait_until([&] { return b.invoked.load() > b_then + 10; }));
    EXPECT_EQ(a.invoked.load(), frozen);
    run_on(*reactor, [&] { EXPECT_EQ(reactor->get_handler_count(), 2u); });

    // A handler that removes itself inside on_invoke.
    struct Quitter : Parallel::Handler {
        Parallel::Reactor* reactor;
        int calls = 0;
        bool on_invoke() override {
            if (++calls == 3) reactor->remove_handler(this);
            return true;
        }
    };
    auto* quitter = new Quitter();
    quitter->reactor = reactor.reactor.get();
    reactor->add_handler(quitter);
    ASSERT_TRUE(wait_on(*reactor, [&] { return !quitter->is_linked(); }));
    b_then = b.invoked.load();
    ASSERT_TRUE(wait_until([&] { return b.invoked.load() > b_then + 10; }));
    run_on(*reactor, [&] { EXPECT_EQ(quitter->calls, 3); });
    delete quitter;
    reactor->remove_handler(&b);

    // A handler left in the list belongs to the reactor and is deleted with
    // it. Adding is posted to the reactor thread: wait until it is polled so
    // the reactor does not stop before the handler joins its list.
    auto* left = new Poller();
    reactor->add_handler(left);
    ASSERT_TRUE(wait_until([&] { return left->invoked.load() > 0; }));
}

TEST(Reactor, EnhancedModeParksQuietNotifiedHandlersAndNotifyBringsThemBack) {
    ModeScope scope({true, false});
    Running reactor;
    Poller quiet;
    quiet.busy = false;
    Parallel::HandlerNotify notify(reactor.reactor.get(), &quiet);
    EXPECT_EQ(quiet.notify_enabled.load(), 1);
    reactor->add_handler(&quiet);
    ASSERT_TRUE(wait_on(*reactor, [&] { return reactor->is_parked(&quiet); }));

    // Event 20 walks a consumer list and wakes each notify on the reactor.
    Base::List list(true, 0);
    list.push_back(&notify);
    long before = quiet.invoked.load();
    reactor->notify(&list);
    ASSERT_TRUE(wait_until([&] { return quiet.invoked.load() > before; }));

    // The notify's own wake-up does the same.
    ASSERT_TRUE(wait_on(*reactor, [&] { return reactor->is_parked(&quiet); }));
    before = quiet.invoked.load();
    notify.wakeup(true);
    ASSERT_TRUE(wait_until([&] { return quiet.invoked.load() > before; }));
    reactor->remove_handler(&quiet);
}

TEST(Reactor, DestructionReleasesPendingPostersAndFreesTimers) {
    // A reactor that never ran: a posted event with a sign is not run, but
    // the destructor releases the waiter.
    auto* reactor = new ProbeReactor(nullptr);
    Recorder recorder;
    Base::Sign sign(0);
    std::thread poster([&] { reactor->add_event(1001, nullptr, &sign, &recorder, false); });
    poster.join();
    delete reactor;
    EXPECT_EQ(sign.get_count(), 1);
    EXPECT_TRUE(recorder.events.empty());

    // A reactor that ran: armed, disabled and removed timers are all freed
    // without a double free (ASan checks).
    {
        Running running;
        running->add_timer(1, 1000000, true, &recorder, false);
        Parallel::Timer* disabled = running->add_timer(2, 1000000, true, &recorder, false);
        running->disable_timer(disabled);
        Parallel::Timer* removed = running->add_timer(3, 1000000, true, &recorder, false);
        running->remove_timer(removed);
        Parallel::Timer* reused = running->add_timer(4, 2000000, true, &recorder, false);
        EXPECT_EQ(reused, removed);
        run_on(*running, [] {});
    }
}

// A handler freed with events still queued for it: cancelled events never
// run (ASan sees any touch of the freed handler), their posters are still
// released, and a new handler at the same address gets what is posted to it
// afterwards. The reactor's own events about an object are cancelled alike.
TEST(Reactor, CancelledEventsNeverRunAndANewHandlerAtTheAddressGetsItsOwn) {
    Running reactor;
    alignas(Recorder) static unsigned char place[sizeof(Recorder)];
    Parallel::Handler parked;
    Base::Sign released(0);
    Recorder* again = nullptr;
    run_on(*reactor, [&] {
        Recorder* gone = new (place) Recorder();
        reactor->add_event(1001, nullptr, nullptr, gone, true);
        reactor->add_event(1002, nullptr, &released, gone, true);
        reactor->add_event(Parallel::EVENT_ADD_HANDLER, &parked, nullptr, nullptr, true);
        reactor->cancel_events(gone);
        reactor->cancel_events_about(&parked);
        gone->~Recorder();
        again = new (place) Recorder();
        reactor->add_event(1003, nullptr, nullptr, again, true);
    });
    released.join();
    run_on(*reactor, [&] {
        EXPECT_EQ(again->events, (std::vector<std::pair<int, intptr_t>>{{1003, 0}}));
        EXPECT_FALSE(parked.is_linked());
    });
    again->~Recorder();

    // From another thread the events queued ahead of the cancel run first.
    Recorder recorder;
    reactor->add_event(1004, nullptr, nullptr, &recorder, false);
    reactor->cancel_events(&recorder);
    run_on(*reactor, [&] { EXPECT_EQ(recorder.events.size(), 1u); });
}

// A blocking post wakes an idle reactor: none of 200, each made after the
// reactor has gone back to its nap, waits for the nap to run out. Judged by
// the median and the 90th percentile against the nap, so that a loaded
// machine's odd late wake-up is not taken for a missing one.
template <typename R>
void blocking_posts_wake_an_idle_reactor() {
    test_reactor::Running<R> reactor;
    Recorder recorder;
    std::vector<double> ms;
    for (int i = 0; i < 200; i++) {
        std::this_thread::sleep_for(std::chrono::microseconds(1500));  // past the busy span
        Base::Sign done(0);
        auto start = std::chrono::steady_clock::now();
        reactor->add_event(1001, nullptr, &done, &recorder, false);
        done.join();
        ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                                start).count());
    }
    std::sort(ms.begin(), ms.end());
    EXPECT_LT(ms[100], Parallel::NAP_MS / 2.0);
    EXPECT_LT(ms[180], double(Parallel::NAP_MS));
    EXPECT_EQ(recorder.events.size(), 200u);
}

TEST(Reactor, BlockingPostsWakeAnIdleReactor) {
    blocking_posts_wake_an_idle_reactor<ProbeReactor>();
    blocking_posts_wake_an_idle_reactor<Parallel::FdReactor>();
}

}  // namespace

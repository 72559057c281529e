// Helpers for the reactor tests: a reactor started and stopped by scope,
// running a function on the reactor thread, bounded polling, and the two
// process-wide switches set for the life of a scope.
#pragma once

#include <functional>
#include <memory>
#include <type_traits>

#include "base/measure.h"
#include "sync/sign.h"
#include "base/switches.h"
#include "parallel/fdreactor.h"
#include "parallel/reactor.h"

namespace test_reactor {

// Runs fn on the reactor thread (or inline when already there) and returns
// once it has run.
class Call : public Parallel::Handler {
public:
    std::function<void()> fn;
    int on_event(int, void*) override {
        fn();
        return 0;
    }
};

inline void run_on(Parallel::EventThread& reactor, std::function<void()> fn) {
    Call call;
    call.fn = std::move(fn);
    Base::Sign done(0);
    reactor.add_event(1001, nullptr, &done, &call, false);
    done.join();
}

// Polls pred every millisecond for at most limit_ms; true once it holds.
inline bool wait_until(const std::function<bool()>& pred, int limit_ms = 20000) {
    for (int i = 0; i < limit_ms; i++) {
        if (pred()) return true;
        Base::Measure::sleep(1);
    }
    return pred();
}

// Polls pred on the reactor thread every millisecond for at most limit_ms.
inline bool wait_on(Parallel::EventThread& reactor, const std::function<bool()>& pred, int limit_ms = 20000) {
    return wait_until([&] {
        bool held = false;
        run_on(reactor, [&] { held = pred(); });
        return held;
    }, limit_ms);
}

// Starts a reactor of type R on construction (an FdReactor busy-polling on
// busy_cpu if given); stops and joins it on exit.
template <typename R>
class Running {
public:
    explicit Running(int busy_cpu = -1) : reactor(new R(nullptr)) {
        if constexpr (std::is_base_of<Parallel::FdReactor, R>::value) reactor->set_busy_poll(busy_cpu);
        reactor->create(true, nullptr);
    }
    ~Running() {
        reactor->stop();
        reactor->join();
    }
    R* operator->() { return reactor.get(); }
    R& operator*() { return *reactor; }
    std::unique_ptr<R> reactor;
};

// The reactor modes: plain, enhanced notification, cached clock, both.
struct Mode {
    bool enhance;
    bool global_clock;
};
constexpr Mode ALL_MODES[] = {{false, false}, {true, false}, {false, true}, {true, true}};

// Sets the switches (and runs a clock thread when the cached clock is on)
// for the life of the scope. The switches are plain flags: reactors must be
// started inside the scope and joined before it ends.
class ModeScope {
public:
    explicit ModeScope(Mode mode) {
        if (mode.global_clock) {
            clock.reset(new Parallel::ClockThread());
            clock->create(true, nullptr);
            Base::g_enable_global_clock = true;
        }
        Base::g_enable_notify_enhance = mode.enhance;
    }
    ~ModeScope() {
        Base::g_enable_notify_enhance = false;
        Base::g_enable_global_clock = false;
        if (clock) {
            clock->stop();
            clock->join();
        }
    }

private:
    std::unique_ptr<Parallel::ClockThread> clock;
};

}  // namespace test_reactor

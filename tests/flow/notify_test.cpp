#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "containers/list.h"
#include "flow/notify.h"
#include "base/switches.h"
#include "tests/support/alloc_counter.h"

namespace {

// A group that only counts what reaches it.
class CountingGroup : public Base::NotifyGroup {
public:
    void wakeup(bool force) override { wakeups++; }
    void notify(Base::List* list) override {
        notified++;
        last_list_count = list->get_count();
    }
    int wakeups = 0;
    int notified = 0;
    uint64_t last_list_count = 0;
};

class CountingNotify : public Base::Notify {
public:
    explicit CountingNotify(Base::NotifyGroup* group) : Base::Notify(group) {}
    void wakeup(bool force) override { wakeups++; }
    int wakeups = 0;
};

// A group that is a real waiting thread: wakeup() raises a flag and signals.
class ThreadGroup : public Base::NotifyGroup {
public:
    void wakeup(bool force) override {
        std::lock_guard<std::mutex> lock(mutex);
        pending = true;
        cond.notify_one();
    }
    // Waits for a wake-up; false if none came within the hang guard.
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex);
        bool woken = cond.wait_for(lock, std::chrono::seconds(60), [this] { return pending; });
        pending = false;
        return woken;
    }

private:
    std::mutex mutex;
    std::condition_variable cond;
    bool pending = false;
};

// Restores the process-wide switches when a test ends.
struct SwitchGuard {
    ~SwitchGuard() {
        Base::g_enable_notify_enhance = false;
        Base::g_enable_global_clock = false;
    }
};

}  // namespace

TEST(Producer, GroupsConsumersAndRefusal) {
    Base::Producer producer;
    producer.produce();  // no readers: nothing happens
    CountingGroup group;
    CountingNotify a(&group), b(&group);
    Base::List::Node *node_a = nullptr, *node_b = nullptr, *node_g = nullptr;
    Base::Consumer* ca = producer.add(&a, node_a);
    Base::Consumer* cb = producer.add(&b, node_b);
    Base::Consumer* cg = producer.add(&group, node_g);
    ASSERT_NE(ca, nullptr);  // two notifies and the group itself share one consumer
    EXPECT_EQ(ca, cb);
    EXPECT_EQ(ca, cg);
    EXPECT_EQ(node_g, nullptr);  // the group is never on its own list
    EXPECT_EQ(ca->get_list()->get_count(), 2u);
    producer.produce();
    EXPECT_EQ(group.wakeups, 1);  // one wake-up for both readers
    EXPECT_EQ(a.wakeups + b.wakeups + group.notified, 0);

    // A lone notify is its own group and is woken directly.
    CountingNotify lone(nullptr);
    Base::List::Node* node_l = reinterpret_cast<Base::List::Node*>(1);
    Base::Consumer* cl = producer.add(&lone, node_l);
    EXPECT_NE(cl, ca);
    EXPECT_EQ(node_l, nullptr);
    producer.produce();
    EXPECT_EQ(lone.wakeups, 1);
    EXPECT_EQ(group.wakeups, 2);

    // remove() of the group itself does nothing; of a reader takes it off;
    // the consumer stays and a later add of the group finds it again.
    producer.remove(cg, &group, node_g);
    producer.remove(nullptr, &a, node_a);
    EXPECT_EQ(ca->get_list()->get_count(), 2u);
    producer.remove(ca, &a, node_a);
    producer.remove(cb, &b, node_b);
    EXPECT_EQ(ca->get_list()->get_count(), 0u);
    Base::List::Node* again = nullptr;
    EXPECT_EQ(producer.add(&a, again), ca);
    EXPECT_EQ(producer.get_count(), 2);

    // Places 3 to 64 go to new groups; the 65th group is refused.
    std::vector<std::unique_ptr<CountingGroup>> groups;
    for (int i = 2; i < Base::Producer::MAX_CONSUMERS; i++) {
        groups.emplace_back(new CountingGroup);
        Base::List::Node* n = nullptr;
        ASSERT_NE(producer.add(groups.back().get(), n), nullptr) << i;
    }
    CountingGroup extra;
    CountingNotify refused(&extra);
    Base::List::Node* n = reinterpret_cast<Base::List::Node*>(1);
    EXPECT_EQ(producer.add(&refused, n), nullptr);
    EXPECT_EQ(n, nullptr);
    producer.produce();
    EXPECT_EQ(extra.wakeups, 0);
    for (auto& g : groups) EXPECT_EQ(g->wakeups, 1);
}

TEST(Producer, EnhancedModeLimitsRoundsAndHandsOverParkedReaders) {
    SwitchGuard guard;
    Base::g_enable_notify_enhance = true;
    Base::g_enable_global_clock = true;  // drive time by hand
    Base::set_global_clock(1000000);

    Base::Producer producer;
    CountingGroup busy, idle;
    CountingNotify reader(&busy);
    Base::List::Node* node = nullptr;
    producer.add(&reader, node);
    producer.add(&idle, node);  // no readers listed: no notify() for it

    // A round, none within 2000 ticks of it, the next one 2000 ticks later.
    for (long at : {0, 1999, 2000}) {
        Base::set_global_clock(1000000 + at);
        producer.produce();
        int rounds = at < 2000 ? 1 : 2;
        EXPECT_EQ(busy.wakeups, rounds) << at;
        EXPECT_EQ(busy.notified, rounds) << at;
        EXPECT_EQ(idle.wakeups, rounds) << at;
        EXPECT_EQ(idle.notified, 0) << at;
    }
    EXPECT_EQ(busy.last_list_count, 1u);
}

TEST(Producer, WakeupsReach64WaitingThreadsAndNoneIsLost) {
    // 64 reader threads, each its own group, register while the writer is
    // already producing. Each one catches up after registering, then sleeps
    // until woken and reads again; a lost wake-up leaves a thread asleep at
    // a value below the last one.
    const int groups = Base::Producer::MAX_CONSUMERS;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const int rounds = 100;
#else
    const int rounds = 400;
#endif
    Base::Producer producer;
    std::atomic<int> published{0};
    std::atomic<int> registered{0};
    std::vector<std::unique_ptr<ThreadGroup>> group(groups);
    for (auto& g : group) g.reset(new ThreadGroup);
    std::vector<int> reached(groups, 0);
    std::vector<bool> hung(groups, false);

    std::vector<std::thread> readers;
    for (int r = 0; r < groups; r++) {
        readers.emplace_back([&, r] {
            Base::List::Node* node = nullptr;
            if (producer.add(group[r].get(), node) == nullptr) return;
            // Release: the writer may stop once every reader is registered.
            registered.fetch_add(1, std::memory_order_release);
            // Acquire: pairs with the writer's release of each value.
            int seen = published.load(std::memory_order_acquire);
            while (seen < rounds) {
                if (!group[r]->wait()) {
                    hung[r] = true;
                    break;
                }
                seen = published.load(std::memory_order_acquire);
            }
            reached[r] = seen;
        });
    }
    std::thread writer([&] {
        int i = 0;
        // Keep publishing until every reader is registered, then finish.
        while (i < rounds || registered.load(std::memory_order_acquire) < groups) {
            if (i < rounds) i++;
            // Release: the value is visible before the wake-up that follows.
            published.store(i, std::memory_order_release);
            producer.produce();
            if (i == rounds) std::this_thread::yield();
        }
    });
    writer.join();
    for (auto& t : readers) t.join();
    EXPECT_EQ(producer.get_count(), groups);
    for (int r = 0; r < groups; r++) {
        EXPECT_FALSE(hung[r]) << "reader " << r << " missed a wake-up";
        EXPECT_EQ(reached[r], rounds) << r;
    }
}

namespace {

Base::Producer* g_hook_producer;
CountingGroup* g_hook_late_group;
Base::Consumer* g_hook_late_consumer;

// Runs while a group's place is counted but its consumer not yet stored:
// another group registers behind it, and the writer produces.
void add_late_group_and_produce() {
    Base::List::Node* node = nullptr;
    g_hook_late_consumer = g_hook_producer->add(g_hook_late_group, node);
    g_hook_producer->produce();
}

}  // namespace

TEST(Producer, PlaceBeingFilledDoesNotHideGroupsBehindIt) {
    Base::Producer producer;
    CountingGroup first, filling, late;
    Base::List::Node* node = nullptr;
    producer.add(&first, node);

    g_hook_producer = &producer;
    g_hook_late_group = &late;
    g_test_allocation_hook = add_late_group_and_produce;
    // add() reserves place 1 and then allocates the consumer: the hook runs
    // right there, fills place 2 and produces.
    Base::Consumer* c = producer.add(&filling, node);
    g_test_allocation_hook = nullptr;
    ASSERT_NE(c, nullptr);
    ASSERT_NE(g_hook_late_consumer, nullptr);
    EXPECT_NE(g_hook_late_consumer, c);
    EXPECT_EQ(first.wakeups, 1);
    EXPECT_EQ(late.wakeups, 1) << "a group behind an unfilled place was not woken";
    EXPECT_EQ(filling.wakeups, 0);

    producer.produce();
    EXPECT_EQ(first.wakeups, 2);
    EXPECT_EQ(filling.wakeups, 1);
    EXPECT_EQ(late.wakeups, 2);
    EXPECT_EQ(producer.get_count(), 3);
}

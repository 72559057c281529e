#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "sync/lfqueue.h"
#include "sync/lfstack.h"
#include "sync/tagged.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/stress.h"

namespace {

void* item(uint64_t producer, uint64_t seq) { return (void*)(uintptr_t)(producer << 32 | (seq + 1)); }
uint64_t item_producer(void* v) { return (uintptr_t)v >> 32; }
uint64_t item_seq(void* v) { return ((uintptr_t)v & 0xffffffffu) - 1; }

// Every item of every producer is in the lists exactly once; a null marks
// an item seen out of its producer's order.
void expect_each_once(const std::vector<std::vector<void*>>& lists, int producers) {
    std::vector<std::vector<int>> counts(producers, std::vector<int>(kStressItems, 0));
    for (auto& list : lists) {
        for (void* v : list) {
            ASSERT_NE(v, nullptr) << "a consumer saw a producer's items out of order";
            ASSERT_LT(item_producer(v), (uint64_t)producers);
            ASSERT_LT(item_seq(v), (uint64_t)kStressItems);
            counts[item_producer(v)][item_seq(v)]++;
        }
    }
    for (int p = 0; p < producers; p++)
        for (int i = 0; i < kStressItems; i++) ASSERT_EQ(counts[p][i], 1) << p << " " << i;
}

}  // namespace

TEST(TaggedPair, StaleSwapFailsAfterPopAndPushOfSameNode) {
    Base::TaggedNode a{}, b{};
    Base::TaggedSlot slot{1, &a};
    Base::TaggedPair seen = Base::pair_read(&slot);
    EXPECT_EQ(seen.tag, 1u);
    EXPECT_EQ(seen.node, &a);
    // Another thread pops a and pushes it back with a new tag.
    ASSERT_TRUE(Base::pair_swap(&slot, seen, Base::TaggedPair{0, nullptr}));
    ASSERT_TRUE(Base::pair_swap(&slot, Base::TaggedPair{0, nullptr}, Base::TaggedPair{2, &a}));
    // Same pointer on top, different tag: the stale swap must fail.
    EXPECT_FALSE(Base::pair_swap(&slot, seen, Base::TaggedPair{3, &b}));
    EXPECT_EQ(Base::pair_read(&slot).node, &a);
    EXPECT_EQ(Base::pair_read(&slot).tag, 2u);
    EXPECT_TRUE(Base::has_pair_swap());
}

TEST(LFStack, SingleThreadEdgesAndPooledNodes) {
    Base::LFStack stack(0);
    int a = 1, b = 2, c = 3;
    EXPECT_EQ(stack.pop(), nullptr);
    EXPECT_EQ(stack.top(), nullptr);
    long before = test_allocations();  // no pool: every push allocates
    stack.push(&a);
    stack.push(&b);
    EXPECT_EQ(test_allocations() - before, 2);
    // try_push on a wrong expectation fails and consumes no node.
    before = test_allocations();
    EXPECT_FALSE(stack.try_push(nullptr, &c));
    EXPECT_FALSE(stack.try_push(&a, &c));
    EXPECT_TRUE(stack.try_push(&b, &c));
    EXPECT_EQ(test_allocations() - before, 1);
    std::vector<void*> seen;
    for (Base::LFStack::Iterator it(&stack); !it.is_end();) seen.push_back(it.next());
    EXPECT_EQ(seen, (std::vector<void*>{&c, &b, &a}));
    for (void* want : {&c, &b, &a}) EXPECT_EQ(stack.pop(), want);
    EXPECT_EQ(stack.pop(), nullptr);
    EXPECT_TRUE(stack.is_empty());  // the bottom link put the empty pair back
    // Three nodes are in the pool now: pushes allocate nothing.
    before = test_allocations();
    for (int* v : {&a, &b, &c}) stack.push(v);
    EXPECT_EQ(test_allocations(), before);
    EXPECT_TRUE(stack.try_push(&c, &a));  // a fourth one has to be made
    EXPECT_EQ(test_allocations() - before, 1);
    stack.clear();
    EXPECT_TRUE(stack.is_empty());
    EXPECT_TRUE(stack.try_push(nullptr, &a));
    EXPECT_EQ(stack.pop(), &a);
}

TEST(LFStack, ConcurrentPushPopSeesEveryItemOnce) {
    const int threads = 4;
    Base::LFStack stack(64);
    std::vector<std::vector<void*>> popped(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < kStressItems; i++) {
                stack.push(item(t, i));
                if (i % 2 == 1) {
                    // Pop two for every two pushed, racing the other threads.
                    for (int k = 0; k < 2; k++) {
                        void* v = stack.pop();
                        if (v != nullptr) popped[t].push_back(v);
                    }
                }
            }
        });
    }
    for (auto& w : workers) w.join();
    popped.emplace_back();
    while (void* v = stack.pop()) popped.back().push_back(v);
    expect_each_once(popped, threads);
}

TEST(LFStack, RacingTryPushKeepsOneChain) {
    // Each value records the top it was pushed on; a lost race must leave
    // no trace, so the final chain is consistent link by link.
    struct Entry {
        void* below;
    };
    const int threads = 3;
    const int rounds = kStressItems / 10;
    Base::LFStack stack(0);
    std::vector<std::vector<Entry>> entries(threads, std::vector<Entry>(rounds));
    std::atomic<int> wins{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < rounds; i++) {
                Entry* e = &entries[t][i];
                for (;;) {
                    e->below = stack.top();
                    if (stack.try_push(e->below, e)) break;
                }
                // Relaxed: a tally read after join.
                wins.fetch_add(1, std::memory_order_relaxed);
            }
        });
    }
    for (auto& w : workers) w.join();
    int depth = 0;
    void* expected = nullptr;
    std::vector<void*> chain;
    for (Base::LFStack::Iterator it(&stack); !it.is_end();) chain.push_back(it.next());
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        ASSERT_EQ(static_cast<Entry*>(*it)->below, expected);
        expected = *it;
        depth++;
    }
    EXPECT_EQ(depth, threads * rounds);
    EXPECT_EQ(wins.load(), threads * rounds);
}

TEST(LFQueue, FifoAndPooledNodes) {
    Base::LFQueue queue(0);
    int a = 1, b = 2, c = 3;
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_EQ(queue.pop(), nullptr);  // empty pop leaves head as it was
    queue.push(&a);
    EXPECT_EQ(queue.pop(), &a);
    EXPECT_TRUE(queue.is_empty());
    long before = test_allocations();  // the old dummy went to the pool
    queue.push(&b);
    EXPECT_EQ(test_allocations(), before);
    queue.push(&c);
    EXPECT_EQ(test_allocations() - before, 1);
    queue.push(&a);
    for (void* want : {&b, &c, &a}) EXPECT_EQ(queue.pop(), want);
    EXPECT_EQ(queue.pop(), nullptr);
    queue.push(&a);
    queue.push(&b);
    queue.clear();  // drops the values, frees the nodes, makes a new dummy
    EXPECT_EQ(queue.pop(), nullptr);
    queue.push(&c);
    EXPECT_EQ(queue.pop(), &c);
    queue.push(&a);  // left in the queue for the destructor
}

TEST(LFQueue, ManyProducersTwoConsumersSeeEveryItemOnce) {
    const int producers = 4;
    const int consumers = 2;
    Base::LFQueue queue(256);
    std::atomic<int> done{0};
    std::vector<std::vector<void*>> got(consumers);
    std::vector<std::thread> workers;
    for (int p = 0; p < producers; p++) {
        workers.emplace_back([&, p] {
            for (int i = 0; i < kStressItems; i++) queue.push(item(p, i));
            // Release: the consumers' final drain sees every push.
            done.fetch_add(1, std::memory_order_release);
        });
    }
    for (int c = 0; c < consumers; c++) {
        workers.emplace_back([&, c] {
            std::vector<int64_t> last(producers, -1);
            for (;;) {
                // Acquire: pairs with the producers' release above.
                bool finished = done.load(std::memory_order_acquire) == producers;
                void* v = queue.pop();
                if (v == nullptr) {
                    if (finished) break;
                    std::this_thread::yield();
                    continue;
                }
                // One consumer still sees each producer's items in order.
                uint64_t p = item_producer(v);
                if (p < (uint64_t)producers) {
                    if ((int64_t)item_seq(v) <= last[p]) got[c].push_back(nullptr);
                    last[p] = item_seq(v);
                }
                got[c].push_back(v);
            }
        });
    }
    for (auto& w : workers) w.join();
    expect_each_once(got, producers);
}

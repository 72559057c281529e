#include "flow/notify.h"

#include "sync/atomics.h"
#include "base/switches.h"

namespace Base {

namespace {

// The wait between two rounds of produce() in the enhanced mode: 200 us.
const uint64_t PRODUCE_INTERVAL = 2000;

}  // namespace

// ---- Consumer ----

Consumer::Consumer(Notify* target)
    : target(target),
      group(target->get_group() == target ? target->get_group() : nullptr),
      list(new List(true, 0)),
      listed(0) {}

Consumer::~Consumer() { delete list; }

List::Node* Consumer::add(Notify* notify) {
    if (notify == target) return nullptr;
    List::Node* node = list->push_back(notify);
    // Relaxed: a length for the writer's emptiness test; the list itself is
    // read on the group's thread only.
    __atomic_store_n(&listed, (int32_t)list->get_count(), __ATOMIC_RELAXED);
    return node;
}

void Consumer::remove(Notify* notify, List::Node* node) {
    if (notify == target || node == nullptr) return;
    list->remove(node);
    // Relaxed: as in add().
    __atomic_store_n(&listed, (int32_t)list->get_count(), __ATOMIC_RELAXED);
}

void Consumer::consume() {
    // Relaxed: a hint; a reader parked a moment later is served next round.
    if (g_enable_notify_enhance && group != nullptr &&
        __atomic_load_n(&listed, __ATOMIC_RELAXED) != 0)
        group->notify(list);
    target->wakeup(true);
}

// ---- Producer ----

Producer::Producer() : count(0), consumers{}, last_produce(0) {}

Producer::~Producer() {
    for (int i = 0; i < MAX_CONSUMERS; i++) delete consumers[i];
}

int Producer::get_count() const {
    // Acquire: the places below the count are read after it.
    return __atomic_load_n(&count, __ATOMIC_ACQUIRE);
}

Consumer* Producer::place(int i) const {
    // Acquire: pairs with the release store in add(), so the consumer is
    // complete when it is seen.
    return __atomic_load_n(&consumers[i], __ATOMIC_ACQUIRE);
}

Consumer* Producer::add(Notify* notify, List::Node*& node) {
    node = nullptr;
    Notify* target = notify->get_target();
    int n = get_count();
    for (int i = 0; i < n; i++) {
        Consumer* consumer = place(i);
        // A null place is reserved and still being filled by another group.
        if (consumer == nullptr) continue;
        if (consumer->get_target() == target) {
            node = consumer->add(notify);
            return consumer;
        }
    }
    int reserved = __atomic_load_n(&count, __ATOMIC_RELAXED);
    for (;;) {
        if (reserved >= MAX_CONSUMERS) return nullptr;
        // Release, then a full fence: the place is claimed before it is
        // filled; a failed swap reloads reserved and tries again.
        if (__atomic_compare_exchange_n(&count, &reserved, reserved + 1, false,
                                        __ATOMIC_RELEASE, __ATOMIC_RELAXED))
            break;
    }
    // Full fence: the consumer is built after the reservation is visible.
    full_fence();
    Consumer* consumer = new Consumer(target);
    node = consumer->add(notify);
    // Release: the consumer is complete before produce() can see it; until
    // then produce() finds a null here and stops.
    __atomic_store_n(&consumers[reserved], consumer, __ATOMIC_RELEASE);
    return consumer;
}

void Producer::remove(Consumer* consumer, Notify* notify, List::Node* node) {
    if (consumer == nullptr) return;
    consumer->remove(notify, node);
}

void Producer::produce() {
    int n = get_count();
    if (n == 0) return;
    uint64_t t = 0;
    if (g_enable_notify_enhance) {
        t = read_clock();
        if (last_produce + PRODUCE_INTERVAL > t) return;
    }
    for (int i = 0; i < n; i++) {
        Consumer* consumer = place(i);
        // A place counted but not yet filled is skipped, not taken as the
        // end: groups behind it are filled and must still be woken. The
        // group being added reads the flow after it registers.
        if (consumer == nullptr) continue;
        consumer->consume();
    }
    last_produce = t;
}

}  // namespace Base

// Wake-ups from the writer of a flow to the threads of its readers.
//
// A Notify stands for one reader; its NotifyGroup for the thread the reader
// runs on (a reactor is one). A Producer, kept by each flow, holds one
// Consumer per group, at most 64, and produce() wakes every group once.
// produce() runs on the writer's thread while add() and remove() run on the
// readers' threads: the consumer places only grow, and a place is filled
// after it is counted; a counted place still empty is passed over. A consumer's list of notifies belongs to its group's
// thread: add and remove its notifies only there. No allocation in produce().
#pragma once

#include <cstdint>

#include "containers/list.h"

namespace Base {

class NotifyGroup;

class Notify {
public:
    // group null: the notify is a group of its own, woken directly.
    explicit Notify(NotifyGroup* group) : group(group) {}
    virtual ~Notify() {}
    virtual void wakeup(bool force) {}

    NotifyGroup* get_group() const { return group; }
    // What a producer wakes for this notify: its group, or itself.
    Notify* get_target();

protected:
    NotifyGroup* group;
};

class NotifyGroup : public Notify {
public:
    NotifyGroup() : Notify(nullptr) { group = this; }
    ~NotifyGroup() override {}
    void wakeup(bool force) override {}
    // Asks the group to bring back the parked readers on the list; called on
    // the writer's thread in the enhanced mode, the list is walked by the
    // group on its own thread.
    virtual void notify(List* list) {}
};

inline Notify* Notify::get_target() { return group != nullptr ? group : this; }

class Consumer {
public:
    // target: the group, or a lone notify that is its own group.
    explicit Consumer(Notify* target);
    virtual ~Consumer();

    // Adds a reader of this group; returns its node, or null for the group
    // itself, which is never on the list.
    List::Node* add(Notify* notify);
    void remove(Notify* notify, List::Node* node);
    // This consumer's share of a produce(): in the enhanced mode hand the
    // parked readers to the group, then wake the group.
    void consume();

    Notify* get_target() const { return target; }
    List* get_list() const { return list; }

private:
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    Notify* target;
    NotifyGroup* group;  // null when target is a lone notify
    List* list;          // the group's notifies other than the group
    int32_t listed;      // atomic: the length of list, read by the writer
};

class Producer {
public:
    static constexpr int MAX_CONSUMERS = 64;

    Producer();
    virtual ~Producer();

    // Registers notify; returns the consumer of its group, or null when all
    // 64 places are taken. node is its node in the consumer's list, or null
    // if the notify is the group itself.
    Consumer* add(Notify* notify, List::Node*& node);
    // Takes notify off the consumer's list; the consumer keeps its place.
    void remove(Consumer* consumer, Notify* notify, List::Node* node);
    // Wakes every group; on the writer's thread.
    void produce();

    int get_count() const;

private:
    Producer(const Producer&) = delete;
    Producer& operator=(const Producer&) = delete;

    Consumer* place(int i) const;

    int32_t count;  // atomic: places reserved
    Consumer* consumers[MAX_CONSUMERS];
    uint64_t last_produce;  // ticks of the last round in the enhanced mode
};

}  // namespace Base

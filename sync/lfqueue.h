// LFQueue: a lock-free first-in-first-out queue of pointers.
//
// Any number of threads may push and pop. There is always one dummy node at
// head; a pop takes the value of the node behind it, which becomes the new
// dummy. A producer swaps the tail first and links the old tail to its node
// right after, so for that instant a consumer sees the queue end there (it
// reports empty; nothing is lost, the link follows at once). Nodes come from
// a pool and go back to it; they are freed only by clear() and the
// destructor, which, like the constructor, are for one thread alone. Null
// values cannot be told from "empty" and are not pushed.
#pragma once

#include <cstdint>

namespace Base {

class TaggedStack;
struct TaggedNode;

class LFQueue {
public:
    explicit LFQueue(int n);  // n pooled nodes made at once
    ~LFQueue();

    void push(void* value);
    void* pop();  // null when empty

    void clear();  // frees every node and makes a new dummy

    // A hint without atomic steps: true while nothing was linked behind the
    // head node. Callers follow a false with the real pop.
    bool is_empty() const;

private:
    LFQueue(const LFQueue&) = delete;
    LFQueue& operator=(const LFQueue&) = delete;

    TaggedNode* alloc_node(void* value);
    void make_dummy();
    void free_all();

    alignas(64) uint64_t counter;
    alignas(64) TaggedStack* pool;
    alignas(64) uint64_t head[2];  // (tag, dummy node), one 16-byte pair
    alignas(64) uint64_t tail[2];  // (tag, last node), one 16-byte pair
    [[maybe_unused]] char pad[48];
};

}  // namespace Base

// Lock-free stacks.
//
// TaggedStack is a stack of bare TaggedNodes, the free list (pool) of the
// other lock-free containers. LFStack is a stack of pointers with such a
// pool. push/pop/top/try_push may run on any number of threads; the
// constructors, destructors, clear() and Iterator are for one thread alone.
// Nodes are only freed by clear() and the destructor, so the containers are
// free of ABA through their tags (see sync/tagged.h). Null values cannot be
// told from "empty" and are not pushed.
#pragma once

#include <cstdint>

namespace Base {

struct TaggedNode;

class TaggedStack {
public:
    explicit TaggedStack(int n);
    ~TaggedStack();

    void push(TaggedNode* node);
    TaggedNode* pop();  // null when empty
    void clear();       // frees the nodes on the stack; single-threaded

    // A hint without atomic steps: true if the stack looked empty.
    bool is_empty() const;

private:
    TaggedStack(const TaggedStack&) = delete;
    TaggedStack& operator=(const TaggedStack&) = delete;

    alignas(64) uint64_t counter;
    alignas(64) uint64_t top[2];  // (tag, node), one 16-byte pair
    [[maybe_unused]] char pad[48];
};

class LFStack {
public:
    explicit LFStack(int n);  // n pooled nodes made at once
    ~LFStack();

    void push(void* value);
    void* pop();        // null when empty
    void* top() const;  // the top value without removing it, or null
    // Pushes value only if the top value is still expected_top (null: the
    // stack must be empty); one attempt, false if it failed.
    bool try_push(void* expected_top, void* value);

    TaggedNode* alloc_node(void* value);  // from the pool, or a new node
    void free_node(TaggedNode* node);     // back to the pool

    void clear();  // frees all nodes on the stack and in the pool

    // A hint without atomic steps: true if the stack looked empty. Callers
    // follow a false with the real pop.
    bool is_empty() const;

    // Walks from the top without atomic steps: only while nobody pushes or
    // pops, as in destructors.
    class Iterator {
    public:
        explicit Iterator(const LFStack* stack);
        bool is_end() const { return node == nullptr; }
        void* next();  // the value, then steps down
        void reset();

    private:
        const LFStack* stack;
        const TaggedNode* node;
    };

private:
    LFStack(const LFStack&) = delete;
    LFStack& operator=(const LFStack&) = delete;

    void free_chain(TaggedNode* node);

    alignas(64) uint64_t counter;
    alignas(64) TaggedStack* pool;
    alignas(64) uint64_t top_pair[2];  // (tag, node), one 16-byte pair
    [[maybe_unused]] char pad[48];
};

}  // namespace Base

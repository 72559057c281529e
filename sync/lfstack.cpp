#include "sync/lfstack.h"

#include <cpuid.h>
#include <cstdio>
#include <cstdlib>

#include "sync/tagged.h"

namespace Base {

bool has_pair_swap() {
#if defined(__x86_64__)
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
    return (ecx & bit_CMPXCHG16B) != 0;
#else
    return true;
#endif
}

namespace {

// Refuses to run on a processor without cmpxchg16b, which would otherwise
// die of an illegal instruction at the first push.
struct PairSwapCheck {
    PairSwapCheck() {
        if (has_pair_swap()) return;
        fputs("qeltradeapi: this processor lacks the 16-byte compare-and-swap "
              "(cmpxchg16b) that the lock-free containers need\n", stderr);
        abort();
    }
} g_pair_swap_check;

TaggedNode* new_node() {
    TaggedNode* node = new TaggedNode;
    node->tag = 0;
    node->next = nullptr;
    node->value = nullptr;
    node->reserved = 0;
    return node;
}

}  // namespace

// ---- TaggedStack ----

TaggedStack::TaggedStack(int n) : counter(0), top{0, 0}, pad{} {
    TaggedNode* last = nullptr;
    for (int i = 0; i < n; i++) {
        TaggedNode* node = new_node();
        node->tag = counter;
        node->next = last;
        last = node;
        counter++;
    }
    top[0] = counter;
    top[1] = (uint64_t)(uintptr_t)last;
}

TaggedStack::~TaggedStack() { clear(); }

void TaggedStack::push(TaggedNode* node) {
    uint64_t tag = counter_step(&counter);
    for (;;) {
        TaggedPair seen = pair_read(top);
        // The node carries the old top's pair; the swap below publishes it.
        link_store(node, seen);
        if (pair_swap(top, seen, TaggedPair{tag, node})) return;
    }
}

TaggedNode* TaggedStack::pop() {
    for (;;) {
        TaggedPair seen = pair_read(top);
        if (seen.node == nullptr) return nullptr;
        TaggedPair link = pair_read(seen.node);
        // The top takes on the tag the node stored when it was pushed.
        if (pair_swap(top, seen, link)) return seen.node;
    }
}

void TaggedStack::clear() {
    TaggedNode* node = (TaggedNode*)(uintptr_t)top[1];
    while (node != nullptr) {
        TaggedNode* next = node->next;
        delete node;
        node = next;
    }
    counter = 0;
    top[0] = 0;
    top[1] = 0;
}

bool TaggedStack::is_empty() const {
    // Relaxed: a hint that may be out of date by the time it is used.
    return __atomic_load_n(&top[1], __ATOMIC_RELAXED) == 0;
}

// ---- LFStack ----

LFStack::LFStack(int n) : counter(0), pool(new TaggedStack(n)), top_pair{0, 0}, pad{} {}

LFStack::~LFStack() {
    free_chain((TaggedNode*)(uintptr_t)top_pair[1]);
    delete pool;
}

TaggedNode* LFStack::alloc_node(void* value) {
    TaggedNode* node = pool->pop();
    if (node == nullptr) node = new_node();
    link_store(node, TaggedPair{0, nullptr});
    value_store(node, value);
    return node;
}

void LFStack::free_node(TaggedNode* node) { pool->push(node); }

void LFStack::push(void* value) {
    TaggedNode* node = alloc_node(value);
    uint64_t tag = counter_step(&counter);
    for (;;) {
        TaggedPair seen = pair_read(top_pair);
        link_store(node, seen);
        // The swap's release publishes the node's value and link.
        if (pair_swap(top_pair, seen, TaggedPair{tag, node})) return;
    }
}

void* LFStack::pop() {
    for (;;) {
        TaggedPair seen = pair_read(top_pair);
        if (seen.node == nullptr) return nullptr;
        TaggedPair link = pair_read(seen.node);
        if (pair_swap(top_pair, seen, link)) {
            void* value = value_load(seen.node);
            pool->push(seen.node);
            return value;
        }
    }
}

void* LFStack::top() const {
    TaggedPair seen = pair_read(top_pair);
    return seen.node != nullptr ? value_load(seen.node) : nullptr;
}

bool LFStack::try_push(void* expected_top, void* value) {
    TaggedPair seen = pair_read(top_pair);
    if (expected_top == nullptr) {
        if (seen.node != nullptr) return false;
    } else if (seen.node == nullptr || value_load(seen.node) != expected_top) {
        return false;
    }
    TaggedNode* node = alloc_node(value);
    uint64_t tag = counter_step(&counter);
    link_store(node, seen);
    if (pair_swap(top_pair, seen, TaggedPair{tag, node})) return true;
    pool->push(node);
    return false;
}

void LFStack::clear() {
    free_chain((TaggedNode*)(uintptr_t)top_pair[1]);
    top_pair[0] = 0;
    top_pair[1] = 0;
    counter = 0;
    pool->clear();
}

bool LFStack::is_empty() const {
    // Relaxed loads of both words: a hint, followed by the real pop.
    return __atomic_load_n(&top_pair[0], __ATOMIC_RELAXED) == 0 &&
           __atomic_load_n(&top_pair[1], __ATOMIC_RELAXED) == 0;
}

void LFStack::free_chain(TaggedNode* node) {
    while (node != nullptr) {
        TaggedNode* next = node->next;
        delete node;
        node = next;
    }
}

LFStack::Iterator::Iterator(const LFStack* stack) : stack(stack), node(nullptr) { reset(); }

void LFStack::Iterator::reset() { node = (const TaggedNode*)(uintptr_t)stack->top_pair[1]; }

void* LFStack::Iterator::next() {
    void* value = node->value;
    node = node->next;
    return value;
}

}  // namespace Base

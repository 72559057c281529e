#include "sync/lfqueue.h"

#include "sync/lfstack.h"
#include "sync/tagged.h"

namespace Base {

LFQueue::LFQueue(int n) : counter(0), pool(new TaggedStack(n)), head{0, 0}, tail{0, 0}, pad{} {
    make_dummy();
}

LFQueue::~LFQueue() {
    free_all();
    delete pool;
}

TaggedNode* LFQueue::alloc_node(void* value) {
    TaggedNode* node = pool->pop();
    if (node == nullptr) {
        node = new TaggedNode;
        node->reserved = 0;
    }
    link_store(node, TaggedPair{0, nullptr});
    value_store(node, value);
    return node;
}

void LFQueue::make_dummy() {
    TaggedNode* dummy = alloc_node(nullptr);
    head[0] = tail[0] = 0;
    head[1] = tail[1] = (uint64_t)(uintptr_t)dummy;
}

void LFQueue::push(void* value) {
    // The tag first, before the node is found.
    uint64_t tag = counter_step(&counter);
    TaggedNode* node = alloc_node(value);
    TaggedPair seen;
    do {
        seen = pair_read(tail);
        // The swap's release orders the node's contents before the new tail.
    } while (!pair_swap(tail, seen, TaggedPair{tag, node}));
    // This producer alone owns the link of the old tail: write the tag word,
    // then the next word. The release on next makes the node's contents
    // visible to the consumer that finds it through this link.
    __atomic_store_n(&seen.node->tag, tag, __ATOMIC_RELAXED);
    __atomic_store_n(&seen.node->next, node, __ATOMIC_RELEASE);
}

void* LFQueue::pop() {
    for (;;) {
        TaggedPair seen = pair_read(head);
        TaggedPair link = link_read(seen.node);
        if (link.node == nullptr) {
            // Empty only if head has not moved meanwhile: another consumer
            // may have made seen's node a pool node or a fresh tail, whose
            // link is empty too. head's tag never repeats, so the tag word
            // alone tells (relaxed: a re-check, as the swap would be).
            if (__atomic_load_n(&head[0], __ATOMIC_RELAXED) == seen.tag) return nullptr;
            continue;
        }
        // Read the value before the swap: once the swap succeeds the node is
        // the new dummy, and another consumer may recycle it at once. Nodes
        // are never freed, and a value read from a recycled node is dropped
        // when the swap fails.
        void* value = value_load(link.node);
        if (pair_swap(head, seen, link)) {
            pool->push(seen.node);
            return value;
        }
    }
}

bool LFQueue::is_empty() const {
    // Relaxed loads: a hint that may be out of date by the time it is used.
    const TaggedNode* node =
        (const TaggedNode*)(uintptr_t)__atomic_load_n(&head[1], __ATOMIC_RELAXED);
    return __atomic_load_n(&node->tag, __ATOMIC_RELAXED) == 0 &&
           __atomic_load_n(&node->next, __ATOMIC_RELAXED) == nullptr;
}

void LFQueue::free_all() {
    TaggedNode* node = (TaggedNode*)(uintptr_t)head[1];
    while (node != nullptr) {
        TaggedNode* next = node->next;
        delete node;
        node = next;
    }
    head[0] = head[1] = tail[0] = tail[1] = 0;
    pool->clear();
}

void LFQueue::clear() {
    free_all();
    counter = 0;
    make_dummy();
}

}  // namespace Base

// Tagged pointers: a 64-bit tag and a pointer read and replaced as one
// 16-byte unit, the device under TaggedStack, LFStack and LFQueue.
//
// The tag comes from a counter that grows with every push, so a pointer that
// returns to a head after being popped and pushed again carries a different
// tag and a stale compare-and-swap fails (no ABA for 2^64 pushes). Nodes are
// never returned to the allocator while their container lives, so reading a
// node that another thread has popped touches valid memory.
#pragma once

#include <cstdint>

#include "sync/atomics.h"

// On AArch64 a compiler's 16-byte compare-and-swap does not always make a
// failed compare an atomic read (it needs a store-exclusive of the value it
// loaded), so the pair read below would not be atomic there: x86-64 only.
#if !defined(__x86_64__)
#error "the lock-free containers are written for x86-64 (cmpxchg16b) only"
#endif
#if !defined(__GCC_HAVE_SYNC_COMPARE_AND_SWAP_16)
#error "the lock-free containers need a 16-byte compare-and-swap: build with -mcx16 (cmpxchg16b)"
#endif
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the tagged pair layout assumes a little-endian processor"
#endif

namespace Base {

// 32 bytes, 16-aligned: tag and next form the node's link word.
struct alignas(16) TaggedNode {
    uint64_t tag;
    TaggedNode* next;
    void* value;
    uint64_t reserved;
};
static_assert(sizeof(TaggedNode) == 32, "a tagged node is 32 bytes");

// The value of a link word or of a container's head: (tag, node).
struct TaggedPair {
    uint64_t tag;
    TaggedNode* node;
};

// The in-memory pair: 16-aligned, as cmpxchg16b demands.
struct alignas(16) TaggedSlot {
    uint64_t tag;
    TaggedNode* node;
};

inline unsigned __int128 pair_pack(TaggedPair pair) {
    return (unsigned __int128)(uintptr_t)pair.node << 64 | pair.tag;
}

inline TaggedPair pair_unpack(unsigned __int128 word) {
    return TaggedPair{uint64_t(word), (TaggedNode*)(uintptr_t)(word >> 64)};
}

// A pair no slot ever holds: the node pointer 1 is misaligned.
constexpr unsigned __int128 PAIR_NEVER = (unsigned __int128)1 << 64 | ~uint64_t(0);

// Pair read: an atomic 16-byte load. x86-64 has no such load, so it is a
// compare-and-swap against a pair that never matches, which returns the
// current pair and leaves it unchanged (it also acts as a full barrier, more
// than the read needs). Comparing with (0, 0) instead would let a match store
// (0, 0) again; where the 16-byte swap is emulated (ThreadSanitizer does it
// under a lock, apart from plain 8-byte stores) that store could overwrite a
// concurrent link_store of a node just taken from a pool, and cut the chain.
inline TaggedPair pair_read(const void* slot) {
    unsigned __int128* word = (unsigned __int128*)const_cast<void*>(slot);
    return pair_unpack(__sync_val_compare_and_swap(word, PAIR_NEVER, PAIR_NEVER));
}

// Reads a node's link word, which its writer publishes with 8-byte stores,
// the next word last with release (LFQueue::push). The pair read above is
// that release's acquire on the hardware. ThreadSanitizer keys an atomic's
// order by its address, so it cannot see a 16-byte read at the node acquire
// a store at node + 8: in that build next is loaded with acquire first, and
// the pair read must agree with it, so the acquire is of the very store
// whose value is used. The order checked is the writer's own.
inline TaggedPair link_read(const TaggedNode* node) {
#if defined(__SANITIZE_THREAD__)
    for (;;) {
        TaggedNode* next = __atomic_load_n(&node->next, __ATOMIC_ACQUIRE);
        TaggedPair pair = pair_read(node);
        if (pair.node == next) return pair;
    }
#else
    return pair_read(node);
#endif
}

// Pair swap: replaces seen by desired in one step, with acquire and release
// order (the instruction is a full barrier); false if the pair had changed.
inline bool pair_swap(void* slot, TaggedPair seen, TaggedPair desired) {
    return __sync_bool_compare_and_swap((unsigned __int128*)slot, pair_pack(seen),
                                        pair_pack(desired));
}

// Writes a node's link word as two plain-width stores. Relaxed atomics,
// because a stale reader may look at the node at the same moment; the reader
// will fail its compare-and-swap and throw what it read away.
inline void link_store(TaggedNode* node, TaggedPair pair) {
    __atomic_store_n(&node->tag, pair.tag, __ATOMIC_RELAXED);
    __atomic_store_n(&node->next, pair.node, __ATOMIC_RELAXED);
}

inline void value_store(TaggedNode* node, void* value) {
    // Relaxed: published by the release of the swap that links the node.
    __atomic_store_n(&node->value, value, __ATOMIC_RELAXED);
}

inline void* value_load(const TaggedNode* node) {
    // Relaxed: ordered by the pair read that found the node; a stale value
    // is discarded when the following swap fails.
    return __atomic_load_n(&node->value, __ATOMIC_RELAXED);
}

// Counter step: the tag of a new push. The release add and the full fence
// after it order the caller's earlier writes before any later publication.
inline uint64_t counter_step(uint64_t* counter) {
    uint64_t tag = __atomic_add_fetch(counter, 1, __ATOMIC_RELEASE);
    // Full fence: nothing of the push that follows moves above the new tag.
    full_fence();
    return tag;
}

// True when the processor has the 16-byte compare-and-swap.
bool has_pair_swap();

}  // namespace Base

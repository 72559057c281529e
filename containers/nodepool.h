// NodePool: the private free list of a linked container's nodes.
//
// With pooling on, nodes that leave the container wait here for reuse and
// are freed only with the pool; with it off, each node is a heap allocation
// of its own. Node needs a `next` member. One thread at a time.
#pragma once

#include <cstdint>

namespace Base {

template <class Node>
class NodePool {
public:
    NodePool(bool pooled, int initial_nodes) : free(nullptr), free_count(0), pooled(pooled ? 1 : 0) {
        for (int i = 0; pooled && i < initial_nodes; i++) put(new Node());
    }
    ~NodePool() {
        while (free != nullptr) {
            Node* next = free->next;
            delete free;
            free = next;
        }
    }

    Node* get() {
        if (free == nullptr) return new Node();
        Node* node = free;
        free = node->next;
        free_count--;
        return node;
    }

    void put(Node* node) {
        if (!pooled) {
            delete node;
            return;
        }
        node->next = free;
        free = node;
        free_count++;
    }

    uint64_t get_free_count() const { return free_count; }

private:
    NodePool(const NodePool&) = delete;
    NodePool& operator=(const NodePool&) = delete;

    Node* free;
    uint64_t free_count;
    uint8_t pooled;
};

}  // namespace Base

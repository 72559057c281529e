// Base::Queue: a singly linked first-in-first-out queue of pointers, with an
// optional private pool of nodes. It owns its nodes, never the values.
// One thread at a time.
#pragma once

#include <cstdint>

namespace Base {

template <class Node>
class NodePool;

class Queue {
public:
    struct Node {
        void* value;
        Node* next;
    };

    Queue(bool pooled, int initial_nodes);
    ~Queue();

    void push(void* value);  // at the tail
    void* pop();             // from the head; 0 when empty
    void* head() const;      // the values at the ends, or 0
    void* tail() const;
    void clear();
    uint64_t get_count() const { return count; }

    class Iterator {
    public:
        explicit Iterator(const Queue* queue) : queue(queue), node(queue->first) {}
        bool is_end() const { return node == nullptr; }
        void* next() {
            void* value = node->value;
            node = node->next;
            return value;
        }
        void reset() { node = queue->first; }

    private:
        const Queue* queue;
        const Node* node;
    };

private:
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    NodePool<Node>* pool;
    uint64_t count;
    Node* first;
    Node* last;
};

}  // namespace Base

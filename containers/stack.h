// Base::Stack: a singly linked last-in-first-out stack of pointers, with an
// optional private pool of nodes. It owns its nodes, never the values.
// One thread at a time.
#pragma once

#include <cstdint>

namespace Base {

template <class Node>
class NodePool;

class Stack {
public:
    struct Node {
        void* value;
        Node* next;
    };

    Stack(bool pooled, int initial_nodes);
    ~Stack();

    void push(void* value);
    void* pop();        // 0 when empty
    void* top() const;  // 0 when empty
    void clear();
    uint64_t get_count() const { return count; }

    class Iterator {
    public:
        explicit Iterator(const Stack* stack) : stack(stack), node(stack->first) {}
        bool is_end() const { return node == nullptr; }
        void* next() {
            void* value = node->value;
            node = node->next;
            return value;
        }
        void reset() { node = stack->first; }

    private:
        const Stack* stack;
        const Node* node;
    };

private:
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    NodePool<Node>* pool;
    uint64_t count;
    Node* first;  // the top
};

}  // namespace Base

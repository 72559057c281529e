#include "containers/queue.h"

#include "containers/nodepool.h"

namespace Base {

Queue::Queue(bool pooled, int initial_nodes)
    : pool(new NodePool<Node>(pooled, initial_nodes)), count(0), first(nullptr), last(nullptr) {}

Queue::~Queue() {
    clear();
    delete pool;
}

void Queue::push(void* value) {
    Node* node = pool->get();
    node->value = value;
    node->next = nullptr;
    if (last != nullptr) last->next = node;
    else first = node;
    last = node;
    count++;
}

void* Queue::pop() {
    Node* node = first;
    if (node == nullptr) return nullptr;
    first = node->next;
    if (first == nullptr) last = nullptr;
    void* value = node->value;
    count--;
    pool->put(node);
    return value;
}

void* Queue::head() const { return first != nullptr ? first->value : nullptr; }

void* Queue::tail() const { return last != nullptr ? last->value : nullptr; }

void Queue::clear() {
    while (first != nullptr) pop();
}

}  // namespace Base

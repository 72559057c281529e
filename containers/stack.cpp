#include "containers/stack.h"

#include "containers/nodepool.h"

namespace Base {

Stack::Stack(bool pooled, int initial_nodes)
    : pool(new NodePool<Node>(pooled, initial_nodes)), count(0), first(nullptr) {}

Stack::~Stack() {
    clear();
    delete pool;
}

void Stack::push(void* value) {
    Node* node = pool->get();
    node->value = value;
    node->next = first;
    first = node;
    count++;
}

void* Stack::pop() {
    Node* node = first;
    if (node == nullptr) return nullptr;
    first = node->next;
    void* value = node->value;
    count--;
    pool->put(node);
    return value;
}

void* Stack::top() const { return first != nullptr ? first->value : nullptr; }

void Stack::clear() {
    while (first != nullptr) pop();
}

}  // namespace Base

#include "containers/list.h"

#include "containers/nodepool.h"

namespace Base {

List::List(bool pooled, int initial_nodes)
    : pool(new NodePool<Node>(pooled, initial_nodes)), count(0), head(nullptr), tail(nullptr) {}

List::~List() {
    clear();
    delete pool;
}

List::Node* List::make(void* value) {
    Node* node = pool->get();
    node->value = value;
    node->prev = nullptr;
    node->next = nullptr;
    count++;
    return node;
}

List::Node* List::push_back(void* value) {
    Node* node = make(value);
    node->prev = tail;
    if (tail != nullptr) tail->next = node;
    else head = node;
    tail = node;
    return node;
}

List::Node* List::push_front(void* value) {
    Node* node = make(value);
    node->next = head;
    if (head != nullptr) head->prev = node;
    else tail = node;
    head = node;
    return node;
}

List::Node* List::push_back(void* value, Node* after) {
    if (after == nullptr) return push_front(value);
    if (after == tail) return push_back(value);
    Node* node = make(value);
    node->prev = after;
    node->next = after->next;
    after->next->prev = node;
    after->next = node;
    return node;
}

List::Node* List::push_front(void* value, Node* before) {
    if (before == nullptr) return push_back(value);
    if (before == head) return push_front(value);
    Node* node = make(value);
    node->next = before;
    node->prev = before->prev;
    before->prev->next = node;
    before->prev = node;
    return node;
}

void* List::remove(Node* node) {
    if (node->prev != nullptr) node->prev->next = node->next;
    else head = node->next;
    if (node->next != nullptr) node->next->prev = node->prev;
    else tail = node->prev;
    void* value = node->value;
    count--;
    pool->put(node);
    return value;
}

void* List::pop_back() { return tail != nullptr ? remove(tail) : nullptr; }

void* List::pop_front() { return head != nullptr ? remove(head) : nullptr; }

void List::clear() {
    while (head != nullptr) remove(head);
}

void List::truncate(Node* keep) {
    while (tail != nullptr && tail != keep) remove(tail);
}

}  // namespace Base

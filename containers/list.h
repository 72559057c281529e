// Base::List: a doubly linked list of pointers, with an optional private
// pool of nodes. The list owns its nodes, never the values; a node stays
// where it is until it is removed, so a node pointer stays valid. One thread
// at a time.
#pragma once

#include <cstdint>

namespace Base {

template <class Node>
class NodePool;

class List {
public:
    struct Node {
        void* value;
        Node* prev;
        Node* next;
    };

    List(bool pooled, int initial_nodes);
    ~List();

    Node* push_back(void* value);
    Node* push_front(void* value);
    Node* push_back(void* value, Node* after);    // behind after; null: at the front
    Node* push_front(void* value, Node* before);  // ahead of before; null: at the back
    void* remove(Node* node);                     // returns the value
    void* pop_back();                             // 0 when empty
    void* pop_front();                            // 0 when empty
    void clear();
    // Removes nodes from the tail until keep is the tail (null: all of them).
    void truncate(Node* keep);

    Node* get_head() const { return head; }
    Node* get_tail() const { return tail; }
    uint64_t get_count() const { return count; }

private:
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    Node* make(void* value);

    NodePool<Node>* pool;
    uint64_t count;
    Node* head;
    Node* tail;
};

}  // namespace Base

// Intrusive circular lists of the reactors: the handler ring of Reactor and
// the descriptor ring of FdReactor.
//
// A ring has a head node that is never visited and an end mark that splits it:
// the nodes between the head and the end mark are active and polled each pass,
// the ones behind the end mark are parked. A node whose links point at itself
// is in no ring. All of it runs on the reactor's thread alone.
#pragma once

namespace Parallel {

template <typename Node>
inline void ring_unlink(Node* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->prev = node->next = node;
}

// Links node (in no ring) just before at.
template <typename Node>
inline void ring_link_before(Node* node, Node* at) {
    node->prev = at->prev;
    node->next = at;
    at->prev->next = node;
    at->prev = node;
}

// Links node (in no ring) just after at.
template <typename Node>
inline void ring_link_after(Node* node, Node* at) {
    node->prev = at;
    node->next = at->next;
    at->next->prev = node;
    at->next = node;
}

// Round robin among the active nodes: the first one this pass goes last
// among them, so the next pass starts with the one that was second.
template <typename Node>
inline void ring_rotate(Node* head, Node* end_mark) {
    Node* first = head->next;
    if (first == head || first == end_mark) return;
    ring_unlink(first);
    ring_link_before(first, end_mark);
}

}  // namespace Parallel

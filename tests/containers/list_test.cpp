#include <gtest/gtest.h>

#include <vector>

#include "containers/list.h"
#include "containers/queue.h"
#include "containers/stack.h"
#include "tests/support/alloc_counter.h"

namespace {

// The values front to back, after checking that the back links agree.
std::vector<void*> values(const Base::List& list) {
    std::vector<void*> out, back;
    for (Base::List::Node* n = list.get_head(); n != nullptr; n = n->next) out.push_back(n->value);
    for (Base::List::Node* n = list.get_tail(); n != nullptr; n = n->prev) back.insert(back.begin(), n->value);
    EXPECT_EQ(out, back) << "the prev links disagree with the next links";
    EXPECT_EQ(list.get_count(), out.size());
    return out;
}

}  // namespace

TEST(List, LinksStayConsistentThroughEveryOperation) {
    for (bool pooled : {false, true}) {
        Base::List list(pooled, 2);
        int v[6];
        void* p[6];
        for (int i = 0; i < 6; i++) p[i] = &v[i];
        Base::List::Node* only = list.push_back(p[0]);
        EXPECT_EQ(list.remove(only), p[0]);  // only node: head and tail both null
        EXPECT_EQ(list.get_head(), nullptr);
        EXPECT_EQ(list.get_tail(), nullptr);
        EXPECT_EQ(list.pop_back(), nullptr);
        EXPECT_EQ(list.pop_front(), nullptr);

        Base::List::Node* n1 = list.push_back(p[1]);
        Base::List::Node* n3 = list.push_back(p[3]);
        list.push_front(p[0]);
        list.push_back(p[2], n1);   // behind 1
        list.push_front(p[4], n3);  // ahead of 3
        list.push_back(p[5], n3);   // behind the tail
        EXPECT_EQ(values(list), (std::vector<void*>{p[0], p[1], p[2], p[4], p[3], p[5]}));
        EXPECT_EQ(list.remove(n1), p[1]);
        EXPECT_EQ(list.pop_front(), p[0]);
        EXPECT_EQ(list.pop_back(), p[5]);
        EXPECT_EQ(n3->value, p[3]);  // a node stays where it is while others come and go
        EXPECT_EQ(values(list), (std::vector<void*>{p[2], p[4], p[3]}));
        list.truncate(list.get_tail());  // to the tail itself: nothing
        EXPECT_EQ(list.get_count(), 3u);
        list.truncate(list.get_head());
        EXPECT_EQ(values(list), (std::vector<void*>{p[2]}));
        list.clear();
        EXPECT_EQ(list.get_head(), nullptr);
        list.push_back(p[0]);  // left for the destructor
    }
}

// Pooled queues and stacks reuse their nodes: a push after a pop allocates
// nothing; without a pool every push allocates.
TEST(QueueAndStack, OrderAndPooledReuse) {
    Base::Queue queue(true, 0);
    int v[4];
    EXPECT_EQ(queue.pop(), nullptr);
    for (int i = 0; i < 3; i++) queue.push(&v[i]);
    std::vector<void*> seen;
    for (Base::Queue::Iterator it(&queue); !it.is_end();) seen.push_back(it.next());
    EXPECT_EQ(seen, (std::vector<void*>{&v[0], &v[1], &v[2]}));
    EXPECT_EQ(queue.pop(), &v[0]);
    long before = test_allocations();
    queue.push(&v[3]);
    for (int i : {1, 2, 3}) EXPECT_EQ(queue.pop(), &v[i]);
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_EQ(queue.tail(), nullptr);  // the tail follows an emptied queue
    queue.push(&v[0]);
    EXPECT_EQ(queue.head(), &v[0]);
    EXPECT_EQ(queue.tail(), &v[0]);
    EXPECT_EQ(test_allocations(), before);

    Base::Queue plain(false, 8);
    before = test_allocations();
    plain.push(&v[0]);
    plain.pop();
    plain.push(&v[0]);
    EXPECT_EQ(test_allocations() - before, 2);

    Base::Stack stack(true, 1);
    EXPECT_EQ(stack.pop(), nullptr);
    before = test_allocations();
    stack.push(&v[0]);  // the one node made in advance
    EXPECT_EQ(test_allocations(), before);
    stack.push(&v[1]);
    stack.push(&v[2]);
    seen.clear();
    for (Base::Stack::Iterator it(&stack); !it.is_end();) seen.push_back(it.next());
    EXPECT_EQ(seen, (std::vector<void*>{&v[2], &v[1], &v[0]}));
    EXPECT_EQ(stack.pop(), &v[2]);
    before = test_allocations();
    stack.push(&v[3]);
    EXPECT_EQ(test_allocations(), before);
    stack.clear();
    EXPECT_EQ(stack.top(), nullptr);
}

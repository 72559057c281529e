#include <gtest/gtest.h>

#include <vector>

#include "containers/list.h"
#include "containers/queue.h"
#include "containers/stack.h"
#include "tests/support/alloc_counter.h"

namespace {

std::vector<void*> forward(const Base::List& list) {
    std::vector<void*> out;
    for (Base::List::Node* n = list.get_head(); n != nullptr; n = n->next) out.push_back(n->value);
    return out;
}

std::vector<void*> backward(const Base::List& list) {
    std::vector<void*> out;
    for (Base::List::Node* n = list.get_tail(); n != nullptr; n = n->prev) out.insert(out.begin(), n->value);
    return out;
}

}  // namespace

TEST(List, LinksStayConsistentThroughEveryOperation) {
    for (bool pooled : {false, true}) {
        Base::List list(pooled, 2);
        int v[6];
        void* p[6];
        for (int i = 0; i < 6; i++) p[i] = &v[i];

        // Only node removed: head and tail both null.
        Base::List::Node* only = list.push_back(p[0]);
        EXPECT_EQ(list.remove(only), p[0]);
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
        std::vector<void*> want{p[0], p[1], p[2], p[4], p[3], p[5]};
        EXPECT_EQ(forward(list), want);
        EXPECT_EQ(backward(list), want);
        EXPECT_EQ(list.get_count(), 6u);

        // A node stays where it is while others come and go.
        EXPECT_EQ(n3->value, p[3]);
        EXPECT_EQ(list.remove(n1), p[1]);
        EXPECT_EQ(list.pop_front(), p[0]);
        EXPECT_EQ(list.pop_back(), p[5]);
        want = {p[2], p[4], p[3]};
        EXPECT_EQ(forward(list), want);
        EXPECT_EQ(backward(list), want);

        // truncate to the tail itself does nothing; to an inner node cuts.
        list.truncate(list.get_tail());
        EXPECT_EQ(list.get_count(), 3u);
        list.truncate(list.get_head());
        want = {p[2]};
        EXPECT_EQ(forward(list), want);
        EXPECT_EQ(backward(list), want);
        list.clear();
        EXPECT_EQ(list.get_count(), 0u);
        EXPECT_EQ(list.get_head(), nullptr);
        list.push_back(p[0]);  // left for the destructor
    }
}

TEST(Queue, FifoIteratorAndPooledReuse) {
    Base::Queue queue(true, 0);
    int v[4];
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_EQ(queue.head(), nullptr);
    EXPECT_EQ(queue.tail(), nullptr);
    for (int i = 0; i < 3; i++) queue.push(&v[i]);
    EXPECT_EQ(queue.head(), &v[0]);
    EXPECT_EQ(queue.tail(), &v[2]);
    std::vector<void*> seen;
    for (Base::Queue::Iterator it(&queue); !it.is_end();) seen.push_back(it.next());
    EXPECT_EQ(seen, (std::vector<void*>{&v[0], &v[1], &v[2]}));
    EXPECT_EQ(queue.pop(), &v[0]);

    // A pooled queue reuses its nodes: push after pop allocates nothing.
    long before = test_allocations();
    queue.push(&v[3]);
    EXPECT_EQ(test_allocations(), before);
    EXPECT_EQ(queue.pop(), &v[1]);
    EXPECT_EQ(queue.pop(), &v[2]);
    EXPECT_EQ(queue.pop(), &v[3]);
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_EQ(queue.tail(), nullptr);  // the tail follows an emptied queue
    queue.push(&v[0]);
    EXPECT_EQ(queue.head(), &v[0]);
    EXPECT_EQ(queue.tail(), &v[0]);
    EXPECT_EQ(test_allocations(), before);

    // Without a pool every push is an allocation.
    Base::Queue plain(false, 8);
    before = test_allocations();
    plain.push(&v[0]);
    plain.pop();
    plain.push(&v[0]);
    EXPECT_EQ(test_allocations() - before, 2);
}

TEST(Stack, LifoIteratorAndPooledReuse) {
    Base::Stack stack(true, 1);
    int v[3];
    EXPECT_EQ(stack.pop(), nullptr);
    EXPECT_EQ(stack.top(), nullptr);
    long before = test_allocations();
    stack.push(&v[0]);  // the one node made in advance
    EXPECT_EQ(test_allocations(), before);
    stack.push(&v[1]);
    stack.push(&v[2]);
    EXPECT_EQ(stack.top(), &v[2]);
    std::vector<void*> seen;
    for (Base::Stack::Iterator it(&stack); !it.is_end();) seen.push_back(it.next());
    EXPECT_EQ(seen, (std::vector<void*>{&v[2], &v[1], &v[0]}));
    EXPECT_EQ(stack.pop(), &v[2]);
    EXPECT_EQ(stack.pop(), &v[1]);
    before = test_allocations();
    stack.push(&v[1]);
    EXPECT_EQ(test_allocations(), before);
    stack.clear();
    EXPECT_EQ(stack.get_count(), 0u);
    EXPECT_EQ(stack.top(), nullptr);
}

TEST(List, NodesStayPutWhileTheListGrowsAndShrinks) {
    Base::List list(true, 16);
    const int n = 3000;
    std::vector<int> values(n);
    std::vector<Base::List::Node*> nodes(n);
    for (int i = 0; i < n; i++) {
        values[i] = i;
        nodes[i] = list.push_back(&values[i]);
        if (i % 3 == 2) list.remove(nodes[i - 1]);  // pooled nodes come back into use
    }
    int expect = 0;
    for (Base::List::Node* node = list.get_head(); node != nullptr; node = node->next) {
        if (expect % 3 == 1) expect++;
        ASSERT_EQ(node->value, &values[expect]);
        ASSERT_EQ(nodes[expect], node);
        expect++;
    }
    EXPECT_EQ(expect, n);
    EXPECT_EQ(list.get_count(), (uint64_t)(n - n / 3));
}

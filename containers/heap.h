// Base::Heap: a binary heap on Base::Array, for one thread.
//
// The element that compares greater stays on top (compare(a, b) > 0 means a
// goes above b); on a tie a new element stays below the old one. compare is
// given element addresses, or the stored pointers when element_size is 0.
// Elements move, unlike in the other containers. pop() returns the address
// of element 0, which by then holds the new top (read the old top before the
// call); with element_size 0 it returns the old top's pointer.
#pragma once

#include <cstdint>

#include "containers/array.h"

namespace Base {

class Heap : public Array {
public:
    typedef int (*Compare)(const void*, const void*);

    Heap(Compare compare, int element_size, int block_elements, int initial_blocks, Memory* memory);
    ~Heap() override;

    void push(const void* value);
    void* pop();  // null when empty
    void clear();
    // Element 0's address (the stored pointer when element_size is 0), or
    // null when empty.
    void* top() const { return size != 0 ? get(0) : nullptr; }
    unsigned long get_size() const { return size; }

private:
    void swap(unsigned long a, unsigned long b);

    uint64_t size;
    Compare compare;
    char* spare;  // one element, for swaps
};

}  // namespace Base

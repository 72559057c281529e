#include "containers/heap.h"

#include <cstring>

namespace Base {

Heap::Heap(Compare compare, int element_size, int block_elements, int initial_blocks, Memory* memory)
    : Array(element_size, block_elements, initial_blocks, memory),
      size(0),
      compare(compare),
      spare(new char[element_size > 8 ? element_size : 8]) {}

Heap::~Heap() { delete[] spare; }

void Heap::push(const void* value) {
    unsigned long i = size++;
    set(i, value);
    while (i > 0) {
        unsigned long parent = (i - 1) / 2;
        if (compare(value, get(parent)) < 1) break;
        set(i, get(parent));
        i = parent;
        set(i, value);
    }
}

void Heap::swap(unsigned long a, unsigned long b) {
    if (get_element_size() == 0) {
        void* va = get(a);
        set(a, get(b));
        set(b, va);
        return;
    }
    memcpy(spare, get(a), get_element_size());
    set(a, get(b));
    set(b, spare);
}

void* Heap::pop() {
    if (size == 0) return nullptr;
    void* old_top = get(0);
    size--;
    set(0, get(size));
    if (size >= 2) {
        unsigned long i = 0;
        for (;;) {
            unsigned long left = 2 * i + 1, right = left + 1;
            if (left >= size) break;
            unsigned long child = left;
            // Ties go right.
            if (right < size && compare(get(left), get(right)) <= 0) child = right;
            if (compare(get(child), get(i)) < 1) break;
            swap(i, child);
            i = child;
        }
    }
    return get_element_size() == 0 ? old_top : get(0);
}

void Heap::clear() {
    size = 0;
    Array::clear();
}

}  // namespace Base

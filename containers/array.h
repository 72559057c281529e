// Base::Array: a one-level array that grows without moving its elements.
//
// Elements live in blocks of block_elements (a power of two, at least 4096)
// reached through a fixed table of 1048576 block pointers (8 MiB, made by the
// constructor). An element_size of 0 means the elements are pointers, kept
// by value. One thread may append with set() while others read with get():
// the element is written, then a full fence, then count grows, so a reader
// sees only complete elements below count. Blocks are only freed with the
// array; recycle() lets the writer reuse the blocks below a position.
#pragma once

#include <cstdint>

namespace Base {

class BlockMem;
class LFStack;
class Memory;

class Array {
public:
    static constexpr unsigned long MAX_BLOCKS = 1048576;

    Array(int element_size, int block_elements, int initial_blocks, Memory* memory);
    virtual ~Array();

    // Fills up to i with the default (zero) element, stores the element at i
    // (a copy of element_size bytes, or the pointer itself when element_size
    // is 0; a null value stores the default), and raises count past i if i
    // was at the end. False if i lies beyond the block table.
    bool set(unsigned long i, const void* value);
    // The element's address (the stored pointer when element_size is 0), or
    // null if i >= count.
    void* get(unsigned long i) const;
    void clear();  // count = 0; nothing is freed
    // Gives the whole blocks below the one holding i (clamped to count - 1)
    // to the free list, for reuse by later blocks; true if any went.
    bool recycle(unsigned long i);
    unsigned long get_count() const;
    int get_element_size() const { return element_size; }

    class Iterator {
    public:
        explicit Iterator(const Array* array) : array(array), index(0) {}
        bool is_end() const { return index >= array->get_count(); }
        void* next() { return array->get(index++); }
        void reset() { index = 0; }

    private:
        const Array* array;
        unsigned long index;
    };

private:
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;

    char* get_block(unsigned long i);
    void write(unsigned long i, const void* value);

    int element_size;
    int stride;
    int block_elements;
    uint64_t shift;
    uint64_t mask;
    uint64_t block_bytes;
    char* default_value;
    BlockMem* block_mem;
    char** blocks;
    LFStack* free_blocks;
    uint64_t count;  // atomic: stored with release after a full fence
    uint64_t recycled;
};

}  // namespace Base

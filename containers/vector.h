// Base::Vector: an array that grows without moving its elements, for one
// appending thread and any number of reading threads.
//
// Elements live in blocks of block_elements (a power of two, 1024 by
// default); a bucket holds block_elements block pointers plus a link to the
// next bucket, so one bucket covers block_elements^2 elements and the chain
// of buckets is short. An element_size of 0 means the elements are pointers,
// kept by value. Appending is always: write the element, a full fence, then
// count + 1; so get() on another thread sees only complete elements below
// count and needs no lock. Blocks and buckets are made on first access; a
// reader only asks for what is below count, which exists already.
#pragma once

#include <cstdint>

namespace Base {

class BlockMem;
class LFStack;
class Memory;

class Vector {
public:
    Vector(int element_size, int block_elements, int initial_blocks, Memory* memory);
    virtual ~Vector();

    // The element's address (the stored pointer when element_size is 0), or
    // null if i >= count.
    void* get(unsigned int i) const;
    // Writes element i regardless of count: a copy of element_size bytes from
    // value (the default, zero, if value is null), or the pointer itself.
    void set_value(unsigned int i, const void* value);
    // Fills up to i with default elements, stores element i, and raises count
    // past i if i was at the end; each step publishes as described above.
    void set(unsigned int i, const void* value);
    // Bucket n and the block holding element i, found or made.
    void** get_bucket(unsigned int n) const;
    char* get_block(unsigned int i) const;
    void clear();  // count = 0; nothing is freed
    // Gives the whole blocks below the one holding i (clamped to count - 1)
    // to the free list, for reuse by later blocks; true if any went.
    bool recycle(unsigned int i);
    unsigned int get_count() const;
    int get_element_size() const { return element_size; }
    int get_stride() const { return stride; }
    unsigned int get_block_elements() const { return block_elements; }

    class Iterator {
    public:
        explicit Iterator(const Vector* vector) : vector(vector), index(0) {}
        bool is_end() const { return index >= vector->get_count(); }
        void* next();
        void reset() { index = 0; }

    private:
        const Vector* vector;
        unsigned int index;
    };

private:
    Vector(const Vector&) = delete;
    Vector& operator=(const Vector&) = delete;

    void** make_bucket() const;
    char* make_block() const;
    char* slot(unsigned int i) const;

    BlockMem* bucket_mem;
    BlockMem* block_mem;
    int element_size;
    int stride;
    uint32_t block_elements;
    uint32_t shift;
    uint32_t mask;
    uint64_t bucket_elements;
    uint32_t bucket_shift;
    uint64_t bucket_mask;
    uint32_t block_bytes;
    uint32_t bucket_bytes;
    char* default_value;
    void** root;
    LFStack* free_blocks;
    uint32_t count;  // atomic: stored with release after a full fence
    uint32_t recycled;
};

}  // namespace Base

#include "containers/vector.h"

#include <cstring>

#include "containers/blockmem.h"
#include "sync/lfstack.h"
#include "base/strings.h"

namespace Base {

Vector::Vector(int element_size, int block_elements, int initial_blocks, Memory* memory)
    : bucket_mem(nullptr),
      block_mem(nullptr),
      element_size(element_size < 0 ? 0 : element_size),
      stride((this->element_size + 7) & ~7),
      block_elements(0),
      shift(0),
      mask(0),
      bucket_elements(0),
      bucket_shift(0),
      bucket_mask(0),
      block_bytes(0),
      bucket_bytes(0),
      default_value(nullptr),
      root(nullptr),
      free_blocks(new LFStack(0)),
      count(0),
      recycled(0) {
    shift = ceil_log(block_elements <= 0 ? 1024 : block_elements, 2, nullptr);
    this->block_elements = 1u << shift;
    mask = this->block_elements - 1;
    bucket_shift = 2 * shift;
    bucket_elements = uint64_t(1) << bucket_shift;
    bucket_mask = bucket_elements - 1;
    uint32_t slot_bytes = this->element_size != 0 ? stride : 8;
    block_bytes = slot_bytes * this->block_elements;
    bucket_bytes = 8 * (this->block_elements + 1);
    default_value = new char[slot_bytes]();
    if (initial_blocks < 1) initial_blocks = 1;
    block_mem = new BlockMem((unsigned long)initial_blocks * block_bytes, block_bytes, 3, memory, false);
    bucket_mem = new BlockMem(bucket_bytes, bucket_bytes, 3, memory, false);
    root = make_bucket();
}

Vector::~Vector() {
    delete free_blocks;
    delete block_mem;
    delete bucket_mem;
    delete[] default_value;
}

void** Vector::make_bucket() const {
    void** bucket = static_cast<void**>(bucket_mem->alloc(bucket_bytes));
    memset(bucket, 0, bucket_bytes);
    return bucket;
}

char* Vector::make_block() const {
    void* block = free_blocks->is_empty() ? nullptr : free_blocks->pop();
    if (block == nullptr) block = block_mem->alloc(block_bytes);
    return static_cast<char*>(block);
}

void** Vector::get_bucket(unsigned int n) const {
    void** bucket = root;
    for (unsigned int k = 0; k < n; k++) {
        if (bucket[0] == nullptr) bucket[0] = make_bucket();
        bucket = static_cast<void**>(bucket[0]);
    }
    return bucket;
}

char* Vector::get_block(unsigned int i) const {
    void** bucket = get_bucket((unsigned int)(uint64_t(i) >> bucket_shift));
    uint64_t entry = ((i & bucket_mask) >> shift) + 1;
    if (bucket[entry] == nullptr) bucket[entry] = make_block();
    return static_cast<char*>(bucket[entry]);
}

char* Vector::slot(unsigned int i) const {
    return get_block(i) + uint64_t(i & mask) * (element_size != 0 ? stride : 8);
}

void* Vector::get(unsigned int i) const {
    if (i >= get_count()) return nullptr;
    char* p = slot(i);
    return element_size != 0 ? p : *reinterpret_cast<void**>(p);
}

void Vector::set_value(unsigned int i, const void* value) {
    char* p = slot(i);
    if (element_size == 0) {
        *reinterpret_cast<const void**>(p) = value;
        return;
    }
    // memmove: value may be another element of this vector.
    memmove(p, value != nullptr ? value : default_value, element_size);
}

void Vector::set(unsigned int i, const void* value) {
    uint32_t n = count;  // the writer's own count
    while (n < i) {
        set_value(n, nullptr);
        // Release: the default element is complete before a reader's
        // acquire load can see the count that covers it.
        __atomic_store_n(&count, ++n, __ATOMIC_RELEASE);
    }
    set_value(i, value);
    if (i == n) {
        // As above, for the new element.
        __atomic_store_n(&count, n + 1, __ATOMIC_RELEASE);
    }
}

unsigned int Vector::get_count() const {
    // Acquire: pairs with the release in set(); elements below are complete.
    return __atomic_load_n(&count, __ATOMIC_ACQUIRE);
}

void* Vector::Iterator::next() {
    // get() reads the count with acquire before the element it covers.
    return vector->get(index++);
}

void Vector::clear() {
    // Recycled blocks wait in the free list; their bucket entries are cleared
    // so that the restart from 0 does not use a block that the free list can
    // also hand out.
    for (uint32_t b = 0; b < recycled; b++) {
        void** bucket = get_bucket((unsigned int)((uint64_t(b) << shift) >> bucket_shift));
        bucket[(b & (bucket_mask >> shift)) + 1] = nullptr;
    }
    recycled = 0;
    // Release: readers that see the zero see the cleared entries.
    __atomic_store_n(&count, 0, __ATOMIC_RELEASE);
}

bool Vector::recycle(unsigned int i) {
    if (count == 0) return false;
    if (i >= count) i = count - 1;
    uint32_t last = i >> shift;
    bool any = false;
    for (uint32_t b = recycled; b < last; b++) {
        free_blocks->push(get_block(b << shift));
        any = true;
    }
    if (last > recycled) recycled = last;
    return any;
}

}  // namespace Base

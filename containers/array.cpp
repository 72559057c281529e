#include "containers/array.h"

#include <cstdlib>
#include <cstring>

#include "containers/blockmem.h"
#include "sync/lfstack.h"
#include "base/strings.h"

namespace Base {

Array::Array(int element_size, int block_elements, int initial_blocks, Memory* memory)
    : element_size(element_size < 0 ? 0 : element_size),
      stride((this->element_size + 7) & ~7),
      block_elements(0),
      shift(0),
      mask(0),
      block_bytes(0),
      default_value(nullptr),
      block_mem(nullptr),
      // calloc: the 8 MiB table costs pages only where it is used.
      blocks(static_cast<char**>(calloc(MAX_BLOCKS, sizeof(char*)))),
      free_blocks(new LFStack(0)),
      count(0),
      recycled(0) {
    unsigned long n = block_elements < 4096 ? 4096 : (unsigned long)block_elements;
    shift = ceil_log(n, 2, nullptr);
    this->block_elements = 1 << shift;
    mask = this->block_elements - 1;
    unsigned long slot = this->element_size != 0 ? stride : 8;
    block_bytes = slot * this->block_elements;
    default_value = new char[slot]();
    if (initial_blocks < 1) initial_blocks = 1;
    block_mem = new BlockMem(block_bytes * initial_blocks, block_bytes, 3, memory, false);
    for (int b = 0; b < initial_blocks && (unsigned long)b < MAX_BLOCKS; b++)
        blocks[b] = static_cast<char*>(block_mem->alloc(block_bytes));
}

Array::~Array() {
    delete free_blocks;
    delete block_mem;
    free(blocks);
    delete[] default_value;
}

char* Array::get_block(unsigned long i) {
    unsigned long b = i >> shift;
    if (blocks[b] == nullptr) {
        char* block = static_cast<char*>(free_blocks->is_empty() ? nullptr : free_blocks->pop());
        if (block == nullptr) block = static_cast<char*>(block_mem->alloc(block_bytes));
        blocks[b] = block;
    }
    return blocks[b];
}

void Array::write(unsigned long i, const void* value) {
    char* block = get_block(i);
    if (element_size == 0) {
        reinterpret_cast<const void**>(block)[i & mask] = value;
        return;
    }
    // memmove: value may be another element of this array.
    memmove(block + (i & mask) * stride, value != nullptr ? value : default_value, element_size);
}

bool Array::set(unsigned long i, const void* value) {
    if ((i >> shift) >= MAX_BLOCKS) return false;
    unsigned long n = count;  // the writer's own count
    while (n < i) {
        write(n, nullptr);
        // Release: the default element is complete before a reader's
        // acquire load can see the count that covers it.
        __atomic_store_n(&count, ++n, __ATOMIC_RELEASE);
    }
    write(i, value);
    if (i == n) {
        // As above, for the new element.
        __atomic_store_n(&count, n + 1, __ATOMIC_RELEASE);
    }
    return true;
}

void* Array::get(unsigned long i) const {
    if (i >= get_count()) return nullptr;
    char* block = blocks[i >> shift];
    if (element_size == 0) return reinterpret_cast<void**>(block)[i & mask];
    return block + (i & mask) * stride;
}

unsigned long Array::get_count() const {
    // Acquire: pairs with the release in set(); elements below are complete.
    return __atomic_load_n(&count, __ATOMIC_ACQUIRE);
}

void Array::clear() {
    // Recycled blocks wait in the free list; their table entries are cleared
    // so that the restart from 0 does not use a block that the free list can
    // also hand out.
    for (unsigned long b = 0; b < recycled; b++) blocks[b] = nullptr;
    recycled = 0;
    // Release: readers that see the zero see the cleared table.
    __atomic_store_n(&count, 0, __ATOMIC_RELEASE);
}

bool Array::recycle(unsigned long i) {
    if (count == 0) return false;
    if (i >= count) i = count - 1;
    unsigned long last = i >> shift;
    bool any = false;
    for (unsigned long b = recycled; b < last; b++) {
        if (blocks[b] == nullptr) continue;
        free_blocks->push(blocks[b]);
        any = true;
    }
    if (last > recycled) recycled = last;
    return any;
}

}  // namespace Base

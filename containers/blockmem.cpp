#include "containers/blockmem.h"

#include "containers/memory.h"
#include "base/strings.h"

namespace Base {

struct BlockMem::Block {
    char* raw;  // the heap allocation of data, when there is no memory pool
    char* data;
    uint64_t size;
    uint64_t used;
    uint64_t freed;
    Block* next;
};

BlockMem::BlockMem(unsigned long first_size, unsigned long next_size, unsigned char align,
                   Memory* memory, bool auto_free)
    : first_size(first_size),
      next_size(next_size),
      align(align),
      memory(memory),
      auto_free(auto_free ? 1 : 0),
      head(nullptr),
      current(nullptr) {
    if (first_size != 0) head = current = make_block(first_size);
}

BlockMem::~BlockMem() {
    if (memory != nullptr) return;  // the pool owns the pieces
    Block* block = head;
    while (block != nullptr) {
        Block* next = block->next;
        delete[] block->raw;
        delete block;
        block = next;
    }
}

BlockMem::Block* BlockMem::make_block(unsigned long size) {
    // The header needs 8-byte alignment even when align asks for less.
    unsigned char bits = align < 3 ? 3 : align;
    unsigned long slack = (1ul << bits) - 1;
    Block* block;
    char* data;
    if (memory != nullptr) {
        // One piece: header, then data aligned to 2^bits right behind it.
        char* piece = static_cast<char*>(memory->alloc(sizeof(Block) + slack + size));
        data = piece + sizeof(Block);
        data += align_addition((unsigned char)(uintptr_t)data, bits);
        block = reinterpret_cast<Block*>(data - sizeof(Block));
        block->raw = nullptr;
    } else {
        block = new Block;
        block->raw = new char[size + slack];
        data = block->raw + align_addition((unsigned char)(uintptr_t)block->raw, bits);
    }
    block->data = data;
    block->size = size;
    block->used = 0;
    block->freed = 0;
    block->next = nullptr;
    return block;
}

void* BlockMem::alloc(unsigned long size) {
    if (head == nullptr) head = current = make_block(first_size > size ? first_size : size);
    if (head != current && head->freed == head->used) {
        // The oldest block is wholly given back: reuse it behind current.
        Block* block = head;
        head = block->next;
        block->used = 0;
        block->freed = 0;
        block->next = current->next;
        current->next = block;
    }
    while (current->used + size > current->size) {
        Block* next = current->next;
        if (next != nullptr) {
            next->used = 0;
            next->freed = 0;
        } else {
            next = make_block(next_size > size ? next_size : size);
            current->next = next;
        }
        current = next;
    }
    void* piece = current->data + current->used;
    current->used += size;
    return piece;
}

void BlockMem::commit(void* end) { current->used = static_cast<char*>(end) - current->data; }

void BlockMem::free(void* area, unsigned long size) {
    char* end = static_cast<char*>(area) + size;
    for (Block* block = head; block != nullptr; block = block->next) {
        if (block->data <= end && end <= block->data + block->size) {
            block->freed += size;
            return;
        }
    }
}

void BlockMem::clear() {
    if (head == nullptr) return;
    head->used = 0;
    head->freed = 0;
    current = head;
}

void BlockMem::reserve(int n) {
    if (first_size == 0 || next_size == 0 || current == nullptr) return;
    for (int i = 0; i < n; i++) {
        Block* block = make_block(next_size);
        block->next = current->next;
        current->next = block;
    }
}

void BlockMem::get_size(unsigned long& first_size, unsigned long& next_size) const {
    first_size = this->first_size;
    next_size = this->next_size;
}

BlockMem::Reader::Reader(const BlockMem* mem) : mem(mem), block(nullptr), position(0) { reset(); }

void BlockMem::Reader::reset() {
    block = mem->head;
    position = 0;
}

void* BlockMem::Reader::read(unsigned long size) {
    if (block == nullptr) {
        reset();
        if (block == nullptr) return nullptr;
    }
    // Never step past the current block: the blocks behind it are spares
    // whose space is not allocated yet, and the current one may still grow.
    while (position == block->used && block != mem->current && block->next != nullptr) {
        Block* left = block;
        block = block->next;
        position = 0;
        if (mem->auto_free) left->freed = left->used;
    }
    if (position + size > block->used) return nullptr;
    void* piece = block->data + position;
    position += size;
    return piece;
}

}  // namespace Base

// Base::BlockMem: a bump allocator over a chain of blocks, for one thread at
// a time and without locks.
//
// alloc() hands out pieces in order; blocks are given back first-in-first-
// out: once every byte of the oldest block has been freed (free() counts
// bytes per block), the next alloc() moves that block behind the current one
// for reuse. clear() empties the first block and keeps the others as spares;
// memory returns to the heap only in the destructor. Blocks come from a
// Base::Memory pool if one is given (one piece for header and data, aligned
// to 2^align) or from the general heap (header and data apart). Pieces are
// not aligned beyond the sizes callers pass.
#pragma once

#include <cstdint>

namespace Base {

class Memory;

class BlockMem {
    struct Block;

public:
    // A first_size of 0 defers the first block to the first alloc().
    BlockMem(unsigned long first_size, unsigned long next_size, unsigned char align,
             Memory* memory, bool auto_free);
    ~BlockMem();

    void* alloc(unsigned long size);
    // Ends the current block's used part at end, giving back what the last
    // alloc() asked for and did not use.
    void commit(void* end);
    // Counts size bytes as freed in the block that holds area + size.
    void free(void* area, unsigned long size);
    void clear();
    // Makes n more blocks of next_size behind the current one, if both sizes
    // are set.
    void reserve(int n);
    void get_size(unsigned long& first_size, unsigned long& next_size) const;

    // Reads forward through what was allocated, from the first block on.
    // With auto_free, each block the reader leaves is marked wholly freed.
    class Reader {
    public:
        explicit Reader(const BlockMem* mem);
        void* read(unsigned long size);  // null if size more bytes are not there
        void reset();

    private:
        const BlockMem* mem;
        Block* block;
        uint64_t position;
    };

private:
    BlockMem(const BlockMem&) = delete;
    BlockMem& operator=(const BlockMem&) = delete;

    Block* make_block(unsigned long size);

    uint64_t first_size;
    uint64_t next_size;
    uint8_t align;
    Memory* memory;
    uint8_t auto_free;
    Block* head;
    Block* current;
};

}  // namespace Base

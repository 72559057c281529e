// Base::Memory: a thread-safe arena for things that live long and are given
// back all at once.
//
// alloc() hands out pieces from large chunks and may run on any thread, as
// may restore(). The usual case takes three atomic steps: the read of the
// active chunk (a 16-byte compare-and-swap on x86-64), the compare-and-swap
// that claims the piece, and a relaxed update of the used figure. A piece
// is never freed singly; clear() (while no other thread allocates) makes
// every chunk reusable, and chunks go back to the heap only with the pool.
// Pieces have no alignment beyond the running offset: callers ask for slack
// and align for themselves. alloc() never returns null; an exhausted heap raises.
#pragma once

#include <cstdint>

namespace Base {

class LFStack;

class Memory {
public:
    Memory(unsigned long first_size, unsigned long next_size);
    virtual ~Memory();
    // Bytes of chunks taken from the heap, and bytes handed out (approximate).
    virtual void get_size(unsigned long& total, unsigned long& used) const;

    void* alloc(unsigned long size);
    // Makes area (size bytes, owned by the caller) available for later chunks;
    // with a null area a new chunk of that size is made and kept spare.
    void restore(void* area, unsigned long size);
    // Every chunk becomes spare and empty; only while nobody allocates.
    void clear();

private:
    struct Chunk;

    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    Chunk* make_chunk(unsigned long size);
    static bool reserve(Chunk* chunk, unsigned long size, uint64_t& offset);
    void free_chunks(LFStack* stack);

    uint64_t total;
    uint64_t used;
    uint64_t first_size;
    uint64_t next_size;
    LFStack* active;  // chunks in use, the newest on top
    LFStack* spare;   // chunks to be used again
};

}  // namespace Base

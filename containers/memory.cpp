#include "containers/memory.h"

#include "sync/lfstack.h"

namespace Base {

struct Memory::Chunk {
    uint32_t borrowed;  // 1: data came through restore() and is not ours
    char* data;
    uint64_t size;
    uint64_t offset;  // atomic: bytes handed out of this chunk
};

namespace {

unsigned long round8(unsigned long size) { return (size + 7) & ~7ul; }

}  // namespace

Memory::Memory(unsigned long first_size, unsigned long next_size)
    : total(0),
      used(0),
      first_size(round8(first_size)),
      next_size(next_size),
      active(new LFStack(1024)),
      spare(new LFStack(1024)) {
    active->push(make_chunk(this->first_size));
}

Memory::~Memory() {
    free_chunks(active);
    free_chunks(spare);
    delete active;
    delete spare;
}

void Memory::free_chunks(LFStack* stack) {
    for (LFStack::Iterator it(stack); !it.is_end();) {
        Chunk* chunk = static_cast<Chunk*>(it.next());
        if (!chunk->borrowed) delete[] chunk->data;
        delete chunk;
    }
}

Memory::Chunk* Memory::make_chunk(unsigned long size) {
    Chunk* chunk = new Chunk;
    chunk->borrowed = 0;
    chunk->data = new char[size]();  // zero-filled
    chunk->size = size;
    chunk->offset = 0;
    // Relaxed: a statistic; chunks may be made on several threads at once.
    __atomic_fetch_add(&total, size, __ATOMIC_RELAXED);
    return chunk;
}

bool Memory::reserve(Chunk* chunk, unsigned long size, uint64_t& offset) {
    // Relaxed: the compare-and-swap below decides; a stale value only fails it.
    offset = __atomic_load_n(&chunk->offset, __ATOMIC_RELAXED);
    for (;;) {
        if (offset + size > chunk->size) return false;
        // Relaxed: the swap's atomicity alone keeps claimed ranges apart; no
        // other thread reads a piece through the offset, so nothing needs
        // ordering against it. A failed swap reloads offset and tries again.
        if (__atomic_compare_exchange_n(&chunk->offset, &offset, offset + size, false,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return true;
    }
}

void* Memory::alloc(unsigned long size) {
    for (;;) {
        Chunk* seen = static_cast<Chunk*>(active->top());
        uint64_t offset = 0;
        if (seen != nullptr && reserve(seen, size, offset)) {
            // Relaxed load and store, not an add: used is an approximate
            // figure, not worth a second locked instruction.
            __atomic_store_n(&used, __atomic_load_n(&used, __ATOMIC_RELAXED) + size,
                             __ATOMIC_RELAXED);
            return seen->data + offset;
        }
        Chunk* chunk = nullptr;
        if (!spare->is_empty()) {
            chunk = static_cast<Chunk*>(spare->pop());
            if (chunk != nullptr && chunk->size < size) {
                spare->push(chunk);
                chunk = nullptr;
            }
        }
        if (chunk == nullptr) chunk = make_chunk(round8(size > next_size ? size : next_size));
        // The chunk is still private: the reservation cannot fail.
        reserve(chunk, size, offset);
        if (active->try_push(seen, chunk)) {
            __atomic_store_n(&used, __atomic_load_n(&used, __ATOMIC_RELAXED) + size,
                             __ATOMIC_RELAXED);
            return chunk->data + offset;
        }
        // Another thread installed a chunk first: keep ours for later.
        __atomic_store_n(&chunk->offset, 0, __ATOMIC_RELAXED);
        spare->push(chunk);
    }
}

void Memory::restore(void* area, unsigned long size) {
    if (area == nullptr) {
        spare->push(make_chunk(size));
        return;
    }
    Chunk* chunk = new Chunk;
    chunk->borrowed = 1;
    chunk->data = static_cast<char*>(area);
    chunk->size = size;
    chunk->offset = 0;
    spare->push(chunk);
}

void Memory::clear() {
    while (void* top = active->pop()) {
        Chunk* chunk = static_cast<Chunk*>(top);
        chunk->offset = 0;
        spare->push(chunk);
    }
    used = 0;
}

void Memory::get_size(unsigned long& total, unsigned long& used) const {
    // Relaxed: figures for reporting, possibly a moment old.
    total = __atomic_load_n(&this->total, __ATOMIC_RELAXED);
    used = __atomic_load_n(&this->used, __ATOMIC_RELAXED);
}

}  // namespace Base

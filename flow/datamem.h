// Base::DataMem: the storage under a flow.
//
// A chain of large blocks. Records stand back to back from the front of a
// block with no length stored beside them; the length table grows downward
// from the block's end: the u32 at end - 4 * (i + 1) is the offset just
// behind record i of the block. An index (one entry per block made current)
// finds the block of a record number by binary search.
//
// When the writer leaves a block for the next, it writes SEAL into the
// table slot that the next record would have taken, if the block has room
// for the slot. A reader standing at record k of a block thus learns from
// the table alone whether k is there: no room for slot k, or SEAL in it,
// means that k opened the next block. Readers need not look at the block's
// header for every record, which the writer changes with every append.
//
// One thread writes (alloc, append, truncate, clear, free). Readers on other
// threads walk blocks without a lock: the fields they look at while the
// writer works are atomics, and the flow above publishes records by one
// release store of its count. recycle() may run on a third thread; it only
// marks blocks, newest first; the writer, when it leaves a block, takes the
// marked ones at the head back as spares behind it.
#pragma once

#include <atomic>
#include <cstdint>

namespace Base {

class Memory;
class Vector;

class DataMem {
public:
    struct Block {
        char* data;                         // start of the data area
        char* end;                          // data + size
        unsigned int size;                  // multiple of 8
        std::atomic<unsigned int> used;     // bytes of records stored
        std::atomic<unsigned long> first;   // number of the first record
        std::atomic<unsigned long> records; // records in the block
        std::atomic<unsigned char> is_recycled;
        std::atomic<Block*> next;

        // Table entry i: offset just behind record i of this block.
        // True when slot i of the table lies clear of records that end at
        // offset: only then can it hold an entry or the seal.
        bool has_slot(unsigned long i, unsigned int offset) const {
            return offset + 4 * (i + 1) <= size;
        }
        unsigned int entry(unsigned long i) const {
            return *reinterpret_cast<const uint32_t*>(end - 4 * (i + 1));
        }
        void set_entry(unsigned long i, unsigned int value) {
            *reinterpret_cast<uint32_t*>(end - 4 * (i + 1)) = value;
        }
        void reset() {
            used.store(0, std::memory_order_relaxed);
            first.store(0, std::memory_order_relaxed);
            records.store(0, std::memory_order_relaxed);
            is_recycled.store(0, std::memory_order_relaxed);
        }
    };

    struct IndexEntry {
        unsigned long first;
        unsigned int position;
        Block* block;
    };

    static const unsigned int MIN_BLOCK_SIZE = 0x100000;
    static const unsigned int SEAL = 0xFFFFFFFFu;  // no offset is this large

    DataMem(unsigned int first_block_size, unsigned int block_size, unsigned char align,
            Memory* memory);
    ~DataMem();

    // Room for a record of up to size bytes in current; appends nothing.
    // The usual case, room left in current, is inline; the rest opens the
    // next block.
    char* alloc(unsigned short size) {
        Block* cur = current.load(std::memory_order_relaxed);
        if (cur) {
            unsigned int used_now = cur->used.load(std::memory_order_relaxed);
            unsigned long need = used_now + size + (cur->records.load(std::memory_order_relaxed) + 1) * 4;
            if (need <= cur->size) return cur->data + used_now;
        }
        return alloc_next(size);
    }

    // Stores the record that alloc handed out, size bytes long, as the next
    // one of current. Publication is the flow's business.
    void append(unsigned short size) {
        Block* block = current.load(std::memory_order_relaxed);
        unsigned long k = block->records.load(std::memory_order_relaxed);
        unsigned int used_now = block->used.load(std::memory_order_relaxed) + size;
        block->set_entry(k, used_now);
        block->records.store(k + 1, std::memory_order_relaxed);
        block->used.store(used_now, std::memory_order_relaxed);
        stored.store(stored.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    void truncate(unsigned long n);
    int recycle(unsigned long n);
    void clear();
    void free();
    void get_size(unsigned int& first_size, unsigned int& next_size) const;
    const IndexEntry* get_block_offset(unsigned long n) const;

    Memory* get_memory() const { return memory; }

    std::atomic<unsigned long> stored;    // records appended
    std::atomic<unsigned long> recycled;  // records given back
    unsigned int first_block_size;
    unsigned int block_size;
    unsigned char align;
    Memory* memory;
    std::atomic<Block*> head;
    std::atomic<Block*> current;
    Block* recycle_cursor;
    Vector* index;                          // IndexEntry elements
    std::atomic<unsigned int> index_count;  // entries that are in force

private:
    char* alloc_next(unsigned short size);
    Block* alloc_block(unsigned int size);
    void take_back(Block* cur);
    void add_index(Block* block);
    void release_run(Block* first, Block* last);

    DataMem(const DataMem&) = delete;
    DataMem& operator=(const DataMem&) = delete;
};

}  // namespace Base

#include "flow/datamem.h"

#include <new>

#include "containers/memory.h"
#include "containers/stack.h"
#include "base/strings.h"
#include "containers/vector.h"

namespace Base {

static unsigned int at_least_min(unsigned int size) {
    return size < DataMem::MIN_BLOCK_SIZE ? DataMem::MIN_BLOCK_SIZE : size;
}

DataMem::DataMem(unsigned int first_size, unsigned int next_size, unsigned char align_power,
                 Memory* pool)
    : stored(0),
      recycled(0),
      first_block_size(at_least_min(first_size)),
      block_size(at_least_min(next_size)),
      align(align_power),
      memory(pool),
      head(nullptr),
      current(nullptr),
      recycle_cursor(nullptr),
      index(new Vector(sizeof(IndexEntry), 1024, 1, pool)),
      index_count(0) {
    alloc(0);
}

DataMem::~DataMem() {
    free();
    delete index;
}

DataMem::Block* DataMem::alloc_block(unsigned int size) {
    size = (size + 7) & ~7u;
    Block* block;
    char* data;
    if (memory) {
        // One piece for header and data, with slack to align the header.
        unsigned long slack = (1ul << align) - 1;
        char* piece = static_cast<char*>(memory->alloc(sizeof(Block) + size + slack));
        piece += align_addition(static_cast<unsigned char>(reinterpret_cast<uintptr_t>(piece)),
                                align);
        block = new (piece) Block;
        data = piece + sizeof(Block);
    } else {
        block = new Block;
        data = static_cast<char*>(::operator new(size));
    }
    block->data = data;
    block->end = data + size;
    block->size = size;
    block->reset();
    block->next.store(nullptr, std::memory_order_relaxed);
    return block;
}

void DataMem::add_index(Block* block) {
    unsigned int position = index_count.load(std::memory_order_relaxed);
    IndexEntry entry;
    entry.first = block->first.load(std::memory_order_relaxed);
    entry.position = position;
    entry.block = block;
    index->set(position, &entry);
    // Publishes the complete entry to readers that search the index (seek,
    // recycle) before they can count it.
    index_count.store(position + 1, std::memory_order_release);
}

char* DataMem::alloc_next(unsigned short size) {
    unsigned int room = size + 4u;
    Block* cur = current.load(std::memory_order_relaxed);
    if (!cur) {
        Block* block = alloc_block(room > first_block_size ? room : first_block_size);
        head.store(block, std::memory_order_relaxed);
        current.store(block, std::memory_order_relaxed);
        recycle_cursor = block;
        add_index(block);
        cur = block;
    }

    for (;;) {
        unsigned long records = cur->records.load(std::memory_order_relaxed);
        unsigned long need = cur->used.load(std::memory_order_relaxed) + size + (records + 1) * 4;
        if (need <= cur->size) return cur->data + cur->used.load(std::memory_order_relaxed);

        // Seal the block: readers at its next slot learn that the next
        // record is in the next block. Published by the commit's count.
        unsigned int end_used = cur->used.load(std::memory_order_relaxed);
        if (cur->has_slot(records, end_used)) cur->set_entry(records, SEAL);

        take_back(cur);
        Block* block = cur->next.load(std::memory_order_relaxed);
        if (block) {
            block->reset();
        } else {
            block = alloc_block(room > block_size ? room : block_size);
            // Readers follow next only for published records, which come
            // after this link; the release keeps the header whole for them.
            cur->next.store(block, std::memory_order_release);
        }
        block->first.store(cur->first.load(std::memory_order_relaxed) + records,
                           std::memory_order_relaxed);
        current.store(block, std::memory_order_relaxed);
        add_index(block);
        cur = block;
    }
}

void DataMem::take_back(Block* cur) {
    // Marked blocks at the front of the chain become spares behind cur.
    // Only here, when the writer leaves a block: records that fit the
    // current block never look at the head. The acquire pairs with the
    // release of is_recycled: whoever marked the block (a reader or the
    // recycler) is done with its bytes.
    for (;;) {
        Block* old = head.load(std::memory_order_relaxed);
        if (old == cur || !old->is_recycled.load(std::memory_order_acquire)) return;
        head.store(old->next.load(std::memory_order_relaxed), std::memory_order_relaxed);
        old->reset();
        old->next.store(cur->next.load(std::memory_order_relaxed), std::memory_order_relaxed);
        // A reader at the end of cur follows next: the reset header is
        // whole before the link, and used 0 tells it nothing is there yet.
        cur->next.store(old, std::memory_order_release);
    }
}

const DataMem::IndexEntry* DataMem::get_block_offset(unsigned long n) const {
    if (n >= stored.load(std::memory_order_relaxed)) return nullptr;
    // Acquire pairs with add_index: entries below the count are complete.
    unsigned int count = index_count.load(std::memory_order_acquire);
    if (count == 0) return nullptr;
    // Last entry with first <= n: lo always qualifies, hi never does.
    unsigned int lo = 0, hi = count;
    const IndexEntry* found = static_cast<const IndexEntry*>(index->get(0));
    if (!found || found->first > n) return nullptr;
    while (hi - lo > 1) {
        unsigned int mid = lo + (hi - lo) / 2;
        const IndexEntry* entry = static_cast<const IndexEntry*>(index->get(mid));
        if (entry->first <= n) {
            lo = mid;
            found = entry;
        } else {
            hi = mid;
        }
    }
    return found;
}

void DataMem::truncate(unsigned long n) {
    if (n < recycled.load(std::memory_order_relaxed) || n >= stored.load(std::memory_order_relaxed))
        return;
    const IndexEntry* entry = get_block_offset(n);
    if (!entry || !entry->block) return;
    Block* block = entry->block;
    current.store(block, std::memory_order_relaxed);
    unsigned long first = block->first.load(std::memory_order_relaxed);
    if (n == first) {
        block->used.store(0, std::memory_order_relaxed);
        block->records.store(0, std::memory_order_relaxed);
    } else {
        block->records.store(n - first, std::memory_order_relaxed);
        block->used.store(block->entry(n - first - 1), std::memory_order_relaxed);
    }
    block->is_recycled.store(0, std::memory_order_relaxed);
    stored.store(n, std::memory_order_relaxed);
    // Entries behind this one are no longer in force for index searches.
    index_count.store(entry->position + 1, std::memory_order_release);
}

int DataMem::recycle(unsigned long n) {
    Block* cursor = recycle_cursor;
    if (!cursor) return 0;
    Block* target = current.load(std::memory_order_relaxed);
    if (n < stored.load(std::memory_order_relaxed)) {
        const IndexEntry* entry = get_block_offset(n);
        if (entry && entry->block) target = entry->block;
    }
    // Collect the blocks up to (not including) the one before target.
    Stack stack(false, 0);
    while (cursor && cursor != target) {
        // Acquire pairs with the writer's link: the block's header is set.
        Block* next = cursor->next.load(std::memory_order_acquire);
        if (next == target) break;
        stack.push(cursor);
        cursor = next;
    }
    if (!cursor) return 0;  // target not in the chain: nothing safe to mark
    recycle_cursor = cursor;
    // Newest first, so the head, which the writer watches, is marked last.
    int marked = 0;
    while (Block* block = static_cast<Block*>(stack.pop())) {
        recycled.fetch_add(block->records.load(std::memory_order_relaxed),
                           std::memory_order_relaxed);
        // Hands the block to the writer: our view of it is finished.
        block->is_recycled.store(1, std::memory_order_release);
        marked = 1;
    }
    return marked;
}

void DataMem::clear() {
    Block* first = head.load(std::memory_order_relaxed);
    if (!first) return;
    first->reset();
    stored.store(0, std::memory_order_relaxed);
    recycled.store(0, std::memory_order_relaxed);
    current.store(first, std::memory_order_relaxed);
    recycle_cursor = first;
    index_count.store(0, std::memory_order_relaxed);
    index->clear();
    add_index(first);
}

void DataMem::release_run(Block* first, Block* last) {
    char* from = reinterpret_cast<char*>(first);
    memory->restore(from, static_cast<unsigned long>(last->end - from));
}

void DataMem::free() {
    Block* block = head.load(std::memory_order_relaxed);
    Block* run_first = nullptr;
    Block* run_last = nullptr;
    unsigned long slack = memory ? (1ul << align) : 0;
    while (block) {
        Block* next = block->next.load(std::memory_order_relaxed);
        if (memory) {
            // Blocks that follow each other in the pool, up to the
            // alignment slack, go back as one piece.
            char* at = reinterpret_cast<char*>(block);
            if (run_last && at >= run_last->end &&
                static_cast<unsigned long>(at - run_last->end) < slack) {
                run_last = block;
            } else {
                if (run_first) release_run(run_first, run_last);
                run_first = run_last = block;
            }
        } else {
            ::operator delete(block->data);
            delete block;
        }
        block = next;
    }
    if (run_first) release_run(run_first, run_last);
    stored.store(0, std::memory_order_relaxed);
    recycled.store(0, std::memory_order_relaxed);
    head.store(nullptr, std::memory_order_relaxed);
    current.store(nullptr, std::memory_order_relaxed);
    recycle_cursor = nullptr;
    index_count.store(0, std::memory_order_relaxed);
    index->clear();
}

void DataMem::get_size(unsigned int& first_size, unsigned int& next_size) const {
    first_size = first_block_size;
    next_size = block_size;
}

}  // namespace Base

#include "flow/dataflow.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "flow/flowfile.h"
#include "containers/list.h"

namespace Base {

// ---------------------------------------------------------------- DataFlow

DataFlow::DataFlow(unsigned short flow_subject, unsigned int first_block_size,
                   unsigned int block_size, Memory* memory, WriteCallback* callback,
                   unsigned long start, void* flow_version, bool auto_recycle_on,
                   bool manual_commit_on)
    : next(nullptr),
      subject(flow_subject),
      mem(new DataMem(first_block_size, block_size, 3, memory)),
      write_callback(callback),
      auto_recycle(auto_recycle_on ? 1 : 0),
      manual_commit(manual_commit_on ? 1 : 0),
      notify_enabled(1),
      reference_mode(0),
      count(start),
      start_id(start),
      version(flow_version) {}

DataFlow::~DataFlow() {
    delete next.load(std::memory_order_relaxed);
    delete mem;
}

char* DataFlow::get_file_name(const char* dir, const char* name, char* out) const {
    return make_flow_file_name(dir, name, subject, out);
}

void DataFlow::copy_settings_to(DataFlow* fresh) const {
    fresh->reference_mode = reference_mode;
}

DataFlow* DataFlow::clone() const {
    unsigned int first_size, next_size;
    mem->get_size(first_size, next_size);
    DataFlow* fresh = new DataFlow(subject, first_size, next_size, mem->memory, write_callback, 0,
                                   nullptr, auto_recycle, manual_commit);
    copy_settings_to(fresh);
    return fresh;
}

void DataFlow::rollback(const unsigned long* point) {
    if (point)
        mem->truncate(*point);
    else
        mem->truncate(count.load(std::memory_order_relaxed) -
                      start_id.load(std::memory_order_relaxed));
}

bool DataFlow::truncate(unsigned long id) {
    unsigned long start = start_id.load(std::memory_order_relaxed);
    if (start > id || count.load(std::memory_order_relaxed) < id) return false;
    // Readers stop at the new end; what lay behind it was the writer's own.
    count.store(id, std::memory_order_release);
    mem->truncate(id - start);
    return true;
}

bool DataFlow::recycle(unsigned long id) {
    // Acquire: the records below count, and the index behind them, are whole.
    unsigned long target = count.load(std::memory_order_acquire);
    if (id < target) target = id;
    unsigned long start = start_id.load(std::memory_order_relaxed);
    if (start >= target) return false;
    return mem->recycle(target - start) != 0;
}

void DataFlow::clear(unsigned long start) {
    next.store(nullptr, std::memory_order_relaxed);
    start_id.store(start, std::memory_order_relaxed);
    // Readers see the new start; the flow is cleared by its one writer.
    count.store(start, std::memory_order_release);
    mem->clear();
}

void DataFlow::free() {
    start_id.store(0, std::memory_order_relaxed);
    // Readers see an empty flow before its blocks go.
    count.store(0, std::memory_order_release);
    mem->free();
}

DataFlow* DataFlow::shift(void* new_version) {
    if (new_version == version.load(std::memory_order_relaxed) ||
        mem->stored.load(std::memory_order_relaxed) + start_id.load(std::memory_order_relaxed) ==
            0) {
        version.store(new_version, std::memory_order_relaxed);
        return this;
    }
    DataFlow* fresh = clone();
    fresh->version.store(new_version, std::memory_order_relaxed);
    // Publishes the whole successor, version included, to readers that
    // load next with acquire and hop to it.
    get_last()->next.store(fresh, std::memory_order_release);
    return fresh;
}

DataFlow* DataFlow::get_last() const {
    const DataFlow* flow = this;
    // Acquire pairs with shift's release: each successor is whole.
    while (DataFlow* following = flow->next.load(std::memory_order_acquire)) flow = following;
    return const_cast<DataFlow*>(flow);
}

bool DataFlow::get_buffer_count(unsigned long& out) const {
    unsigned long published = count.load(std::memory_order_relaxed);
    unsigned long recycled = mem->recycled.load(std::memory_order_relaxed);
    if (published < recycled) {
        out = 0;
        return false;
    }
    out = published - recycled;
    return true;
}

// ---------------------------------------------------------------- Iterator

static const unsigned long DETACHED = ~0ul;

DataFlow::Iterator::Iterator(DataFlow* reading, Notify* wake, ReadCallback* callback,
                             unsigned long* cell)
    : flow(reading),
      notify(wake),
      position(DETACHED),
      read_callback(callback),
      recycle_pos(cell),
      seen_count(0),
      block(nullptr),
      block_first(0),
      block_base(0),
      block_data(nullptr),
      block_end(nullptr),
      offset(0),
      item{nullptr, 0},
      consumer(nullptr),
      node(nullptr) {
    if (!flow) return;
    register_notify();
    seek(flow->get_start_id());
}

DataFlow::Iterator::~Iterator() { unregister_notify(); }

void DataFlow::Iterator::register_notify() {
    if (!notify || !flow) return;
    List::Node* registration = nullptr;
    consumer = flow->producer.add(notify, registration);
    node = registration;
}

void DataFlow::Iterator::unregister_notify() {
    if (notify && flow && consumer)
        flow->producer.remove(consumer, notify, static_cast<List::Node*>(node));
    consumer = nullptr;
    node = nullptr;
}

void DataFlow::Iterator::detach() {
    unregister_notify();
    seen_count = 0;
    flow = nullptr;
    position = DETACHED;
}

void DataFlow::Iterator::attach(DataFlow* reading) {
    item.data = nullptr;
    item.length = 0;
    flow = reading;
    block = nullptr;
    position = DETACHED;
    seen_count = 0;
    if (!flow) return;
    register_notify();
    seek(flow->get_start_id());
}

bool DataFlow::Iterator::hop() {
    DataFlow* old = flow;
    if (!old) return false;
    // Acquire pairs with shift's release: the successor is whole.
    DataFlow* successor = old->next.load(std::memory_order_acquire);
    // A flow with a successor is final: its count no longer moves.
    if (!successor || old->count.load(std::memory_order_acquire) > position) return false;
    detach();
    if (old->auto_recycle) old->free();
    item.data = nullptr;
    item.length = 0;
    flow = successor;
    block = nullptr;
    seen_count = 0;
    register_notify();
    seek(successor->get_start_id());
    if (read_callback)
        read_callback->on_version(static_cast<unsigned int>(
            reinterpret_cast<uintptr_t>(successor->get_version())));
    return true;
}

bool DataFlow::Iterator::next_in_place() {
    DataFlow* f = flow;
    if (!f || !block) return false;
    if (position >= seen_count) {
        // Acquire pairs with the writer's release of count, as in next().
        seen_count = f->count.load(std::memory_order_acquire);
        if (seen_count <= position) return false;
    }
    unsigned int behind;
    return in_block(position - block_base, behind);
}

const DataFlow::Item* DataFlow::Iterator::next() {
    DataFlow* f = flow;
    if (position >= seen_count) {
        // Only at the last count seen do we look at the flow again: the
        // writer changes count with every record, and a reader that is
        // behind need not pull that line over for each one.
        if (!f) return nullptr;
        // Acquire pairs with the writer's release of count: the records
        // below it, their table entries and the block fields behind them
        // are visible from here.
        seen_count = f->count.load(std::memory_order_acquire);
        if (seen_count <= position) {
            // Nothing new here: the flow may be final, with a successor.
            if (!hop()) return nullptr;
            f = flow;
            if (!f) return nullptr;
            seen_count = f->count.load(std::memory_order_acquire);
            if (seen_count <= position) return nullptr;
        }
    }
    DataMem::Block* b = block;
    if (!b) return nullptr;
    // The record most likely starts here: fetch it while the table entry
    // that gives its length is on its way.
    __builtin_prefetch(block_data + offset);
    unsigned long k = position - block_base;
    unsigned int behind;
    // The block's constant fields are cached: its header shares a cache
    // line with the counters that the writer changes with every append.
    if (!in_block(k, behind)) {
        // Record k opened the next block.
        // Acquire pairs with the link in alloc: the block's header is set.
        DataMem::Block* following = b->next.load(std::memory_order_acquire);
        if (!following || following->first.load(std::memory_order_relaxed) != block_first + k ||
            following->used.load(std::memory_order_relaxed) == 0)
            return nullptr;
        if (offset != b->used.load(std::memory_order_relaxed)) return nullptr;
        if (f->auto_recycle) {
            f->mem->recycled.fetch_add(k, std::memory_order_relaxed);
            // Hands the block back to the writer: we have read all of it.
            b->is_recycled.store(1, std::memory_order_release);
        }
        enter_block(b = following, f->get_start_id());
        offset = 0;
        behind = table_entry(0);
        if (recycle_pos && block_base > __atomic_load_n(recycle_pos, __ATOMIC_RELAXED))
            store_recycle_pos(block_base);
    }
    unsigned int length = behind - offset;
    item.data = block_data + offset;
    item.length = static_cast<unsigned short>(length);
    offset += static_cast<unsigned short>(length);
    if (read_callback) read_callback->on_read(position, item.data, item.length);
    position += 1;
    return &item;
}

bool DataFlow::Iterator::seek(unsigned long id) {
    DataFlow* f = flow;
    if (!f) return false;
    seen_count = 0;
    unsigned long start = f->get_start_id();
    if (start > id) return false;
    // Acquire pairs with the writer's release of count: the records and
    // the index entries below it are whole.
    unsigned long published = f->count.load(std::memory_order_acquire);
    if (id > published) id = published;
    if (id == position) return true;
    if (id == start) {
        enter_block(f->mem->head.load(std::memory_order_relaxed), start);
        position = id;
        offset = 0;
        return true;
    }
    if (id == published) {
        // The only way to stand behind the last record is to read it.
        if (!seek(id - 1)) return false;
        next();
        return true;
    }
    unsigned long n = id - start;
    DataMem::Block* b = block;
    if (b) {
        unsigned long first = b->first.load(std::memory_order_relaxed);
        if (n < first || n >= first + b->records.load(std::memory_order_relaxed)) b = nullptr;
    }
    if (!b) {
        block = nullptr;
        const DataMem::IndexEntry* entry = f->mem->get_block_offset(n);
        if (!entry || !entry->block) return false;
        b = entry->block;
    }
    enter_block(b, start);
    unsigned long k = n - block_first;
    offset = k == 0 ? 0 : b->entry(k - 1);
    position = id;
    if (recycle_pos && __atomic_load_n(recycle_pos, __ATOMIC_RELAXED) < id) store_recycle_pos(id);
    return true;
}

// ---------------------------------------------------------------- Sender

DataFlow::Sender::Sender(DataFlow* reading) : Iterator(reading, nullptr, nullptr, nullptr) {}

DataFlow::Sender* DataFlow::Sender::create(const void* reading) {
    return new Sender(static_cast<DataFlow*>(const_cast<void*>(reading)));
}

unsigned int DataFlow::Sender::get_version() const {
    return flow ? static_cast<unsigned int>(reinterpret_cast<uintptr_t>(flow->get_version())) : 0;
}

unsigned long DataFlow::Sender::get_count() const { return flow ? flow->get_count() : 0; }

const char* DataFlow::Sender::read(unsigned short& length) {
    const Item* record = next();
    if (!record) {
        length = 0;
        return nullptr;
    }
    length = record->length;
    return record->data;
}

// ---------------------------------------------------------------- Receiver

DataFlow::Receiver::Receiver(DataFlow* writing) : flow(writing->get_last()) {}

unsigned int DataFlow::Receiver::get_version() const {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(flow->get_version()));
}

unsigned long DataFlow::Receiver::get_count() const { return flow->get_count(); }

void DataFlow::Receiver::set_version(unsigned int new_version) {
    flow = flow->shift(reinterpret_cast<void*>(static_cast<uintptr_t>(new_version)));
}

bool DataFlow::Receiver::write(const char* data, unsigned short size) {
    char* room = flow->alloc_object(size);
    std::memcpy(room, data, size);
    flow->commit_object(size, false);
    return true;
}

void DataFlow::Receiver::notify() { flow->notify(); }

// ---------------------------------------------------------------- Recycler

struct RecycleCell {
    List::Node* node;
    unsigned long position;
};

DataFlow::Recycler::Recycler(DataFlow* recycled_flow, unsigned long keep_records)
    : flow(recycled_flow),
      keep(keep_records),
      cells(new List(false, 0)),
      low_mark(recycled_flow->get_start_id()) {}

DataFlow::Recycler::~Recycler() {
    while (RecycleCell* cell = static_cast<RecycleCell*>(cells->pop_front())) delete cell;
    delete cells;
}

unsigned long* DataFlow::Recycler::alloc_reader() {
    RecycleCell* cell = new RecycleCell;
    cell->position = low_mark;
    cell->node = cells->push_back(cell);
    return &cell->position;
}

void DataFlow::Recycler::free_reader(const unsigned long* position) {
    if (!position) return;
    RecycleCell* cell = reinterpret_cast<RecycleCell*>(
        const_cast<char*>(reinterpret_cast<const char*>(position)) -
        offsetof(RecycleCell, position));
    cells->remove(cell->node);
    delete cell;
}

int DataFlow::Recycler::invoke() {
    // Acquire: the index behind the published records is whole for recycle.
    unsigned long published = flow->count.load(std::memory_order_acquire);
    unsigned long low = published;
    for (List::Node* node = cells->get_head(); node; node = node->next) {
        RecycleCell* cell = static_cast<RecycleCell*>(node->value);
        // Acquire pairs with the reader's release of its cell: what it read
        // below that mark is done with before we let the blocks go.
        unsigned long position = __atomic_load_n(&cell->position, __ATOMIC_ACQUIRE);
        if (position < low) low = position;
    }
    low_mark = low;
    if (keep > low) return 0;
    unsigned long start = flow->get_start_id();
    unsigned long target = low - keep;
    if (target < start) target = start;
    if (target < published) {
        if (target <= start) return 0;
        return flow->mem->recycle(target - start);
    }
    if (published > start) return flow->mem->recycle(published - start);
    return 0;
}

}  // namespace Base

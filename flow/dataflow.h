// Base::DataFlow: an append-only sequence of records with 64-bit ids.
//
// One thread writes at a time: alloc_object hands out room in the current
// block, the caller builds the record in place, and commit_object stores it
// and publishes it by one release store of count. Readers on other threads
// (Iterator and the classes built on it) read count with acquire and then
// the blocks, without locks. Ids run from start_id; count is the id of the
// next record. A flow may be continued by a successor for a new version
// (shift); the chain is owned by its first flow, and readers hop along it.
//
// Recycling: with auto_recycle the one reader marks each block it leaves;
// otherwise recycle(id), or a Recycler that follows its readers' cells,
// marks whole blocks, and the writer takes marked blocks back for reuse.
#pragma once

#include <atomic>
#include <cstdint>

#include "flow/datamem.h"
#include "flow/notify.h"

namespace Base {

class Memory;
class Notify;
class Consumer;
class List;

class DataFlow {
public:
    class WriteCallback {
    public:
        virtual ~WriteCallback() {}
        virtual void on_write(unsigned long id, const void* data, unsigned short size) = 0;
    };

    class ReadCallback {
    public:
        virtual ~ReadCallback() {}
        virtual void on_read(unsigned long id, const void* data, unsigned short length) = 0;
        virtual void on_version(unsigned int version) = 0;
    };

    // Told of acknowledged records by a channel that supports it.
    class AckCallback {
    public:
        virtual ~AckCallback() {}
    };

    // What a reader hands out: a record in place.
    struct Item {
        const char* data;
        unsigned short length;
    };

    class Iterator;
    class Sender;
    class Receiver;
    class Saver;
    class Loader;
    class FileReader;
    class Recycler;

    DataFlow(unsigned short subject, unsigned int first_block_size, unsigned int block_size,
             Memory* memory, WriteCallback* callback, unsigned long start_id, void* version,
             bool auto_recycle, bool manual_commit);
    virtual ~DataFlow();
    // Acquire pairs with the writer's release: records below it are whole.
    virtual unsigned long get_count() const { return count.load(std::memory_order_acquire); }
    virtual char* get_file_name(const char* dir, const char* name, char* out) const;
    virtual DataFlow* clone() const;

    char* alloc_object(unsigned short size) { return mem->alloc(size); }

    unsigned long commit_object(unsigned short size, bool notify_readers) {
        unsigned long id = start_id.load(std::memory_order_relaxed) +
                           mem->stored.load(std::memory_order_relaxed);
        mem->append(size);
        if (write_callback) {
            DataMem::Block* block = mem->current.load(std::memory_order_relaxed);
            const char* record = block->data + block->used.load(std::memory_order_relaxed) - size;
            write_callback->on_write(id, record, size);
        }
        if (manual_commit) return id;
        publish(id + 1, notify_readers);
        return id;
    }

    void set_check_point(unsigned long* point) const {
        *point = mem->stored.load(std::memory_order_relaxed);
    }
    void commit(bool notify_readers) {
        publish(mem->stored.load(std::memory_order_relaxed) +
                    start_id.load(std::memory_order_relaxed),
                notify_readers);
    }
    void rollback(const unsigned long* point);
    void notify() {
        if (notify_enabled) wake_readers();
    }
    void enable_notify(bool enabled) { notify_enabled = enabled ? 1 : 0; }

    bool truncate(unsigned long id);
    bool recycle(unsigned long id);
    void clear(unsigned long start);
    void free();
    DataFlow* shift(void* new_version);

    // Acquire pairs with shift's release: the successor is whole.
    DataFlow* get_next() const { return next.load(std::memory_order_acquire); }
    DataFlow* get_last() const;
    void* get_version() const { return version.load(std::memory_order_relaxed); }
    unsigned long get_start_id() const { return start_id.load(std::memory_order_relaxed); }
    unsigned long get_recycle_count() const {
        return mem->recycled.load(std::memory_order_relaxed);
    }
    Memory* get_memory() const { return mem->memory; }
    void get_size(unsigned int& first_size, unsigned int& next_size) const {
        mem->get_size(first_size, next_size);
    }
    bool get_buffer_count(unsigned long& out) const;
    unsigned short get_subject() const { return subject; }

    std::atomic<DataFlow*> next;  // successor in the version chain, owned
    unsigned short subject;
    Producer producer;
    DataMem* mem;
    WriteCallback* write_callback;
    unsigned char auto_recycle;
    unsigned char manual_commit;
    unsigned char notify_enabled;
    unsigned char reference_mode;
    // count has a cache line of its own: the writer stores it with every
    // record, and a reader that catches up loads it; nothing else a reader
    // needs per record may share that line.
    alignas(64) std::atomic<unsigned long> count;  // id of the next published record
    alignas(64) std::atomic<unsigned long> start_id;  // id of the first record held here
    std::atomic<void*> version;

protected:
    void copy_settings_to(DataFlow* fresh) const;

private:
    void publish(unsigned long new_count, bool notify_readers) {
        // Publishes the record bytes, their table entries and the block
        // fields to every reader that loads count with acquire.
        count.store(new_count, std::memory_order_release);
        if (notify_readers && notify_enabled) wake_readers();
    }
    void wake_readers() {
        // A full fence (a locked no-op on count, which this thread owns):
        // orders the store of count before the look at the registered
        // consumers, against a reader that registers and then reads count;
        // either it sees the record or we see it and wake it.
        count.fetch_add(0, std::memory_order_seq_cst);
        producer.produce();
    }

    DataFlow(const DataFlow&) = delete;
    DataFlow& operator=(const DataFlow&) = delete;
};

// Walks the records of a flow and follows its version chain. Belongs to one
// thread. next() hands out records in place, with no lock and no copy.
class DataFlow::Iterator {
public:
    Iterator(DataFlow* flow, Notify* notify, ReadCallback* callback, unsigned long* recycle_pos);
    virtual ~Iterator();
    virtual const Item* next();

    bool seek(unsigned long id);
    void detach();
    void attach(DataFlow* flow);
    unsigned long get_recycle_pos() const {
        // The cell only grows; a stale value only keeps the reader in the file longer.
        return recycle_pos ? __atomic_load_n(recycle_pos, __ATOMIC_ACQUIRE) : 0;
    }
    DataFlow* get_flow() const { return flow; }
    unsigned long get_position() const { return position; }

    // True when next() has a record for us in the block it stands in. When
    // it has to step into the next block or flow instead, that step hands
    // the one it leaves back to the writer (auto-recycled flows): a caller
    // still using records from it asks here first.
    bool next_in_place();
    // Moves to the successor when this flow is exhausted and final.
    bool hop();
    // True if the flow has a record at position (after a hop if due).
    bool has_record() {
        hop();
        // Acquire pairs with the writer's release of count.
        return flow && flow->count.load(std::memory_order_acquire) > position;
    }

protected:
    void register_notify();
    void unregister_notify();
    void store_recycle_pos(unsigned long value) {
        // Release: our reads of the blocks behind value are done before the
        // recycler, which loads the cell with acquire, lets them be reused.
        __atomic_store_n(recycle_pos, value, __ATOMIC_RELEASE);
    }

    DataFlow* flow;
    Notify* notify;
    unsigned long position;  // id of the next record; all ones when detached
    ReadCallback* read_callback;
    unsigned long* recycle_pos;
    // start is the flow's start id, read once per block rather than per
    // record (next to count, the writer's line).
    void enter_block(DataMem::Block* b, unsigned long start) {
        block = b;
        block_first = b ? b->first.load(std::memory_order_relaxed) : 0;
        block_base = start + block_first;
        block_data = b ? b->data : nullptr;
        block_end = b ? b->end : nullptr;
    }
    unsigned int table_entry(unsigned long i) const {
        return *reinterpret_cast<const uint32_t*>(block_end - 4 * (i + 1));
    }
    // True when record k of the block lies in it, with behind the end of
    // its bytes; false when the record opened the next block (no slot left
    // for it in the table, or the seal in its slot). Record k is published.
    bool in_block(unsigned long k, unsigned int& behind) const {
        if (offset + 4 * (k + 1) > static_cast<unsigned long>(block_end - block_data)) return false;
        behind = table_entry(k);
        return behind != DataMem::SEAL;
    }

    unsigned long seen_count;  // count as last read: records below it are whole
    DataMem::Block* block;
    unsigned long block_first;  // the block's first record and data area,
    unsigned long block_base;   // read once per block; block_base is the id
    const char* block_data;     // of the block's first record
    const char* block_end;
    unsigned int offset;
    Item item;
    Consumer* consumer;
    void* node;  // Base::List::Node* of the registration

private:
    Iterator(const Iterator&) = delete;
    Iterator& operator=(const Iterator&) = delete;
};

// The reading end of the flow interface of the channels.
class FlowSource {
public:
    virtual ~FlowSource() {}
    virtual unsigned int get_version() const = 0;
    virtual unsigned long get_count() const = 0;
    virtual unsigned long tell() const = 0;
    virtual bool available() = 0;
    virtual bool seek(unsigned long id) = 0;
    virtual const char* read(unsigned short& length) = 0;
};

class DataFlow::Sender : public FlowSource, public DataFlow::Iterator {
public:
    explicit Sender(DataFlow* flow);
    static Sender* create(const void* flow);

    unsigned int get_version() const override;
    unsigned long get_count() const override;
    unsigned long tell() const override { return position; }
    bool available() override { return has_record(); }
    bool seek(unsigned long id) override { return Iterator::seek(id); }
    const char* read(unsigned short& length) override;
};

class DataFlow::Receiver {
public:
    explicit Receiver(DataFlow* flow);
    virtual ~Receiver() {}
    virtual unsigned int get_version() const;
    virtual unsigned long get_count() const;
    virtual void set_version(unsigned int version);
    virtual bool write(const char* data, unsigned short size);
    virtual void notify();

    DataFlow* flow;
};

// Works out how much of a flow may go, from its readers' cells and a margin.
class DataFlow::Recycler {
public:
    Recycler(DataFlow* flow, unsigned long keep);
    ~Recycler();
    unsigned long* alloc_reader();
    void free_reader(const unsigned long* cell);
    int invoke();
    unsigned long get_keep() const { return keep; }
    unsigned long get_low_mark() const { return low_mark; }

    DataFlow* flow;
    unsigned long keep;
    List* cells;
    unsigned long low_mark;
};

}  // namespace Base

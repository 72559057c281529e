// Base::Map: a chained hash table with a fixed number of buckets (a power of
// two, never rehashed). Nodes come from a BlockMem and go back through a free
// list, so the steady state allocates nothing. A key or value size of 0 keeps
// the caller's pointer instead of a copy. One thread at a time, or any number
// of readers once the map no longer changes.
//
// Base::Hash::calc: CRC-32C with the seed as initial value and no final
// inversion, in 32-bit little-endian words, then a 16-bit word, then a byte;
// the processor's instruction where present, a table otherwise, same value.
#pragma once

#include "base/datatype.h"

namespace Base {

class BlockMem;
class Memory;

class Hash {
public:
    static unsigned int calc(const void* data, int size, unsigned int seed);
    // The two forms of calc, exposed so that they can be checked against each other.
    static unsigned int calc_software(const void* data, int size, unsigned int seed);
    static unsigned int calc_hardware(const void* data, int size, unsigned int seed);
    static bool has_hardware();
};

class Map {
public:
    struct Node {
        void* key;
        void* value;
        Node* next;
        unsigned int hash;
    };

    class Iterator {
    public:
        // With a key: the elements with that key; with a null key: all, bucket by bucket.
        Iterator(const Map* map, const void* key, bool as_node);
        bool is_end() const { return current == nullptr; }
        bool is_all_end() const { return current == nullptr; }
        // Returns the value pointer (or the node with as_node) and moves on; null at the end.
        void* next();
        void reset();

    private:
        void seek(Node* from, unsigned int bucket);
        const Map* map;
        const void* key;
        unsigned int key_hash;
        bool as_node;
        unsigned int bucket;
        Node* current;
    };

    Map(DataType key_type, unsigned int buckets, int key_size, int value_size, int nodes_per_block = 0,
        int initial_blocks = 0, Memory* memory = nullptr);
    Map(unsigned int (*hash)(const void*), bool (*equal)(const void*, const void*), unsigned int buckets,
        int key_size, int value_size, int nodes_per_block = 0, int initial_blocks = 0, Memory* memory = nullptr);
    virtual ~Map();
    virtual void get_size(unsigned long& buckets, unsigned long& elements) const;

    void* search(const void* key) const;
    void* insert(const void* key);
    void* insert(const void* key, const void* value);
    void* remove(const void* key);
    Node* alloc(const void* key);
    Node* alloc(const void* key, const void* value);
    void free(Node*& node);
    void clear();

    unsigned int get_count() const { return size; }
    unsigned int get_bucket_count() const { return bucket_count; }
    // Links a node made by alloc at the head of its chain, beside any equal key.
    void link(Node* node);

private:
    Map(const Map&) = delete;
    Map& operator=(const Map&) = delete;
    void init(unsigned int buckets, int key_size, int value_size, int nodes_per_block, int initial_blocks,
              Memory* memory);
    Node* find(const void* key, unsigned int h) const;
    Node* take_node();

    BlockMem* nodes;
    unsigned int (*hash)(const void*);
    bool (*equal)(const void*, const void*);
    Node* free_head;
    Node* free_tail;
    unsigned int bucket_count;
    unsigned int bucket_mask;
    unsigned int size;
    int key_size, key_stride;
    int value_size, value_stride;
    Node** buckets;
};

}  // namespace Base

#include "containers/map.h"

#include <cstring>

#include "containers/blockmem.h"
#include "base/strings.h"

#if defined(__x86_64__) || defined(__i386__)
#include <nmmintrin.h>
#define QEL_HAVE_CRC32C_INSN 1
#endif

namespace Base {

// ---- CRC-32C ----------------------------------------------------------------

namespace {

// Built at compile time: descriptions hash their member names during static
// initialisation of other files, before any dynamic initialiser here has run.
struct Crc32cTable {
    unsigned int t[256];
    constexpr Crc32cTable() : t() {
        for (unsigned int i = 0; i < 256; ++i) {
            unsigned int c = i;
            for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0x82F63B78u & (0u - (c & 1)));
            t[i] = c;
        }
    }
};
constexpr Crc32cTable g_crc32c_table;

inline unsigned int crc_byte(unsigned int crc, unsigned char b) {
    return (crc >> 8) ^ g_crc32c_table.t[(crc ^ b) & 0xFF];
}

#ifdef QEL_HAVE_CRC32C_INSN
__attribute__((target("sse4.2"))) unsigned int crc_insn(const unsigned char* p, int size, unsigned int crc) {
    while (size >= 4) {
        unsigned int w;
        std::memcpy(&w, p, 4);
        crc = _mm_crc32_u32(crc, w);
        p += 4;
        size -= 4;
    }
    if (size >= 2) {
        unsigned short h;
        std::memcpy(&h, p, 2);
        crc = _mm_crc32_u16(crc, h);
        p += 2;
        size -= 2;
    }
    if (size >= 1) crc = _mm_crc32_u8(crc, *p);
    return crc;
}
// Asked on first use, not at load time, for the same reason as the table.
bool crc32c_insn() {
    static const bool supported = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("sse4.2") != 0;
    }();
    return supported;
}
#else
bool crc32c_insn() { return false; }
#endif

}  // namespace

unsigned int Hash::calc_software(const void* data, int size, unsigned int seed) {
    // A reflected CRC over a little-endian word equals the CRC over its bytes in
    // order, so the word, half-word and byte steps reduce to one byte loop.
    const unsigned char* p = static_cast<const unsigned char*>(data);
    unsigned int crc = seed;
    for (int i = 0; i < size; ++i) crc = crc_byte(crc, p[i]);
    return crc;
}

unsigned int Hash::calc_hardware(const void* data, int size, unsigned int seed) {
#ifdef QEL_HAVE_CRC32C_INSN
    if (crc32c_insn()) return crc_insn(static_cast<const unsigned char*>(data), size, seed);
#endif
    return calc_software(data, size, seed);
}

bool Hash::has_hardware() { return crc32c_insn(); }

unsigned int Hash::calc(const void* data, int size, unsigned int seed) {
    if (size <= 0) return seed;
    return calc_hardware(data, size, seed);
}

// ---- key functions by type --------------------------------------------------

namespace {

template <typename T>
unsigned int hash_number(const void* key) {
    return Hash::calc(key, sizeof(T), 0);
}
template <typename T>
bool equal_number(const void* a, const void* b) {
    T x, y;
    std::memcpy(&x, a, sizeof(T));
    std::memcpy(&y, b, sizeof(T));
    return x == y;
}
unsigned int hash_string(const void* key) {
    const char* s = static_cast<const char*>(key);
    return Hash::calc(s, static_cast<int>(std::strlen(s)), 0);
}
bool equal_string(const void* a, const void* b) {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0;
}

void choose(DataType type, unsigned int (*&hash)(const void*), bool (*&equal)(const void*, const void*)) {
    switch (type) {
        case DT_UINT8: hash = hash_number<unsigned char>; equal = equal_number<unsigned char>; break;
        case DT_UINT16: hash = hash_number<unsigned short>; equal = equal_number<unsigned short>; break;
        case DT_UINT32: hash = hash_number<unsigned int>; equal = equal_number<unsigned int>; break;
        case DT_UINT64: hash = hash_number<unsigned long>; equal = equal_number<unsigned long>; break;
        case DT_INT8:
        case DT_CHAR: hash = hash_number<signed char>; equal = equal_number<signed char>; break;
        case DT_INT16: hash = hash_number<short>; equal = equal_number<short>; break;
        case DT_INT32:
        case DT_VINT32: hash = hash_number<int>; equal = equal_number<int>; break;
        case DT_INT64:
        case DT_VINT64:
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: hash = hash_number<long>; equal = equal_number<long>; break;
        case DT_FLOAT32: hash = hash_number<float>; equal = equal_number<float>; break;
        case DT_FLOAT64: hash = hash_number<double>; equal = equal_number<double>; break;
        case DT_STRING: hash = hash_string; equal = equal_string; break;
        default: hash = nullptr; equal = nullptr; break;  // not a key type
    }
}

int round8(int n) { return (n + 7) & ~7; }

}  // namespace

// ---- Map ----------------------------------------------------------------------

Map::Map(DataType key_type, unsigned int buckets, int key_size, int value_size, int nodes_per_block,
         int initial_blocks, Memory* memory) {
    choose(key_type, hash, equal);
    init(buckets, key_size, value_size, nodes_per_block, initial_blocks, memory);
}

Map::Map(unsigned int (*hash_fn)(const void*), bool (*equal_fn)(const void*, const void*), unsigned int buckets,
         int key_size, int value_size, int nodes_per_block, int initial_blocks, Memory* memory)
    : hash(hash_fn), equal(equal_fn) {
    init(buckets, key_size, value_size, nodes_per_block, initial_blocks, memory);
}

void Map::init(unsigned int buckets_wanted, int key_bytes, int value_bytes, int nodes_per_block,
               int initial_blocks, Memory* memory) {
    bucket_count = buckets_wanted == 0 ? 64 : 1u << ceil_log(buckets_wanted, 2, nullptr);
    bucket_mask = bucket_count - 1;
    size = 0;
    key_size = key_bytes;
    key_stride = round8(key_bytes);
    value_size = value_bytes;
    value_stride = round8(value_bytes);
    free_head = free_tail = nullptr;
    if (nodes_per_block <= 0) nodes_per_block = 1024;
    if (initial_blocks <= 0) initial_blocks = 1;
    unsigned long node_size = sizeof(Node) + key_stride + value_stride;
    unsigned long next_size = node_size * nodes_per_block;
    nodes = new BlockMem(next_size * initial_blocks, next_size, 3, memory, false);
    buckets = new Node*[bucket_count]();
}

Map::~Map() {
    delete[] buckets;
    delete nodes;
}

void Map::get_size(unsigned long& bucket_total, unsigned long& elements) const {
    bucket_total = bucket_count;
    elements = size;
}

Map::Node* Map::find(const void* key, unsigned int h) const {
    for (Node* n = buckets[h & bucket_mask]; n; n = n->next)
        if (n->hash == h && equal(n->key, key)) return n;
    return nullptr;
}

void* Map::search(const void* key) const {
    Node* n = find(key, hash(key));
    return n ? n->value : nullptr;
}

Map::Node* Map::take_node() {
    if (free_head) {
        Node* n = free_head;
        free_head = n->next;
        if (!free_head) free_tail = nullptr;
        return n;
    }
    return static_cast<Node*>(nodes->alloc(sizeof(Node) + key_stride + value_stride));
}

Map::Node* Map::alloc(const void* key) {
    Node* n = take_node();
    n->next = nullptr;
    n->hash = hash(key);
    if (key_size == 0) {
        n->key = const_cast<void*>(key);
    } else {
        n->key = reinterpret_cast<char*>(n + 1);
        if (equal == equal_string)
            std::strcpy(static_cast<char*>(n->key), static_cast<const char*>(key));
        else
            std::memcpy(n->key, key, key_size);
    }
    n->value = n->key;
    return n;
}

Map::Node* Map::alloc(const void* key, const void* value) {
    Node* n = alloc(key);
    if (value_size == 0) {
        n->value = const_cast<void*>(value);
    } else {
        n->value = reinterpret_cast<char*>(n + 1) + key_stride;
        if (value)
            std::memcpy(n->value, value, value_size);
        else
            std::memset(n->value, 0, value_size);
    }
    return n;
}

void Map::link(Node* n) {
    Node*& head = buckets[n->hash & bucket_mask];
    n->next = head;
    head = n;
    ++size;
}

void* Map::insert(const void* key) {
    unsigned int h = hash(key);
    if (Node* n = find(key, h)) return n->value;
    Node* n = alloc(key);
    link(n);
    return n->value;
}

void* Map::insert(const void* key, const void* value) {
    unsigned int h = hash(key);
    if (Node* n = find(key, h)) {
        if (value_size == 0)
            n->value = const_cast<void*>(value);
        else if (value)
            std::memcpy(n->value, value, value_size);
        else
            std::memset(n->value, 0, value_size);
        return n->value;
    }
    Node* n = alloc(key, value);
    link(n);
    return n->value;
}

void* Map::remove(const void* key) {
    unsigned int h = hash(key);
    for (Node** at = &buckets[h & bucket_mask]; *at; at = &(*at)->next) {
        Node* n = *at;
        if (n->hash == h && equal(n->key, key)) {
            *at = n->next;
            --size;
            void* value = n->value;
            free(n);
            return value;
        }
    }
    return nullptr;
}

void Map::free(Node*& node) {
    node->next = nullptr;
    if (free_tail)
        free_tail->next = node;
    else
        free_head = node;
    free_tail = node;
    node = nullptr;
}

void Map::clear() {
    if (size == 0) return;
    for (unsigned int i = 0; i < bucket_count; ++i) buckets[i] = nullptr;
    free_head = free_tail = nullptr;
    size = 0;
    nodes->clear();
}

// ---- Iterator -----------------------------------------------------------------

Map::Iterator::Iterator(const Map* m, const void* k, bool node)
    : map(m), key(k), key_hash(k ? m->hash(k) : 0), as_node(node) {
    reset();
}

void Map::Iterator::seek(Node* from, unsigned int b) {
    if (key) {
        while (from && !(from->hash == key_hash && map->equal(from->key, key))) from = from->next;
        current = from;
        return;
    }
    while (!from && ++b < map->bucket_count) from = map->buckets[b];
    bucket = b;
    current = from;
}

void Map::Iterator::reset() {
    bucket = key ? (key_hash & map->bucket_mask) : 0;
    seek(map->buckets[bucket], bucket);
}

void* Map::Iterator::next() {
    Node* n = current;
    if (!n) return nullptr;
    seek(n->next, bucket);
    return as_node ? static_cast<void*>(n) : n->value;
}

}  // namespace Base

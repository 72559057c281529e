#include "record/fielddesc.h"

#include <cfloat>
#include <cstdio>
#include <cstring>

#include "record/fieldswap.h"
#include "base/strings.h"
#include "text/vint.h"

namespace Base {

const char DATA_TYPE_NAMES[DATA_TYPE_COUNT][17] = {
    "NULL",        "UINT8",       "UINT16",      "UINT32",      "UINT64",      "INT8",        "INT16",
    "INT32",       "INT64",       "FLOAT32",     "FLOAT64",     "CHAR",        "STRING",      "BOOL",
    "FIXEDPOINT0", "FIXEDPOINT1", "FIXEDPOINT2", "FIXEDPOINT3", "FIXEDPOINT4", "FIXEDPOINT5", "FIXEDPOINT6",
    "FIXEDPOINT7", "FIXEDPOINT8", "VINT32",      "VINT64",      "POINTER"};
const int DATA_TYPE_SIZES[DATA_TYPE_COUNT] = {0, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8, 1, 0, 1, 8, 8, 8, 8, 8, 8, 8, 8, 8, 4, 8, 8};
const double FIXED_POINT_INVERSE[10] = {1.0, 0.1, 0.01, 0.001, 0.0001, 1e-05, 1e-06, 1e-07, 1e-08, 1e-09};
const int FIXED_POINT_POWER[10] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000};

namespace {

// Copies at most cap - 1 characters, then terminates and zero-fills to cap.
void copy_text(char* dst, int cap, const char* src) {
    int n = 0;
    if (src)
        while (n < cap - 1 && src[n]) ++n;
    std::memcpy(dst, src, n);
    std::memset(dst + n, 0, cap - n);
}

// Width at which the null, compare, equal and copy rules treat a value.
int rule_width(DataType type) {
    switch (type) {
        case DT_UINT8: case DT_INT8: case DT_CHAR: return 1;
        case DT_UINT16: case DT_INT16: return 2;
        case DT_UINT32: case DT_INT32: case DT_BOOL: case DT_VINT32: case DT_FLOAT32: return 4;
        case DT_UINT64: case DT_INT64: case DT_FLOAT64: case DT_VINT64:
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: return 8;
        default: return 0;
    }
}

bool in_rules(DataType type) { return type >= DT_UINT8 && type <= DT_VINT64; }

template <typename T>
int order(T a, T b) { return a < b ? -1 : (b < a ? 1 : 0); }

int order_float(double a, double b, double epsilon) {
    if (a < b - epsilon) return -1;
    if (a > b + epsilon) return 1;
    return 0;
}

double abs_diff(double a, double b) { return a > b ? a - b : b - a; }

}  // namespace

// ---- building -----------------------------------------------------------------

FieldDesc::FieldDesc(unsigned short desc_id, const char* desc_name)
    : member_count(0), id(desc_id), struct_size(0), stream_size(0), member_index(DT_STRING, 128, 128, 4) {
    std::memset(members, 0, sizeof(members));
    copy_text(name, sizeof(name), desc_name);
}

FieldDesc::FieldDesc(unsigned short desc_id, int size, const char* desc_name, void (*describe)())
    : member_count(0), id(desc_id), struct_size(static_cast<unsigned short>(size)), stream_size(0),
      member_index(DT_STRING, 64, 128, 4) {
    copy_text(name, sizeof(name), desc_name);
    describe();
}

FieldDesc::~FieldDesc() {}

void FieldDesc::setup_member(DataType type, int total_size, int element_size, int count, int offset,
                             const char* type_name, const char* member_name, bool key) {
    MemberDesc& m = members[member_count];
    copy_text(m.name, sizeof(m.name), member_name);
    member_index.insert(m.name, &member_count);
    ++member_count;
    m.type = type;
    m.total_size = total_size;
    m.element_size = element_size;
    m.count = count;
    m.offset = offset;
    m.stream_offset = stream_size;
    copy_text(m.type_name, sizeof(m.type_name), type_name);
    m.key = key;
    stream_size = static_cast<unsigned short>(stream_size + total_size);
}

int FieldDesc::add_member(DataType type, int size, const char* type_name, const char* member_name, bool key) {
    int offset = struct_size;
    setup_member(type, size, size, 1, offset, type_name, member_name, key);
    struct_size = static_cast<unsigned short>(struct_size + size);
    return offset;
}

int FieldDesc::add_member(const MemberDesc* member) {
    return add_member(member->type, member->total_size, member->type_name, member->name, member->key);
}

void FieldDesc::clear() {
    member_count = 0;
    std::memset(members, 0, sizeof(members));
    id = 0;
    name[0] = 0;
    struct_size = 0;
    stream_size = 0;
    member_index.clear();
}

void FieldDesc::copy(const FieldDesc* other) {
    member_index.clear();
    member_count = other->member_count;
    std::memcpy(members, other->members, sizeof(members));
    id = other->id;
    std::memcpy(name, other->name, sizeof(name));
    struct_size = other->struct_size;
    stream_size = other->stream_size;
    for (int i = 0; i < member_count; ++i) member_index.insert(members[i].name, &i);
}

bool FieldDesc::is_same(const FieldDesc* a, const FieldDesc* b) {
    if (a->member_count != b->member_count) return false;
    for (int i = 0; i < a->member_count; ++i) {
        const MemberDesc& x = a->members[i];
        const MemberDesc& y = b->members[i];
        if (x.type != y.type || x.total_size != y.total_size || x.element_size != y.element_size ||
            x.count != y.count || x.offset != y.offset || x.stream_offset != y.stream_offset || x.key != y.key ||
            std::strcmp(x.type_name, y.type_name) != 0 || std::strcmp(x.name, y.name) != 0)
            return false;
    }
    return true;
}

int FieldDesc::get_member_index(const char* member_name) const {
    const void* value = member_index.search(member_name);
    return value ? load_host<int>(value) : -1;
}

// ---- records ------------------------------------------------------------------

void* FieldDesc::alloc_field() const { return new char[struct_size]; }

void FieldDesc::free_field(void* record) { delete[] static_cast<char*>(record); }

void FieldDesc::copy_field(void* dst, const void* src) const { std::memcpy(dst, src, struct_size); }

void FieldDesc::set_field(int index, void* record, const void* value) const {
    const MemberDesc& m = members[index];
    set_member(m.type, get_member(record, index), value, m.total_size);
}

void FieldDesc::set_null(void* record) const {
    for (int i = 0; i < member_count; ++i) set_null(members[i].type, get_member(record, i));
}

bool FieldDesc::is_null(void* record) const {
    for (int i = 0; i < member_count; ++i) {
        if (!in_rules(members[i].type)) return false;
        if (!is_null(members[i].type, get_member(record, i))) return false;
    }
    return true;
}

// ---- keys and equality -----------------------------------------------------------

int FieldDesc::compare_key(const void* a, const void* b, bool ascending) const {
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        if (!m.key || m.count <= 0) continue;
        const char* x = static_cast<const char*>(a) + m.offset;
        const char* y = static_cast<const char*>(b) + m.offset;
        for (int e = 0; e < m.count; ++e, x += m.element_size, y += m.element_size) {
            int c = compare_member(m.type, x, y, ascending);
            if (c != 0) return c;
        }
    }
    return 0;
}

bool FieldDesc::equal_key(const void* a, const void* b) const {
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        if (!m.key) continue;
        const char* x = static_cast<const char*>(a) + m.offset;
        const char* y = static_cast<const char*>(b) + m.offset;
        for (int e = 0; e < m.count; ++e, x += m.element_size, y += m.element_size)
            if (!equal_member(m.type, x, y)) return false;
    }
    return true;
}

unsigned int FieldDesc::hash_key(const void* record) const {
    unsigned int seed = 0;
    for (int i = 0; i < member_count; ++i)
        if (members[i].key) seed = hash_member(members[i].type, get_member(record, i), seed);
    return seed;
}

bool FieldDesc::equal_field(const void* a, const void* b) const {
    return equal_field(a, b, 0, member_count - 1);
}

bool FieldDesc::equal_field(const void* a, const void* b, int first, int last) const {
    for (int i = first; i <= last; ++i) {
        const MemberDesc& m = members[i];
        const char* x = static_cast<const char*>(a) + m.offset;
        const char* y = static_cast<const char*>(b) + m.offset;
        for (int e = 0; e < m.count; ++e, x += m.element_size, y += m.element_size)
            if (!equal_member(m.type, x, y)) return false;
    }
    return true;
}

int FieldDesc::compare_key(void* desc, const void* a, const void* b) {
    return static_cast<FieldDesc*>(desc)->compare_key(a, b, true);
}
bool FieldDesc::equal_key(void* desc, const void* a, const void* b) {
    return static_cast<FieldDesc*>(desc)->equal_key(a, b);
}
unsigned int FieldDesc::hash_key(void* desc, const void* record) {
    return static_cast<FieldDesc*>(desc)->hash_key(record);
}

// ---- single values ----------------------------------------------------------------

void FieldDesc::set_member(DataType type, void* dst, const void* src, int size) {
    if (!src) {
        set_null(type, dst);
        return;
    }
    if (type == DT_STRING) {
        copy_text(static_cast<char*>(dst), size, static_cast<const char*>(src));
        return;
    }
    int width = rule_width(type);
    if (width) std::memmove(dst, src, width);
}

void FieldDesc::fill_member(DataType type, void* dst, const char* text, int size) {
    if (!text || (text[0] == 0 && type != DT_CHAR && type != DT_STRING)) {
        set_null(type, dst);
        return;
    }
    switch (type) {
        case DT_UINT8: std::sscanf(text, "%hhu", static_cast<unsigned char*>(dst)); break;
        case DT_UINT16: std::sscanf(text, "%hu", static_cast<unsigned short*>(dst)); break;
        case DT_UINT32: std::sscanf(text, "%u", static_cast<unsigned int*>(dst)); break;
        case DT_UINT64: std::sscanf(text, "%llu", static_cast<unsigned long long*>(dst)); break;
        case DT_INT8: std::sscanf(text, "%hhd", static_cast<signed char*>(dst)); break;
        case DT_INT16: std::sscanf(text, "%hd", static_cast<short*>(dst)); break;
        case DT_INT32: case DT_BOOL: case DT_VINT32: std::sscanf(text, "%d", static_cast<int*>(dst)); break;
        case DT_INT64: case DT_VINT64: std::sscanf(text, "%lld", static_cast<long long*>(dst)); break;
        case DT_FLOAT32:
        case DT_FLOAT64: {
            int n = type == DT_FLOAT32 ? 4 : 8;
            if (const char* at = std::strchr(text, '@')) {
                char bytes[8];
                if (std::strlen(at + 1) >= static_cast<size_t>(2 * n) && hex_to_bytes(at + 1, bytes, n))
                    std::memcpy(dst, bytes, n);
            } else if (type == DT_FLOAT32) {
                std::sscanf(text, "%f", static_cast<float*>(dst));
            } else {
                std::sscanf(text, "%lf", static_cast<double*>(dst));
            }
            break;
        }
        case DT_CHAR: *static_cast<char*>(dst) = text[0]; break;
        case DT_STRING: set_member(type, dst, text, size); break;
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: {
            double value = 0;
            std::sscanf(text, "%lf", &value);
            store_host<long>(dst, double_to_fixed(value, fixed_point_digits(type)));
            break;
        }
        default: break;
    }
}

void FieldDesc::set_null(DataType type, const void* target) {
    void* dst = const_cast<void*>(target);
    switch (type) {
        case DT_UINT8: store_host<unsigned char>(dst, 255); break;
        case DT_UINT16: store_host<unsigned short>(dst, 65535); break;
        case DT_UINT32: store_host<unsigned int>(dst, 4294967295u); break;
        case DT_UINT64: store_host<unsigned long>(dst, ~0ul); break;
        case DT_INT8: store_host<signed char>(dst, 127); break;
        case DT_INT16: store_host<short>(dst, 32767); break;
        case DT_INT32: case DT_BOOL: case DT_VINT32: store_host<int>(dst, 2147483647); break;
        case DT_FLOAT32: store_host<float>(dst, FLT_MAX); break;
        case DT_FLOAT64: store_host<double>(dst, DBL_MAX); break;
        case DT_CHAR: case DT_STRING: *static_cast<char*>(dst) = 0; break;
        case DT_INT64: case DT_VINT64:
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: store_host<long>(dst, FIXED_POINT_NULL); break;
        default: break;
    }
}

bool FieldDesc::is_null(DataType type, const void* v) {
    switch (type) {
        case DT_UINT8: return load_host<unsigned char>(v) == 255;
        case DT_UINT16: return load_host<unsigned short>(v) == 65535;
        case DT_UINT32: return load_host<unsigned int>(v) == 4294967295u;
        case DT_UINT64: return load_host<unsigned long>(v) == ~0ul;
        case DT_INT8: return load_host<signed char>(v) == 127;
        case DT_INT16: return load_host<short>(v) == 32767;
        case DT_INT32: case DT_BOOL: case DT_VINT32: return load_host<int>(v) == 2147483647;
        case DT_FLOAT32: return load_host<float>(v) == FLT_MAX;
        case DT_FLOAT64: return load_host<double>(v) == DBL_MAX;
        case DT_CHAR: case DT_STRING: return *static_cast<const char*>(v) == 0;
        case DT_INT64: case DT_VINT64:
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: return load_host<long>(v) == FIXED_POINT_NULL;
        default: return false;
    }
}

int FieldDesc::compare_member(DataType type, const void* a, const void* b, bool ascending) {
    int c;
    switch (type) {
        case DT_UINT8: case DT_CHAR: c = order(load_host<unsigned char>(a), load_host<unsigned char>(b)); break;
        case DT_UINT16: c = order(load_host<unsigned short>(a), load_host<unsigned short>(b)); break;
        case DT_UINT32: c = order(load_host<unsigned int>(a), load_host<unsigned int>(b)); break;
        case DT_UINT64: c = order(load_host<unsigned long>(a), load_host<unsigned long>(b)); break;
        case DT_INT8: c = order(load_host<signed char>(a), load_host<signed char>(b)); break;
        case DT_INT16: c = order(load_host<short>(a), load_host<short>(b)); break;
        case DT_INT32: case DT_BOOL: case DT_VINT32: c = order(load_host<int>(a), load_host<int>(b)); break;
        case DT_INT64: case DT_VINT64:
        case DT_FIXEDPOINT0: case DT_FIXEDPOINT1: case DT_FIXEDPOINT2: case DT_FIXEDPOINT3:
        case DT_FIXEDPOINT4: case DT_FIXEDPOINT5: case DT_FIXEDPOINT6: case DT_FIXEDPOINT7:
        case DT_FIXEDPOINT8: c = order(load_host<long>(a), load_host<long>(b)); break;
        case DT_FLOAT32: c = order_float(load_host<float>(a), load_host<float>(b), 1e-6); break;
        case DT_FLOAT64: c = order_float(load_host<double>(a), load_host<double>(b), 1e-9); break;
        case DT_STRING: {
            int r = std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
            c = r < 0 ? -1 : (r > 0 ? 1 : 0);
            break;
        }
        default: c = 0; break;
    }
    return ascending ? c : -c;
}

bool FieldDesc::equal_member(DataType type, const void* a, const void* b) {
    switch (type) {
        case DT_FLOAT32: {
            float x = load_host<float>(a), y = load_host<float>(b);
            return std::memcmp(a, b, 4) == 0 || abs_diff(x, y) <= 1e-6;
        }
        case DT_FLOAT64: {
            double x = load_host<double>(a), y = load_host<double>(b);
            return std::memcmp(a, b, 8) == 0 || abs_diff(x, y) <= 1e-9;
        }
        case DT_STRING: return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0;
        default: {
            int width = in_rules(type) ? rule_width(type) : 0;
            return width == 0 || std::memcmp(a, b, width) == 0;
        }
    }
}

unsigned int FieldDesc::hash_member(DataType type, const void* value, unsigned int seed) {
    if (type == DT_STRING) {
        const char* s = static_cast<const char*>(value);
        return Hash::calc(s, static_cast<int>(std::strlen(s)), seed);
    }
    if (type < 0 || type >= DATA_TYPE_COUNT) return seed;
    return Hash::calc(value, DATA_TYPE_SIZES[type], seed);
}

// ---- stream form without conversion ----------------------------------------------------

void FieldDesc::to_stream(const void* src, void* dst, int len) const {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        if (m.offset + m.total_size > len) {
            std::memset(d + m.stream_offset, 0, stream_size - m.stream_offset);
            return;
        }
        int width = is_fixed_point(m.type) ? 8 : stream_swap_width(m.type);
        bool swap = width != 0 && m.element_size == width;
        for (int e = 0; e < m.count; ++e) {
            const unsigned char* from = s + m.offset + e * m.element_size;
            unsigned char* to = d + m.stream_offset + e * m.element_size;
            if (swap) swap_bytes(to, from, width);
            else std::memcpy(to, from, m.element_size);
        }
    }
}

int FieldDesc::from_stream(void* dst, const void* src, int len) const {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        if (m.stream_offset + m.total_size > len) {
            std::memset(d + m.offset, 0, struct_size - m.offset);
            return i;
        }
        int width = is_fixed_point(m.type) ? 8 : stream_swap_width(m.type);
        bool swap = width != 0 && m.element_size == width;
        for (int e = 0; e < m.count; ++e) {
            const unsigned char* from = s + m.stream_offset + e * m.element_size;
            unsigned char* to = d + m.offset + e * m.element_size;
            if (swap) swap_bytes(to, from, width);
            else std::memcpy(to, from, m.element_size);
        }
    }
    return member_count;
}

// ---- var forms -------------------------------------------------------------------------

namespace {

struct VarWriter {
    unsigned char* p;
    int n;
    void vint(unsigned int v) { n += VInt::encode_vint32(v, p + n, true); }
    void bytes(const void* src, int size) {
        std::memcpy(p + n, src, size);
        n += size;
    }
    void text(const char* s) {
        int size = static_cast<int>(std::strlen(s));
        vint(static_cast<unsigned int>(size));
        bytes(s, size);
    }
};

// Reads with a bound: any overrun marks the reader failed.
struct VarReader {
    const unsigned char* p;
    int len;
    int n;
    bool failed;
    unsigned int vint() {
        int k = n < len ? VInt::get_bytes_num(p + n, len - n) : 0;
        if (k == 0) {
            failed = true;
            return 0;
        }
        unsigned int v = VInt::decode_vint32(p + n, k, true);
        n += k;
        return v;
    }
    bool bytes(void* dst, int size) {
        if (size < 0 || size > len - n) {
            failed = true;
            return false;
        }
        std::memcpy(dst, p + n, size);
        n += size;
        return true;
    }
    // A text of at most cap - 1 bytes, terminated and zero-filled to cap.
    void text(char* dst, int cap) {
        unsigned int size = vint();
        if (failed || size > static_cast<unsigned int>(cap - 1) || static_cast<int>(size) > len - n) {
            failed = true;
            return;
        }
        copy_text(dst, cap, "");
        bytes(dst, static_cast<int>(size));
    }
};

}  // namespace

int FieldDesc::to_var_stream(const void* record, void* dst, int len) const {
    VarWriter w{static_cast<unsigned char*>(dst), 0};
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        const char* value = static_cast<const char*>(record) + m.offset;
        if (m.type == DT_STRING) {
            for (int e = 0; e < m.count; ++e) w.text(value + e * m.element_size);
        } else {
            w.bytes(value, m.count * m.element_size);
        }
    }
    return w.n;
}

int FieldDesc::from_var_stream(void* record, const void* src, int len) const {
    VarReader r{static_cast<const unsigned char*>(src), len, 0, false};
    for (int i = 0; i < member_count && !r.failed; ++i) {
        const MemberDesc& m = members[i];
        char* value = static_cast<char*>(record) + m.offset;
        if (m.type == DT_STRING) {
            for (int e = 0; e < m.count && !r.failed; ++e) r.text(value + e * m.element_size, m.element_size);
        } else {
            r.bytes(value, m.count * m.element_size);
        }
    }
    return r.n;
}

int FieldDesc::to_var_stream(void* dst, int len) const {
    // Worst case per member: two bytes, five VInts, two texts with their lengths.
    int bound = 3 * 5 + 5 + 63 + 5 + member_count * (2 + 5 * 5 + 5 + 63 + 5 + 127);
    if (bound > len) return -1;
    VarWriter w{static_cast<unsigned char*>(dst), 0};
    w.vint(id);
    w.vint(struct_size);
    w.vint(stream_size);
    w.text(name);
    w.vint(static_cast<unsigned int>(member_count));
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& m = members[i];
        w.p[w.n++] = static_cast<unsigned char>(m.type);
        w.p[w.n++] = m.key ? 1 : 0;
        w.vint(static_cast<unsigned int>(m.total_size));
        w.vint(static_cast<unsigned int>(m.element_size));
        w.vint(static_cast<unsigned int>(m.count));
        w.vint(static_cast<unsigned int>(m.offset));
        w.vint(static_cast<unsigned int>(m.stream_offset));
        w.text(m.type_name);
        w.text(m.name);
    }
    return w.n;
}

int FieldDesc::from_var_stream(const void* src, int len) {
    clear();
    VarReader r{static_cast<const unsigned char*>(src), len, 0, false};
    id = static_cast<unsigned short>(r.vint());
    struct_size = static_cast<unsigned short>(r.vint());
    stream_size = static_cast<unsigned short>(r.vint());
    r.text(name, sizeof(name));
    unsigned int count = r.vint();
    if (count > static_cast<unsigned int>(MAX_MEMBERS)) r.failed = true;
    for (unsigned int i = 0; i < count && !r.failed; ++i) {
        MemberDesc& m = members[i];
        unsigned char type_and_key[2];
        if (!r.bytes(type_and_key, 2)) break;
        m.type = static_cast<DataType>(type_and_key[0]);
        m.key = type_and_key[1] != 0;
        m.total_size = static_cast<int>(r.vint());
        m.element_size = static_cast<int>(r.vint());
        m.count = static_cast<int>(r.vint());
        m.offset = static_cast<int>(r.vint());
        m.stream_offset = static_cast<int>(r.vint());
        r.text(m.type_name, sizeof(m.type_name));
        r.text(m.name, sizeof(m.name));
        if (r.failed) break;
        member_index.insert(m.name, &i);
        member_count = static_cast<int>(i) + 1;
    }
    return r.failed ? -1 : r.n;
}

}  // namespace Base

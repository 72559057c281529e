#include "front/records.h"

#include <cfloat>
#include <cstdint>
#include <cstring>

#include "base/datatype.h"

namespace Front {

namespace {

const long POWERS[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};

bool is_integer(Base::DataType t) {
    return (t >= Base::DT_UINT8 && t <= Base::DT_INT64) || t == Base::DT_BOOL;
}

long read_integer(Base::DataType t, const void* p) {
    switch (t) {
    case Base::DT_UINT8: return *static_cast<const uint8_t*>(p);
    case Base::DT_INT8: return *static_cast<const int8_t*>(p);
    case Base::DT_BOOL: return *static_cast<const uint8_t*>(p);
    case Base::DT_UINT16: return *static_cast<const uint16_t*>(p);
    case Base::DT_INT16: return *static_cast<const int16_t*>(p);
    case Base::DT_UINT32: return *static_cast<const uint32_t*>(p);
    case Base::DT_INT32: return *static_cast<const int32_t*>(p);
    default: return *static_cast<const int64_t*>(p);
    }
}

void write_integer(Base::DataType t, void* p, long v) {
    switch (t) {
    case Base::DT_UINT8: case Base::DT_INT8: case Base::DT_BOOL: *static_cast<int8_t*>(p) = int8_t(v); break;
    case Base::DT_UINT16: case Base::DT_INT16: *static_cast<int16_t*>(p) = int16_t(v); break;
    case Base::DT_UINT32: case Base::DT_INT32: *static_cast<int32_t*>(p) = int32_t(v); break;
    default: *static_cast<int64_t*>(p) = v; break;
    }
}

// A member's value as a double; null fixed-point gives DBL_MAX.
double read_number(Base::DataType t, const void* p) {
    if (Base::is_fixed_point(t)) {
        long v;
        memcpy(&v, p, 8);
        if (v == Base::FIXED_POINT_NULL) return DBL_MAX;
        return double(v) / double(POWERS[t - Base::DT_FIXEDPOINT0]);
    }
    if (t == Base::DT_FLOAT64) {
        double d;
        memcpy(&d, p, 8);
        return d;
    }
    if (t == Base::DT_FLOAT32) {
        float f;
        memcpy(&f, p, 4);
        return f;
    }
    return double(read_integer(t, p));
}

long scale(double d, int decimals) {
    if (d == DBL_MAX) return Base::FIXED_POINT_NULL;
    double power = double(POWERS[decimals]);
    return long(d >= 0 ? (d + 1e-9) * power : (d - 1e-9) * power);
}

void write_number(Base::DataType t, void* p, double d) {
    if (Base::is_fixed_point(t)) {
        long v = scale(d, t - Base::DT_FIXEDPOINT0);
        memcpy(p, &v, 8);
    } else if (t == Base::DT_FLOAT64) {
        memcpy(p, &d, 8);
    } else if (t == Base::DT_FLOAT32) {
        float f = float(d);
        memcpy(p, &f, 4);
    } else {
        write_integer(t, p, long(d));
    }
}

bool is_number(Base::DataType t) {
    return is_integer(t) || Base::is_fixed_point(t) || t == Base::DT_FLOAT32 || t == Base::DT_FLOAT64;
}

}  // namespace

void put_text(char* to, int n, const char* text) {
    memset(to, 0, size_t(n));
    if (text) strncpy(to, text, size_t(n - 1));
}

void copy_by_name(const Base::FieldDesc* to_desc, void* to, const Base::FieldDesc* from_desc,
                  const void* from) {
    for (int i = 0; i < to_desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* t = to_desc->get_member_desc(i);
        int j = from_desc->get_member_index(t->name);
        if (j < 0) continue;
        const Base::FieldDesc::MemberDesc* f = from_desc->get_member_desc(j);
        char* dst = static_cast<char*>(to_desc->get_member(to, i));
        const char* src = static_cast<const char*>(from_desc->get_member(from, j));
        if (t->type == f->type && t->total_size == f->total_size) {
            memcpy(dst, src, size_t(t->total_size));
        } else if (t->type == Base::DT_STRING && f->type == Base::DT_STRING) {
            put_text(dst, t->total_size, "");
            strncpy(dst, src, size_t(t->total_size - 1 < f->total_size ? t->total_size - 1 : f->total_size));
            dst[t->total_size - 1] = '\0';
        } else if (is_number(t->type) && is_number(f->type) && t->count == 1 && f->count == 1) {
            if (is_integer(t->type) && is_integer(f->type))
                write_integer(t->type, dst, read_integer(f->type, src));
            else
                write_number(t->type, dst, read_number(f->type, src));
        } else if (t->type == Base::DT_CHAR && f->type == Base::DT_CHAR) {
            *dst = *src;
        }
    }
}

long to_fixed(const Base::FieldDesc* desc, const char* member, double value) {
    int i = desc->get_member_index(member);
    if (i < 0) return 0;
    Base::DataType t = desc->get_member_desc(i)->type;
    return Base::is_fixed_point(t) ? scale(value, t - Base::DT_FIXEDPOINT0) : long(value);
}

double from_fixed(const Base::FieldDesc* desc, const char* member, long value) {
    int i = desc->get_member_index(member);
    if (i < 0) return 0;
    Base::DataType t = desc->get_member_desc(i)->type;
    if (!Base::is_fixed_point(t)) return double(value);
    if (value == Base::FIXED_POINT_NULL) return DBL_MAX;
    return double(value) / double(POWERS[t - Base::DT_FIXEDPOINT0]);
}

int record_text(const Base::FieldDesc* desc, const void* record, char* out, int size) {
    int n = 0;
    out[0] = '\0';
    char value[1024];
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* m = desc->get_member_desc(i);
        const void* p = desc->get_member(record, i);
        if (m->type == Base::DT_STRING && static_cast<const char*>(p)[0] == '\0') continue;
        if (m->type == Base::DT_CHAR && static_cast<const char*>(p)[0] == '\0') continue;
        if (m->total_size * 2 + 8 > int(sizeof(value))) continue;
        Base::FieldDesc::print_member(value, m->type, p, false, 0, false, nullptr);
        int w = snprintf(out + n, size_t(size - n), n ? " %s=%s" : "%s=%s", m->name, value);
        if (w < 0 || w >= size - n) break;
        n += w;
    }
    return n;
}

// ---- Reply ------------------------------------------------------------------

Reply::Reply(Network::QelcFlow::Writer* w, unsigned short id, unsigned int request)
    : writer(w), packet(nullptr), packet_id(id), request_id(request), packets(0) {
    open();
}

void Reply::open() {
    packet = writer->alloc_packet(packet_id, 0);
    packet->get_header().RequestId = request_id;
    packet->get_header().Chain = Network::QelcPacket::CHAIN_LAST;
}

bool Reply::add(const Base::FieldDesc* desc, const void* record,
                Network::QelcPacket::ToStreamCoder coder) {
    if (packet->add_field(desc, record, coder)) return true;
    packet->get_header().Chain = 'C';
    writer->commit_packet(true);
    ++packets;
    open();
    return packet->add_field(desc, record, coder) != nullptr;
}

unsigned long Reply::finish() {
    packet->get_header().Chain = Network::QelcPacket::CHAIN_LAST;
    ++packets;
    return writer->commit_packet(true);
}

}  // namespace Front

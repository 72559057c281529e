#include "record/fieldcoder.h"

#include <cstring>

#include "record/fielddesc.h"
#include "record/fieldswap.h"

namespace Base {

void FieldCoder::to_stream(const FieldDesc* desc, const void* src, void* dst, int len) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc& m = desc->members[i];
        if (m.offset + m.total_size > len) {
            std::memset(d + m.stream_offset, 0, desc->stream_size - m.stream_offset);
            return;
        }
        const unsigned char* from = s + m.offset;
        unsigned char* to = d + m.stream_offset;
        if (is_fixed_point(m.type)) {
            int digits = fixed_point_digits(m.type);
            for (int e = 0; e < m.count; ++e, from += m.element_size, to += m.element_size)
                put_be_double(to, fixed_to_double(load_host<long>(from), digits));
        } else if (int width = stream_swap_width(m.type)) {
            for (int e = 0; e < m.count; ++e, from += m.element_size, to += m.element_size)
                swap_bytes(to, from, width);
        } else {
            std::memcpy(to, from, m.count * m.element_size);
        }
    }
}

int FieldCoder::from_stream(const FieldDesc* desc, void* dst, const void* src, int len, bool raw) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc& m = desc->members[i];
        if (m.stream_offset + m.total_size > len) {
            std::memset(d + m.offset, 0, desc->struct_size - m.offset);
            return i;
        }
        const unsigned char* from = s + m.stream_offset;
        unsigned char* to = d + m.offset;
        if (is_fixed_point(m.type)) {
            int digits = fixed_point_digits(m.type);
            for (int e = 0; e < m.count; ++e, from += m.element_size, to += m.element_size) {
                if (raw) swap_bytes(to, from, 8);
                else store_host<long>(to, double_to_fixed(get_be_double(from), digits));
            }
        } else if (int width = stream_swap_width(m.type)) {
            for (int e = 0; e < m.count; ++e, from += m.element_size, to += m.element_size)
                swap_bytes(to, from, width);
        } else {
            std::memcpy(to, from, m.count * m.element_size);
        }
    }
    return desc->member_count;
}

namespace {

// Copies a record member by member between the internal and struct forms,
// turning every fixed-point element with convert (scaled integer <-> double).
// A source shorter than a member zeroes the rest of dst and returns the count
// of whole members. dst may equal src: the record is then converted in place.
template <typename From, typename To, typename Convert>
int convert_record(const FieldDesc* desc, unsigned char* d, const unsigned char* s, int len,
                   Convert convert) {
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc& m = desc->members[i];
        if (m.offset + m.total_size > len) {
            std::memset(d + m.offset, 0, desc->struct_size - m.offset);
            return i;
        }
        if (is_fixed_point(m.type)) {
            int digits = fixed_point_digits(m.type);
            for (int e = 0; e < m.count; ++e) {
                int at = m.offset + e * m.element_size;
                store_host<To>(d + at, convert(load_host<From>(s + at), digits));
            }
        } else if (d != s) {
            std::memmove(d + m.offset, s + m.offset, m.count * m.element_size);
        }
    }
    return desc->member_count;
}

double to_double(long value, int digits) { return fixed_to_double(value, digits); }
long to_fixed(double value, int digits) { return double_to_fixed(value, digits); }

}  // namespace

int FieldCoder::to_struct(const FieldDesc* desc, const void* src, void* dst, int len) {
    return convert_record<long, double>(desc, static_cast<unsigned char*>(dst),
                                        static_cast<const unsigned char*>(src), len, to_double);
}

void FieldCoder::to_struct(const FieldDesc* desc, void* record) {
    unsigned char* r = static_cast<unsigned char*>(record);
    convert_record<long, double>(desc, r, r, desc->struct_size, to_double);
}

int FieldCoder::from_struct(const FieldDesc* desc, void* dst, const void* src, int len) {
    return convert_record<double, long>(desc, static_cast<unsigned char*>(dst),
                                        static_cast<const unsigned char*>(src), len, to_fixed);
}

void FieldCoder::from_struct(const FieldDesc* desc, void* record) {
    unsigned char* r = static_cast<unsigned char*>(record);
    convert_record<double, long>(desc, r, r, desc->struct_size, to_fixed);
}

}  // namespace Base

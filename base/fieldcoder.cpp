#include "base/fieldcoder.h"

#include <cstring>

#include "base/fielddesc.h"
#include "base/fieldswap.h"

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

int FieldCoder::to_struct(const FieldDesc* desc, const void* src, void* dst, int len) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
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
                store_host<double>(d + at, fixed_to_double(load_host<long>(s + at), digits));
            }
        } else {
            std::memmove(d + m.offset, s + m.offset, m.count * m.element_size);
        }
    }
    return desc->member_count;
}

void FieldCoder::to_struct(const FieldDesc* desc, void* record) {
    unsigned char* r = static_cast<unsigned char*>(record);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc& m = desc->members[i];
        if (!is_fixed_point(m.type)) continue;
        int digits = fixed_point_digits(m.type);
        for (int e = 0; e < m.count; ++e) {
            unsigned char* at = r + m.offset + e * m.element_size;
            store_host<double>(at, fixed_to_double(load_host<long>(at), digits));
        }
    }
}

int FieldCoder::from_struct(const FieldDesc* desc, void* dst, const void* src, int len) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
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
                store_host<long>(d + at, double_to_fixed(load_host<double>(s + at), digits));
            }
        } else {
            std::memmove(d + m.offset, s + m.offset, m.count * m.element_size);
        }
    }
    return desc->member_count;
}

void FieldCoder::from_struct(const FieldDesc* desc, void* record) {
    unsigned char* r = static_cast<unsigned char*>(record);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc& m = desc->members[i];
        if (!is_fixed_point(m.type)) continue;
        int digits = fixed_point_digits(m.type);
        for (int e = 0; e < m.count; ++e) {
            unsigned char* at = r + m.offset + e * m.element_size;
            store_host<long>(at, double_to_fixed(load_host<double>(at), digits));
        }
    }
}

}  // namespace Base

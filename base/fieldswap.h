// Byte-by-byte big-endian stores and loads at unaligned addresses, shared by
// the generic and the generated record coders.
#pragma once

#include <cstring>

namespace Base {

inline void put_be16(unsigned char* p, unsigned short v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
inline void put_be32(unsigned char* p, unsigned int v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}
inline void put_be64(unsigned char* p, unsigned long v) {
    put_be32(p, static_cast<unsigned int>(v >> 32));
    put_be32(p + 4, static_cast<unsigned int>(v));
}
inline unsigned short get_be16(const unsigned char* p) {
    return static_cast<unsigned short>(p[0] << 8 | p[1]);
}
inline unsigned int get_be32(const unsigned char* p) {
    return static_cast<unsigned int>(p[0]) << 24 | static_cast<unsigned int>(p[1]) << 16 |
           static_cast<unsigned int>(p[2]) << 8 | p[3];
}
inline unsigned long get_be64(const unsigned char* p) {
    return static_cast<unsigned long>(get_be32(p)) << 32 | get_be32(p + 4);
}

// Host value at an unaligned address, copied by its bytes.
template <typename T>
inline T load_host(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}
template <typename T>
inline void store_host(void* p, T v) {
    std::memcpy(p, &v, sizeof(T));
}

// Swaps n bytes (2, 4 or 8) from host order to big-endian or back.
inline void swap_bytes(unsigned char* dst, const unsigned char* src, int n) {
    switch (n) {
        case 2: put_be16(dst, load_host<unsigned short>(src)); break;
        case 4: put_be32(dst, load_host<unsigned int>(src)); break;
        case 8: put_be64(dst, load_host<unsigned long>(src)); break;
        default: std::memcpy(dst, src, n); break;
    }
}

}  // namespace Base

#include <cfloat>

#include "base/datatype.h"

namespace Base {

// Internal fixed-point integer to its double: null becomes the largest finite
// double; otherwise a multiplication (not a division), so the last bit is fixed.
inline double fixed_to_double(long value, int digits) {
    if (value == FIXED_POINT_NULL) return DBL_MAX;
    return static_cast<double>(value) * FIXED_POINT_INVERSE[digits];
}

// Double to the internal integer: nudged by 1e-9 away from zero so that 0.3
// comes back as 300, then truncated toward zero. A value whose scaled form
// has no 64-bit integer (NaN, infinities, a hostile 1e300 from the wire)
// becomes null instead of an undefined conversion.
inline long double_to_fixed(double value, int digits) {
    if (value == DBL_MAX) return FIXED_POINT_NULL;
    value += value >= 0 ? 1e-9 : -1e-9;
    double scaled = value * static_cast<double>(FIXED_POINT_POWER[digits]);
    if (!(scaled > -9223372036854775808.0 && scaled < 9223372036854775808.0))
        return FIXED_POINT_NULL;
    return static_cast<long>(scaled);
}

inline void put_be_double(unsigned char* p, double v) { put_be64(p, load_host<unsigned long>(&v)); }
// Bytes swapped between host and stream order for one element of the type:
// 2, 4 or 8; 0 for the types copied as they stand (FIXEDPOINT is converted).
inline int stream_swap_width(DataType type) {
    switch (type) {
        case DT_UINT16: case DT_INT16: return 2;
        case DT_UINT32: case DT_INT32: case DT_FLOAT32: case DT_VINT32: return 4;
        case DT_UINT64: case DT_INT64: case DT_FLOAT64: case DT_VINT64: return 8;
        default: return 0;
    }
}

inline double get_be_double(const unsigned char* p) {
    unsigned long bits = get_be64(p);
    return load_host<double>(&bits);
}

}  // namespace Base

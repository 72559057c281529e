// Record value conversions shared by the generic and the generated record
// coders: fixed-point integers to and from doubles, doubles in stream order,
// and the byte width each data type swaps in the stream form.
#pragma once

#include <cfloat>

#include "base/byteorder.h"
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

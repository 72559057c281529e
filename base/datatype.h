// The type codes of record members and their constant tables. A member's
// code says how it is held in a record, coded on the wire, compared, hashed
// and printed; the tables are indexed by the code (or, for the fixed-point
// tables, by the number of decimals N of FIXEDPOINTN).
#pragma once

namespace Base {

enum DataType : int {
    DT_NULL = 0,
    DT_UINT8 = 1,
    DT_UINT16 = 2,
    DT_UINT32 = 3,
    DT_UINT64 = 4,
    DT_INT8 = 5,
    DT_INT16 = 6,
    DT_INT32 = 7,
    DT_INT64 = 8,
    DT_FLOAT32 = 9,
    DT_FLOAT64 = 10,
    DT_CHAR = 11,
    DT_STRING = 12,
    DT_BOOL = 13,
    DT_FIXEDPOINT0 = 14,
    DT_FIXEDPOINT1 = 15,
    DT_FIXEDPOINT2 = 16,
    DT_FIXEDPOINT3 = 17,
    DT_FIXEDPOINT4 = 18,
    DT_FIXEDPOINT5 = 19,
    DT_FIXEDPOINT6 = 20,
    DT_FIXEDPOINT7 = 21,
    DT_FIXEDPOINT8 = 22,
    DT_VINT32 = 23,
    DT_VINT64 = 24,
    DT_POINTER = 25,
};

const int DATA_TYPE_COUNT = 26;

extern const char DATA_TYPE_NAMES[DATA_TYPE_COUNT][17];   // "NULL" ... "POINTER"
extern const int DATA_TYPE_SIZES[DATA_TYPE_COUNT];        // element size; 0 for NULL and STRING
extern const double FIXED_POINT_INVERSE[10];             // 1.0, 0.1, ... 1e-09
extern const int FIXED_POINT_POWER[10];                  // 1, 10, ... 1000000000

// Null value of every FIXEDPOINT, INT64 and VINT64 member.
const long FIXED_POINT_NULL = 9223372036854775807L;

inline bool is_fixed_point(DataType type) { return type >= DT_FIXEDPOINT0 && type <= DT_FIXEDPOINT8; }
inline int fixed_point_digits(DataType type) { return type - DT_FIXEDPOINT0; }

}  // namespace Base

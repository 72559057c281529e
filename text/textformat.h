// The text form of one record value, shared by the record printers and the
// CSV table: "%hhu", "%hu", "%u", "%llu" for the unsigned codes, "%hhd",
// "%hd", "%d", "%lld" for the signed ones ("BOOL" and "VINT32" as "%d"),
// "%.8f" for "FLOAT32", "%.15lf" for "FLOAT64", "%c" for "CHAR", the text
// itself for "STRING", and for "FIXEDPOINTN" the scaled integer times
// 10^-N printed with N decimals. A float can carry its bit image, "@" and
// its memory bytes in upper-case hexadecimal, so that it reads back exactly.
#pragma once

#include "base/datatype.h"

namespace Base {

// "%.0lf" to "%.9lf"; the tenth has no DataType and serves JSON numbers.
extern const char* const FIXED_POINT_FORMAT[10];

// The largest text print_value gives, terminator included.
const int VALUE_TEXT_SIZE = 400;

// Prints one value (of one element) into dst and returns the length; a
// null dst only counts. With a hex buffer (17 bytes or more) a "FLOAT32" or
// "FLOAT64" is followed by its bit image. Null values are printed as the
// numbers they are: the callers decide about null. A code outside 1 to 24
// prints nothing; a "STRING" prints its text.
int print_value(char* dst, DataType type, const void* value, char* hex);

// The double of a FIXEDPOINTN text value, scaled as records hold it: plus
// or minus 1e-9, times 10^N, truncated toward zero. The largest finite
// double, a NaN and a value out of the 64-bit range give the null value.
long scale_fixed_point(double value, int digits);

}  // namespace Base

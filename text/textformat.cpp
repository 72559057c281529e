#include "text/textformat.h"

#include <cfloat>
#include <cstdio>
#include <cstring>

#include "base/strings.h"

namespace Base {

const char* const FIXED_POINT_FORMAT[10] = {"%.0lf", "%.1lf", "%.2lf", "%.3lf", "%.4lf",
                                            "%.5lf", "%.6lf", "%.7lf", "%.8lf", "%.9lf"};

namespace {

template <typename T>
T load(const void* value) {
    T result;
    std::memcpy(&result, value, sizeof result);
    return result;
}

// Appends "@" and the bytes of the value in upper-case hexadecimal.
int print_image(char* dst, const void* value, int size, char* hex) {
    hex_from_bytes(hex, static_cast<const char*>(value), size, true);
    hex[size * 2] = 0;
    return dst ? std::sprintf(dst, "@%s", hex) : 1 + size * 2;
}

}  // namespace

int print_value(char* dst, DataType type, const void* value, char* hex) {
    char scratch[VALUE_TEXT_SIZE];
    char* out = dst ? dst : scratch;
    switch (type) {
    case DT_UINT8:
        return std::sprintf(out, "%hhu", load<unsigned char>(value));
    case DT_UINT16:
        return std::sprintf(out, "%hu", load<unsigned short>(value));
    case DT_UINT32:
        return std::sprintf(out, "%u", load<unsigned int>(value));
    case DT_UINT64:
        return std::sprintf(out, "%llu", load<unsigned long long>(value));
    case DT_INT8:
        return std::sprintf(out, "%hhd", load<signed char>(value));
    case DT_INT16:
        return std::sprintf(out, "%hd", load<short>(value));
    case DT_INT32:
    case DT_BOOL:
    case DT_VINT32:
        return std::sprintf(out, "%d", load<int>(value));
    case DT_INT64:
    case DT_VINT64:
        return std::sprintf(out, "%lld", load<long long>(value));
    case DT_FLOAT32: {
        int n = std::sprintf(out, "%.8f", static_cast<double>(load<float>(value)));
        if (hex) n += print_image(dst ? dst + n : nullptr, value, 4, hex);
        return n;
    }
    case DT_FLOAT64: {
        int n = std::sprintf(out, "%.15lf", load<double>(value));
        if (hex) n += print_image(dst ? dst + n : nullptr, value, 8, hex);
        return n;
    }
    case DT_CHAR:
        return std::sprintf(out, "%c", load<char>(value));
    case DT_STRING: {
        const char* text = static_cast<const char*>(value);
        int n = static_cast<int>(std::strlen(text));
        if (dst) std::memcpy(dst, text, n + 1);
        return n;
    }
    default:
        break;
    }
    if (is_fixed_point(type)) {
        int digits = fixed_point_digits(type);
        double scaled = static_cast<double>(load<long>(value)) * FIXED_POINT_INVERSE[digits];
        return std::sprintf(out, FIXED_POINT_FORMAT[digits], scaled);
    }
    if (dst) *dst = 0;
    return 0;
}

long scale_fixed_point(double value, int digits) {
    if (value == DBL_MAX || value != value) return FIXED_POINT_NULL;
    value += value >= 0 ? 1e-9 : -1e-9;
    double scaled = value * static_cast<double>(FIXED_POINT_POWER[digits]);
    // 2^63 as a double; anything at or beyond it can't be held.
    if (scaled >= 9223372036854775808.0 || scaled <= -9223372036854775808.0) return FIXED_POINT_NULL;
    return static_cast<long>(scaled);
}

}  // namespace Base

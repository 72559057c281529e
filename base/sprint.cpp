#include "base/sprint.h"

#include <cstdarg>
#include <cstdio>

namespace Base {

int sprint_at(char* dst, int position, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int length = dst ? std::vsprintf(dst + position, format, args)
                     : std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    return length;
}

}  // namespace Base

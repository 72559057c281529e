// Base::Reportable: where a component sends its progress and trouble lines.
//
// A line has a level (2 error, 4 notice, 5 detail), a short tag naming the
// reporting class, and printf-style text. The receiver decides whether and
// where a line goes; a null reporter means silence, and every caller checks
// for null itself.
#pragma once

#include <cstdarg>

namespace Base {

class Reportable {
public:
    virtual ~Reportable() {}
    virtual void report_v(int level, const char* tag, const char* format, va_list args) = 0;

    void report(int level, const char* tag, const char* format, ...)
        __attribute__((format(printf, 4, 5))) {
        va_list args;
        va_start(args, format);
        report_v(level, tag, format, args);
        va_end(args);
    }
};

}  // namespace Base

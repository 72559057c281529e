// Base::File: static helpers on paths and stdio streams. Paths use "/";
// convert_path turns "\" into it. Results are false, -1 or null on failure
// and nothing is printed.
#pragma once

#include <cstdio>

namespace Base {

class File {
public:
    virtual ~File() {}

    static char* convert_path(char* dst, const char* src);
    static char* get_parent_path(char* dst, const char* path);
    static char* get_child_path(char* dst, const char* path, const char* child);
    // Splits path into directory ("." when none), name and extension (with
    // its dot); every output but name may be null.
    static void get_name(char* dir, char* name, char* extension, const char* path, char dot = '.');

    static bool is_exist(const char* path);
    static bool remove(const char* path);
    static bool rename(const char* from, const char* to);

    static bool set_length(FILE* file, long length);  // rewinds, then cuts
    static bool get_length(FILE* file, long& length);
    static long get_last_modify_time(FILE* file);
    static bool truncate(FILE* file);  // cuts at the current position
    static bool get_pos(FILE* file, long& position);
    static bool set_pos(FILE* file, long position);
    // Reads one line without its line end; false at end of file.
    static bool read_line(FILE* file, char* buffer, int size);
};

}  // namespace Base

// Base::Csv: a one-row-at-a-time table of comma-separated text. It holds a
// header of column names, one row of text cells, and typed access to the
// cells with the value formats of the record text forms. It reads and writes
// files line by line.
//
// With quote on, heads and cells are written between double quotes and a
// quote inside a cell is doubled; a quoted line must quote every cell. The
// mode of a file is taken from its header line. line_size bounds a line and
// a cell (a longer one is cut); a column name keeps at most 63 characters.
//
// Null: for each DataType a flag says whether the type's null value and an
// empty cell stand for each other. It is on for every code except "UINT16",
// "UINT32", "INT16" and "INT32"; with it off an empty cell reads as 0 and
// the null value is written as the number it is.
//
// Results: 1 (or true) on success, 0 (or false, or -1 for an index) on
// failure; nothing is printed.
#pragma once

#include <cstdio>

#include "base/datatype.h"

namespace Base {

class Map;
class Vector;

// A FIXEDPOINTN value as records hold it: the value times 10^N.
template <int N>
struct FixedPoint {
    long value;
};

class Csv {
public:
    static const int HEAD_SIZE = 64;  // bytes of a column name slot

    Csv(bool quote, int size);
    ~Csv();

    void set_quote(bool on) { quote = on; }
    bool get_quote() const { return quote; }
    void enable_null(DataType type, bool on);

    // Adds a column with an empty cell; its number, or -1 when the row
    // doesn't match the header.
    int add_head(const char* name);
    int get_head_index(const char* name) const;
    int get_head(unsigned int index, char* dst) const;
    const char* get_head(unsigned int index) const;
    unsigned int get_head_size() const { return head_count; }

    int get_data(unsigned int index, char& value) const;
    int get_data(unsigned int index, signed char& value) const;
    int get_data(unsigned int index, unsigned char& value) const;
    int get_data(unsigned int index, short& value) const;
    int get_data(unsigned int index, unsigned short& value) const;
    int get_data(unsigned int index, int& value) const;
    int get_data(unsigned int index, unsigned int& value) const;
    int get_data(unsigned int index, long& value) const;
    int get_data(unsigned int index, unsigned long& value) const;
    int get_data(unsigned int index, float& value) const;
    int get_data(unsigned int index, double& value) const;
    template <int N>
    int get_data(unsigned int index, FixedPoint<N>& value) const {
        return get_fixed(index, N, value.value);
    }
    int get_data(unsigned int index, char* dst) const;
    const char* get_data(unsigned int index) const;

    int set_data(unsigned int index, char value);
    int set_data(unsigned int index, signed char value);
    int set_data(unsigned int index, unsigned char value);
    int set_data(unsigned int index, short value);
    int set_data(unsigned int index, unsigned short value);
    int set_data(unsigned int index, int value);
    int set_data(unsigned int index, unsigned int value);
    int set_data(unsigned int index, long value);
    int set_data(unsigned int index, unsigned long value);
    int set_data(unsigned int index, float value, bool image = false);
    int set_data(unsigned int index, double value, bool image = false);
    template <int N>
    int set_data(unsigned int index, FixedPoint<N> value) {
        return set_fixed(index, N, value.value);
    }
    int set_data(unsigned int index, const char* text);

    // Cuts a line into the text slots of out (a vector of fixed text slots,
    // each cut to its element size), using buffer (line_size bytes) as
    // scratch. Gives the number of cells, or -1 when a quoted line is
    // malformed.
    int split(const char* line, bool quoted, Vector* out, char* buffer);

    bool read_head(const char* line);
    bool read_head(FILE* file);
    bool read_data(const char* line);
    // Reads lines up to one that fits the header, skipping empty lines. A
    // line that doesn't fit is skipped, or with bad_line given ends the read
    // with 0 and the line in *bad_line; line_number counts such lines.
    // End of file gives 0.
    int read_data(FILE* file, unsigned long* line_number, char** bad_line);
    void write_head(FILE* file) const;
    void write_data(FILE* file) const;

private:
    Csv(const Csv&) = delete;
    Csv& operator=(const Csv&) = delete;

    char* cell(unsigned int index) const;
    int get_value(unsigned int index, DataType type, const char* format, void* value) const;
    int set_value(unsigned int index, DataType type, const void* value, bool image);
    int get_fixed(unsigned int index, int digits, long& value) const;
    int set_fixed(unsigned int index, int digits, long value);
    void reset_cells(unsigned int count);
    void write_line(FILE* file, const Vector* slots, unsigned int count, bool double_quotes) const;

    bool quote;
    Vector* heads;
    Map* head_index;
    Vector* cells;
    int line_size;
    bool null_enabled[DATA_TYPE_COUNT];
    char* line_buffer;
    char* split_buffer;
    unsigned int head_count;
    unsigned int cell_count;
};

}  // namespace Base

#include "text/csv.h"

#include <cfloat>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/file.h"
#include "containers/map.h"
#include "base/strings.h"
#include "text/textformat.h"
#include "containers/vector.h"

namespace Base {

namespace {

// Columns per block of the heads and cells vectors.
const int k_block_columns = 64;

// Writes the null value of a type (one element) into value.
void store_null(DataType type, void* value) {
    switch (type) {
    case DT_UINT8: { unsigned char v = UCHAR_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_UINT16: { unsigned short v = USHRT_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_UINT32: { unsigned int v = UINT_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_UINT64: { unsigned long v = ULONG_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_INT8: { signed char v = SCHAR_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_INT16: { short v = SHRT_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_INT32: { int v = INT_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_FLOAT32: { float v = FLT_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_FLOAT64: { double v = DBL_MAX; std::memcpy(value, &v, sizeof v); break; }
    case DT_CHAR: { char v = 0; std::memcpy(value, &v, sizeof v); break; }
    default: { long v = FIXED_POINT_NULL; std::memcpy(value, &v, sizeof v); break; }  // INT64, FIXEDPOINT
    }
}

int value_size(DataType type) { return is_fixed_point(type) ? 8 : DATA_TYPE_SIZES[type]; }

bool holds_null(DataType type, const void* value) {
    char null_value[8];
    store_null(type, null_value);
    return std::memcmp(null_value, value, value_size(type)) == 0;
}

void skip_blanks(const char* text, int& i) {
    while (text[i] == ' ' || text[i] == '\t') ++i;
}

}  // namespace

Csv::Csv(bool quote_cells, int size)
    : quote(quote_cells),
      heads(new Vector(HEAD_SIZE, k_block_columns, 1, nullptr)),
      head_index(new Map(DT_STRING, 0, HEAD_SIZE, 4)),
      cells(new Vector(size > 1 ? size : 2, k_block_columns, 1, nullptr)),
      line_size(size > 1 ? size : 2),
      line_buffer(static_cast<char*>(std::calloc(line_size, 1))),
      split_buffer(static_cast<char*>(std::calloc(line_size, 1))),
      head_count(0),
      cell_count(0) {
    for (int i = 0; i < DATA_TYPE_COUNT; ++i) null_enabled[i] = true;
    null_enabled[DT_UINT16] = false;
    null_enabled[DT_UINT32] = false;
    null_enabled[DT_INT16] = false;
    null_enabled[DT_INT32] = false;
}

Csv::~Csv() {
    delete heads;
    delete head_index;
    delete cells;
    std::free(line_buffer);
    std::free(split_buffer);
}

void Csv::enable_null(DataType type, bool on) {
    if (type >= 0 && type < DATA_TYPE_COUNT) null_enabled[type] = on;
}

// ---- heads ---------------------------------------------------------------

int Csv::add_head(const char* name) {
    if (head_count != cell_count) return -1;
    unsigned int index = head_count;
    heads->set(index, nullptr);
    str_ncpy(HEAD_SIZE - 1, static_cast<char*>(heads->get(index)), name);
    head_index->insert(heads->get(index), &index);
    head_count += 1;
    cells->set(index, nullptr);
    cell_count += 1;
    return static_cast<int>(index);
}

int Csv::get_head_index(const char* name) const {
    const void* found = head_index->search(name);
    if (!found) return -1;
    int index;
    std::memcpy(&index, found, sizeof index);
    return index;
}

int Csv::get_head(unsigned int index, char* dst) const {
    const char* name = get_head(index);
    if (!name) return 0;
    std::strcpy(dst, name);
    return 1;
}

const char* Csv::get_head(unsigned int index) const {
    if (index >= head_count) return nullptr;
    return static_cast<const char*>(heads->get(index));
}

// ---- cells ---------------------------------------------------------------

char* Csv::cell(unsigned int index) const {
    if (index >= cell_count) return nullptr;
    return static_cast<char*>(cells->get(index));
}

void Csv::reset_cells(unsigned int count) {
    cells->clear();
    for (unsigned int i = 0; i < count; ++i) cells->set(i, nullptr);
    cell_count = count;
}

int Csv::set_value(unsigned int index, DataType type, const void* value, bool image) {
    char* target = cell(index);
    if (!target) return 0;
    if (null_enabled[type] && holds_null(type, value)) {
        target[0] = 0;
        return 1;
    }
    char text[VALUE_TEXT_SIZE];
    char hex[20];
    print_value(text, type, value, image ? hex : nullptr);
    str_ncpy(line_size - 1, target, text);
    return 1;
}

// Reads a cell into a value of the type; 0 when the index is out of range
// or the cell holds no readable value, which leaves value as it was.
int Csv::get_value(unsigned int index, DataType type, const char* format, void* value) const {
    const char* text = cell(index);
    if (!text) return 0;
    int size = value_size(type);
    char result[8] = {0};
    if (text[0] == 0) {
        if (null_enabled[type]) store_null(type, result);
        std::memcpy(value, result, size);
        return 1;
    }
    if (type == DT_CHAR) {
        std::memcpy(value, text, 1);
        return 1;
    }
    const char* image = (type == DT_FLOAT32 || type == DT_FLOAT64) ? std::strchr(text, '@') : nullptr;
    if (image) {
        if (!hex_to_bytes(image + 1, result, size)) return 0;
    } else if (std::sscanf(text, format, result) != 1) {
        return 0;
    }
    std::memcpy(value, result, size);
    return 1;
}

int Csv::get_data(unsigned int index, char& value) const {
    return get_value(index, DT_CHAR, "%c", &value);
}
int Csv::get_data(unsigned int index, signed char& value) const {
    return get_value(index, DT_INT8, "%hhd", &value);
}
int Csv::get_data(unsigned int index, unsigned char& value) const {
    return get_value(index, DT_UINT8, "%hhu", &value);
}
int Csv::get_data(unsigned int index, short& value) const {
    return get_value(index, DT_INT16, "%hd", &value);
}
int Csv::get_data(unsigned int index, unsigned short& value) const {
    return get_value(index, DT_UINT16, "%hu", &value);
}
int Csv::get_data(unsigned int index, int& value) const {
    return get_value(index, DT_INT32, "%d", &value);
}
int Csv::get_data(unsigned int index, unsigned int& value) const {
    return get_value(index, DT_UINT32, "%u", &value);
}
int Csv::get_data(unsigned int index, long& value) const {
    return get_value(index, DT_INT64, "%lld", &value);
}
int Csv::get_data(unsigned int index, unsigned long& value) const {
    return get_value(index, DT_UINT64, "%llu", &value);
}
int Csv::get_data(unsigned int index, float& value) const {
    return get_value(index, DT_FLOAT32, "%f", &value);
}
int Csv::get_data(unsigned int index, double& value) const {
    return get_value(index, DT_FLOAT64, "%lf", &value);
}

int Csv::get_fixed(unsigned int index, int digits, long& value) const {
    DataType type = static_cast<DataType>(DT_FIXEDPOINT0 + digits);
    const char* text = cell(index);
    if (!text) return 0;
    if (text[0] == 0) {
        value = null_enabled[type] ? FIXED_POINT_NULL : 0;
        return 1;
    }
    double parsed = 0;
    if (std::sscanf(text, "%lf", &parsed) != 1) return 0;
    value = scale_fixed_point(parsed, digits);
    return 1;
}

int Csv::get_data(unsigned int index, char* dst) const {
    const char* text = cell(index);
    if (!text) return 0;
    std::strcpy(dst, text);
    return 1;
}

const char* Csv::get_data(unsigned int index) const { return cell(index); }

int Csv::set_data(unsigned int index, char value) { return set_value(index, DT_CHAR, &value, false); }
int Csv::set_data(unsigned int index, signed char value) { return set_value(index, DT_INT8, &value, false); }
int Csv::set_data(unsigned int index, unsigned char value) { return set_value(index, DT_UINT8, &value, false); }
int Csv::set_data(unsigned int index, short value) { return set_value(index, DT_INT16, &value, false); }
int Csv::set_data(unsigned int index, unsigned short value) { return set_value(index, DT_UINT16, &value, false); }
int Csv::set_data(unsigned int index, int value) { return set_value(index, DT_INT32, &value, false); }
int Csv::set_data(unsigned int index, unsigned int value) { return set_value(index, DT_UINT32, &value, false); }
int Csv::set_data(unsigned int index, long value) { return set_value(index, DT_INT64, &value, false); }
int Csv::set_data(unsigned int index, unsigned long value) { return set_value(index, DT_UINT64, &value, false); }
int Csv::set_data(unsigned int index, float value, bool image) {
    return set_value(index, DT_FLOAT32, &value, image);
}
int Csv::set_data(unsigned int index, double value, bool image) {
    return set_value(index, DT_FLOAT64, &value, image);
}

int Csv::set_fixed(unsigned int index, int digits, long value) {
    return set_value(index, static_cast<DataType>(DT_FIXEDPOINT0 + digits), &value, false);
}

int Csv::set_data(unsigned int index, const char* text) {
    char* target = cell(index);
    if (!target) return 0;
    str_ncpy(line_size - 1, target, text ? text : "");
    return 1;
}

// ---- lines ---------------------------------------------------------------

int Csv::split(const char* line, bool quoted, Vector* out, char* buffer) {
    int slot_size = out->get_element_size();
    if (slot_size < 2) return -1;  // not a vector of text slots
    str_ncpy(line_size - 1, buffer, line);
    out->clear();
    unsigned int count = 0;
    auto put = [&](const char* piece) {
        out->set(count, nullptr);
        str_ncpy(slot_size - 1, static_cast<char*>(out->get(count)), piece);
        ++count;
    };
    if (!quoted) {
        int position = 0;
        while (const char* piece = str_token(buffer, ",", position)) put(piece);
        return static_cast<int>(count);
    }
    int r = 0;
    skip_blanks(buffer, r);
    if (buffer[r] == 0) return 0;
    for (;;) {
        if (buffer[r] != '"') return -1;
        int start = r + 1;
        int w = start;
        r = start;
        for (;;) {
            char c = buffer[r];
            if (c == 0) return -1;  // the line ends within a cell
            if (c == '"') {
                if (buffer[r + 1] != '"') break;
                r += 1;  // a doubled quote stands for one
            }
            buffer[w++] = c;
            r += 1;
        }
        buffer[w] = 0;
        put(buffer + start);
        r += 1;
        skip_blanks(buffer, r);
        if (buffer[r] == 0) return static_cast<int>(count);
        if (buffer[r] != ',') return -1;
        r += 1;
        skip_blanks(buffer, r);
    }
}

bool Csv::read_head(const char* line) {
    quote = line[0] == '"';
    int count = split(line, quote, heads, split_buffer);
    head_index->clear();
    if (count <= 0) {
        heads->clear();
        head_count = 0;
        reset_cells(0);
        return false;
    }
    head_count = static_cast<unsigned int>(count);
    for (unsigned int i = 0; i < head_count; ++i) head_index->insert(heads->get(i), &i);
    reset_cells(head_count);
    return true;
}

bool Csv::read_head(FILE* file) {
    if (!File::read_line(file, line_buffer, line_size)) return false;
    return read_head(line_buffer);
}

bool Csv::read_data(const char* line) {
    int count = split(line, quote, cells, split_buffer);
    cell_count = count < 0 ? 0 : static_cast<unsigned int>(count);
    return count >= 0 && cell_count == head_count;
}

int Csv::read_data(FILE* file, unsigned long* line_number, char** bad_line) {
    while (File::read_line(file, line_buffer, line_size)) {
        if (line_buffer[0] == 0) continue;
        if (read_data(line_buffer)) return 1;
        if (line_number) *line_number += 1;
        if (bad_line) {
            *bad_line = line_buffer;
            return 0;
        }
    }
    return 0;
}

void Csv::write_line(FILE* file, const Vector* slots, unsigned int count, bool double_quotes) const {
    for (unsigned int i = 0; i < count; ++i) {
        if (i > 0) std::fputc(',', file);
        const char* text = static_cast<const char*>(slots->get(i));
        if (!quote) {
            std::fputs(text, file);
            continue;
        }
        std::fputc('"', file);
        if (double_quotes) {
            for (const char* p = text; *p; ++p) {
                if (*p == '"') std::fputc('"', file);
                std::fputc(*p, file);
            }
        } else {
            std::fputs(text, file);
        }
        std::fputc('"', file);
    }
    std::fputc('\n', file);
}

void Csv::write_head(FILE* file) const { write_line(file, heads, head_count, false); }

void Csv::write_data(FILE* file) const { write_line(file, cells, cell_count, true); }

}  // namespace Base

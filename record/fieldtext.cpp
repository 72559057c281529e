// The text forms of records: log lines, CSV rows and JSON objects, driven by
// the record's description alone.
#include <cstdlib>
#include <cstring>

#include "text/csv.h"
#include "record/fielddesc.h"
#include "text/json.h"
#include "containers/queue.h"
#include "base/sprint.h"
#include "base/strings.h"
#include "text/textformat.h"

namespace Base {

namespace {

bool needs_doubling(const char* text, bool quote) { return quote && std::strchr(text, '"') != nullptr; }

// The text with each '"' doubled; returns the length.
int print_doubled(char* dst, const char* text) {
    int n = 0;
    for (const char* p = text; *p; ++p) {
        if (*p == '"') {
            if (dst) dst[n] = '"';
            ++n;
        }
        if (dst) dst[n] = *p;
        ++n;
    }
    if (dst) dst[n] = 0;
    return n;
}

}  // namespace

int FieldDesc::print_member(char* dst, DataType type, const void* value, bool quote, int width, bool pad,
                            char* hex) {
    if (is_null(type, value)) {
        if (dst) dst[0] = 0;
        return 0;
    }
    if (type == DT_STRING) {
        const char* text = static_cast<const char*>(value);
        if (needs_doubling(text, quote)) return print_doubled(dst, text);
        if (pad) return SPRINT(dst, 0, "%-*s", width, text);
    }
    return print_value(dst, type, value, hex);
}

void FieldDesc::write_member(DataType type, const void* value, bool quote, FILE* file, int width, bool pad,
                             char* hex) {
    if (is_null(type, value)) return;
    if (type == DT_STRING) {
        const char* text = static_cast<const char*>(value);
        if (needs_doubling(text, quote)) {
            for (const char* p = text; *p; ++p) {
                if (*p == '"') std::fputc('"', file);
                std::fputc(*p, file);
            }
        } else if (pad) {
            std::fprintf(file, "%-*s", width, text);
        } else {
            std::fputs(text, file);
        }
        return;
    }
    char text[VALUE_TEXT_SIZE];
    int n = print_value(text, type, value, hex);
    std::fwrite(text, 1, n, file);
}

int FieldDesc::print_field(char* dst, const void* record, bool quote, bool pad, bool names, char* hex) const {
    int n = 0;
    if (dst) dst[0] = 0;
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& member = members[i];
        if (names) {
            n += SPRINT(dst, n, i == 0 ? "%s=" : " %s=", member.name);
        } else if (i > 0) {
            n += SPRINT(dst, n, ",");
        }
        if (quote) n += SPRINT(dst, n, "\"");
        n += print_member(dst ? dst + n : nullptr, member.type, get_member(record, i), quote,
                          member.total_size - 1, pad, hex);
        if (quote) n += SPRINT(dst, n, "\"");
    }
    return n;
}

void FieldDesc::write_field(const void* record, bool quote, FILE* file, bool pad, bool names, char* hex) const {
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& member = members[i];
        if (names) {
            std::fprintf(file, i == 0 ? "%s=" : " %s=", member.name);
        } else if (i > 0) {
            std::fputc(',', file);
        }
        if (quote) std::fputc('"', file);
        write_member(member.type, get_member(record, i), quote, file, member.total_size - 1, pad, hex);
        if (quote) std::fputc('"', file);
    }
}

void FieldDesc::write_head(bool quote, FILE* file) const {
    for (int i = 0; i < member_count; ++i) {
        if (i > 0) std::fputc(',', file);
        std::fprintf(file, quote ? "\"%s\"" : "%s", members[i].name);
    }
}

namespace {

template <typename T>
T load(const void* value) {
    T result;
    std::memcpy(&result, value, sizeof result);
    return result;
}

template <int N>
void fixed_to_csv(Csv* csv, unsigned int column, const void* value) {
    csv->set_data(column, FixedPoint<N>{load<long>(value)});
}

// Reads a column into a value of type T that starts as the member's value,
// and stores it only when the cell could be read.
template <typename T>
void cell_to_member(const Csv* csv, unsigned int column, void* member) {
    T value = load<T>(member);
    if (csv->get_data(column, value)) std::memcpy(member, &value, sizeof value);
}

}  // namespace

void FieldDesc::to_csv(Csv* csv, const void* record, bool hex) const {
    for (int i = 0; i < member_count; ++i) {
        const void* value = get_member(record, i);
        unsigned int column = static_cast<unsigned int>(i);
        switch (members[i].type) {
        case DT_UINT8: csv->set_data(column, load<unsigned char>(value)); break;
        case DT_UINT16: csv->set_data(column, load<unsigned short>(value)); break;
        case DT_UINT32: csv->set_data(column, load<unsigned int>(value)); break;
        case DT_UINT64: csv->set_data(column, load<unsigned long>(value)); break;
        case DT_INT8: csv->set_data(column, load<signed char>(value)); break;
        case DT_INT16: csv->set_data(column, load<short>(value)); break;
        case DT_INT32: case DT_BOOL: case DT_VINT32: csv->set_data(column, load<int>(value)); break;
        case DT_INT64: case DT_VINT64: csv->set_data(column, load<long>(value)); break;
        case DT_FLOAT32: csv->set_data(column, load<float>(value), hex); break;
        case DT_FLOAT64: csv->set_data(column, load<double>(value), hex); break;
        case DT_CHAR: csv->set_data(column, load<char>(value)); break;
        case DT_STRING: csv->set_data(column, static_cast<const char*>(value)); break;
        case DT_FIXEDPOINT0: fixed_to_csv<0>(csv, column, value); break;
        case DT_FIXEDPOINT1: fixed_to_csv<1>(csv, column, value); break;
        case DT_FIXEDPOINT2: fixed_to_csv<2>(csv, column, value); break;
        case DT_FIXEDPOINT3: fixed_to_csv<3>(csv, column, value); break;
        case DT_FIXEDPOINT4: fixed_to_csv<4>(csv, column, value); break;
        case DT_FIXEDPOINT5: fixed_to_csv<5>(csv, column, value); break;
        case DT_FIXEDPOINT6: fixed_to_csv<6>(csv, column, value); break;
        case DT_FIXEDPOINT7: fixed_to_csv<7>(csv, column, value); break;
        case DT_FIXEDPOINT8: fixed_to_csv<8>(csv, column, value); break;
        default: break;
        }
    }
}

void FieldDesc::from_csv(Csv* csv, void* record, char* buffer) const {
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& member = members[i];
        int found = csv->get_head_index(member.name);
        if (found < 0) continue;
        unsigned int column = static_cast<unsigned int>(found);
        void* value = get_member(record, i);
        switch (member.type) {
        case DT_UINT8: cell_to_member<unsigned char>(csv, column, value); break;
        case DT_UINT16: cell_to_member<unsigned short>(csv, column, value); break;
        case DT_UINT32: cell_to_member<unsigned int>(csv, column, value); break;
        case DT_UINT64: cell_to_member<unsigned long>(csv, column, value); break;
        case DT_INT8: cell_to_member<signed char>(csv, column, value); break;
        case DT_INT16: cell_to_member<short>(csv, column, value); break;
        case DT_INT32: case DT_BOOL: case DT_VINT32: cell_to_member<int>(csv, column, value); break;
        case DT_INT64: case DT_VINT64: cell_to_member<long>(csv, column, value); break;
        case DT_FLOAT32: cell_to_member<float>(csv, column, value); break;
        case DT_FLOAT64: cell_to_member<double>(csv, column, value); break;
        case DT_FIXEDPOINT0: cell_to_member<FixedPoint<0>>(csv, column, value); break;
        case DT_FIXEDPOINT1: cell_to_member<FixedPoint<1>>(csv, column, value); break;
        case DT_FIXEDPOINT2: cell_to_member<FixedPoint<2>>(csv, column, value); break;
        case DT_FIXEDPOINT3: cell_to_member<FixedPoint<3>>(csv, column, value); break;
        case DT_FIXEDPOINT4: cell_to_member<FixedPoint<4>>(csv, column, value); break;
        case DT_FIXEDPOINT5: cell_to_member<FixedPoint<5>>(csv, column, value); break;
        case DT_FIXEDPOINT6: cell_to_member<FixedPoint<6>>(csv, column, value); break;
        case DT_FIXEDPOINT7: cell_to_member<FixedPoint<7>>(csv, column, value); break;
        case DT_FIXEDPOINT8: cell_to_member<FixedPoint<8>>(csv, column, value); break;
        case DT_CHAR:
            if (csv->get_data(column, buffer)) std::memcpy(value, buffer, 1);
            break;
        case DT_STRING:
            if (csv->get_data(column, buffer)) str_ncpy(member.total_size - 1, static_cast<char*>(value), buffer);
            break;
        default:
            break;
        }
    }
}

void FieldDesc::to_json(FILE* file, const void* record, char* buffer, char* escaped, bool hex) const {
    std::fputc('{', file);
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& member = members[i];
        if (i > 0) std::fputc(',', file);
        std::fprintf(file, "\"%s\":\"", member.name);
        int n = print_member(buffer, member.type, get_member(record, i), false, 0, false, hex ? escaped : nullptr);
        if (Json::escape_to(nullptr, buffer) > n) {
            n = Json::escape_to(escaped, buffer);
            std::fwrite(escaped, 1, n, file);
        } else {
            std::fwrite(buffer, 1, n, file);
        }
        std::fputc('"', file);
    }
    std::fputc('}', file);
}

void FieldDesc::to_json(Json::Object* object, const void* record, char* hex) const {
    for (int i = 0; i < member_count; ++i) {
        const MemberDesc& member = members[i];
        const void* value = get_member(record, i);
        int n = print_member(nullptr, member.type, value, false, 0, false, hex);
        char* text = static_cast<char*>(std::malloc(n + 1));
        print_member(text, member.type, value, false, 0, false, hex);
        object->add_property(new Json::Property(member.name, text));
        std::free(text);
    }
}

void FieldDesc::from_json(const Json::Object* object, void* record) const {
    for (Queue::Iterator it(object->get_properties()); !it.is_end();) {
        const Json::Property* property = static_cast<const Json::Property*>(it.next());
        const Json::Value* value = property->get_value();
        if (value->type != Json::VALUE_STRING) continue;
        int index = get_member_index(property->get_name());
        if (index < 0) continue;
        const MemberDesc& member = members[index];
        void* target = get_member(record, index);
        if (!value->string) {
            set_null(member.type, target);
        } else {
            fill_member(member.type, target, value->string, member.total_size);
        }
    }
}

}  // namespace Base

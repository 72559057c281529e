// Base::FieldDesc: the run-time description of one fixed-layout record. It
// says member by member what the record holds (type code, size, place in the
// structure and in the packed stream, names, key flag) and drives everything
// generic: coders, printers, logs, catalogues. Descriptions are built once,
// before threads start, and are read-only afterwards, so any thread may use
// them. Null is a value inside each member's own range (see set_null).
#pragma once

#include <cstdio>

#include "base/datatype.h"
#include "text/json.h"
#include "containers/map.h"

namespace Base {

class Csv;

class FieldDesc {
public:
    struct MemberDesc {
        DataType type;
        int total_size;     // bytes in the record and in the stream form
        int element_size;
        int count;
        int offset;         // place in the structure, padding included
        int stream_offset;  // place in the packed stream form
        char type_name[64];
        char name[128];
        bool key;
    };

    static const int MAX_MEMBERS = 512;

    // An empty description for building at run time or loading.
    FieldDesc(unsigned short id, const char* name);
    // The registering constructor of a generated record: describe() fills it in
    // through setup_member. It runs on zero-initialised static storage.
    FieldDesc(unsigned short id, int struct_size, const char* name, void (*describe)());
    ~FieldDesc();

    void setup_member(DataType type, int total_size, int element_size, int count, int offset,
                      const char* type_name, const char* name, bool key);
    // Appends a single-element member at the running end; returns its offset.
    int add_member(DataType type, int size, const char* type_name, const char* name, bool key);
    int add_member(const MemberDesc* member);
    void clear();
    void copy(const FieldDesc* other);
    static bool is_same(const FieldDesc* a, const FieldDesc* b);

    const MemberDesc* get_member_desc(int index) const { return &members[index]; }
    int get_member_index(const char* name) const;
    void* get_member(const void* record, int index) const {
        return const_cast<char*>(static_cast<const char*>(record)) + members[index].offset;
    }

    void* alloc_field() const;
    static void free_field(void* record);
    void copy_field(void* dst, const void* src) const;
    void set_field(int index, void* record, const void* value) const;
    void set_null(void* record) const;
    bool is_null(void* record) const;

    int compare_key(const void* a, const void* b, bool ascending) const;
    bool equal_key(const void* a, const void* b) const;
    unsigned int hash_key(const void* record) const;
    bool equal_field(const void* a, const void* b) const;
    bool equal_field(const void* a, const void* b, int first, int last) const;
    // Container callbacks; compare_key is ascending.
    static int compare_key(void* desc, const void* a, const void* b);
    static bool equal_key(void* desc, const void* a, const void* b);
    static unsigned int hash_key(void* desc, const void* record);

    static void set_member(DataType type, void* dst, const void* src, int size);
    static void fill_member(DataType type, void* dst, const char* text, int size);
    static void set_null(DataType type, const void* dst);
    static bool is_null(DataType type, const void* value);
    static int compare_member(DataType type, const void* a, const void* b, bool ascending);
    static bool equal_member(DataType type, const void* a, const void* b);
    static unsigned int hash_member(DataType type, const void* value, unsigned int seed);

    // Host order to big-endian and back, FIXEDPOINT members swapped as the
    // scaled integers they are; a short len zeroes what isn't covered.
    void to_stream(const void* src, void* dst, int len) const;
    int from_stream(void* dst, const void* src, int len) const;
    // Record var form: strings as a VInt length and their bytes, the rest raw.
    int to_var_stream(const void* record, void* dst, int len) const;
    int from_var_stream(void* record, const void* src, int len) const;
    // The description itself in var form (the catalogue dump's blob).
    int to_var_stream(void* dst, int len) const;
    int from_var_stream(const void* src, int len);

    // Text forms (record/fieldtext.cpp). A null value prints as nothing; with
    // quote a '"' in a string is doubled; hex, when given, is scratch for the
    // bit image of a float ("@" and its bytes), which reads back exactly.
    // dst null only counts; dst must be large enough otherwise.
    static int print_member(char* dst, DataType type, const void* value, bool quote, int width, bool pad,
                            char* hex);
    static void write_member(DataType type, const void* value, bool quote, FILE* file, int width, bool pad,
                             char* hex);
    // names: Name="value" Other="" (the log form); without names a CSV row.
    int print_field(char* dst, const void* record, bool quote, bool pad, bool names, char* hex) const;
    void write_field(const void* record, bool quote, FILE* file, bool pad, bool names, char* hex) const;
    void write_head(bool quote, FILE* file) const;
    void to_csv(Csv* csv, const void* record, bool hex) const;
    // Members without a column of their name stay as they were.
    void from_csv(Csv* csv, void* record, char* buffer) const;
    void to_json(FILE* file, const void* record, char* buffer, char* escaped, bool hex) const;
    void to_json(Json::Object* object, const void* record, char* hex) const;
    // Members without a string property of their name stay as they were.
    void from_json(const Json::Object* object, void* record) const;

    int member_count;
    MemberDesc members[MAX_MEMBERS];
    unsigned short id;
    char name[64];
    unsigned short struct_size;
    unsigned short stream_size;
    Map member_index;

private:
    FieldDesc(const FieldDesc&) = delete;
    FieldDesc& operator=(const FieldDesc&) = delete;
};

}  // namespace Base

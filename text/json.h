// Base::Json: the system's own JSON reader and writer. A number is kept as a
// signed 64-bit integer of its digits and a count of decimals, like the
// fixed-point members of records, so that "1.50" comes back as "1.50" and no
// number ever passes through a binary float on its way from text to text.
//
// The root must be an object. Strings are held unescaped; "\uXXXX" gives its
// two bytes (one when the first is 0), with no UTF-8 conversion. Trailing
// commas are accepted; exponents are not. A number's digits are weighted by a
// 32-bit power of ten, so more than ten digits wrap without notice. A parse
// failure gives false or null, frees what was built and prints nothing.
// Nesting is limited to MAX_DEPTH objects and arrays, so that hostile text
// can't exhaust the stack.
//
// Output is indented with tabs; a container value starts on its own line.
// Objects, properties and values own what they hold.
#pragma once

#include <cstdio>

namespace Base {

class Vector;
class Queue;
struct JsonParser;

class Json {
public:
    // The value codes; a number with N decimals has the code VALUE_NUMBER + N.
    enum ValueType : int {
        VALUE_NULL = 0,
        VALUE_BOOL = 1,
        VALUE_STRING = 2,
        VALUE_ARRAY = 3,   // a Vector of Value
        VALUE_OBJECT = 4,
        VALUE_NUMBER = 5,
    };

    static const int MAX_DEPTH = 512;
    static const int MAX_DECIMALS = 9;

    class Object;

    struct Value {
        ValueType type;
        union {
            bool boolean;
            char* string;
            Vector* array;
            Object* object;
            long number;
        };
    };

    class Property {
    public:
        Property();
        // A string property; copies the name and the text (a null text gives
        // an empty string).
        Property(const char* name, const char* text);
        ~Property();
        const char* get_name() const { return name; }
        const Value* get_value() const { return &value; }
        bool is_hidden() const { return hidden; }
        void set_hidden(bool on) { hidden = on; }
        bool parse(const char* text, int length, int& position);
        int output(char* dst, int indent) const;
        void output(FILE* file, int indent) const;

    private:
        friend class Json;
        friend struct JsonParser;
        Property(const Property&) = delete;
        Property& operator=(const Property&) = delete;
        char* name;
        Value value;
        bool hidden;
    };

    class Object {
    public:
        Object();
        ~Object();
        // The first visible property of that name, or null.
        const Property* get_property(const char* name) const;
        // Appends a property, which the object then owns.
        void add_property(Property* property);
        // The properties in text order; the queue holds Property pointers.
        const Queue* get_properties() const { return properties; }
        // Parses an object that starts at text[position] (after blanks).
        bool parse(const char* text, int length, int& position);
        int output(char* dst, int indent) const;
        void output(FILE* file, int indent) const;

    private:
        friend class Json;
        Object(const Object&) = delete;
        Object& operator=(const Object&) = delete;
        Queue* properties;
    };

    Json();
    ~Json();

    // Replaces the root by the object in text; false on any fault.
    bool parse(const char* text, int length);
    // Parses the blank-separated files in turn and appends their properties
    // to one root. A missing file is skipped unless must_exist; a file that
    // can't be opened or parsed leaves no root and gives false.
    bool parse(const char* file_names, bool must_exist);
    static Object* parse_file(const char* path);
    static Object* parse_file(FILE* file);
    const Object* get_root() const { return root; }

    // Both give the length written; dst may be null to count only.
    int output(FILE* file, int indent) const;
    int output(char* dst, int indent) const;

    static long get_number(const Value* value, int& decimals);
    static double get_float(const Value* value);

    // Writes the escaped form of src (terminated) and returns its length;
    // a null dst only counts.
    static int escape_to(char* dst, const char* src);
    // Unescapes in place; false at an unknown or cut-off escape.
    static bool escape_from(char* text);

    static const char m_space_char[5];
    static bool is_space_char(char c);
    // The index of c in text[position, length), or -1. With skip_escaped a
    // character behind a backslash is passed over.
    static int find_char(const char* text, int length, int position, char c, bool skip_escaped);
    // The index of the first blank in text[position, length), or -1.
    static int find_space_char(const char* text, int length, int position);
    // Moves position over blanks; false when the text ends there and more
    // text is required.
    static bool skip_space_char(const char* text, int length, int& position, bool required);
    // Frees what a value owns and makes it null.
    static void free_value(Value* value);

private:
    Json(const Json&) = delete;
    Json& operator=(const Json&) = delete;
    Object* root;
};

}  // namespace Base

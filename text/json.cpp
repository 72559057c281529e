#include "text/json.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/datatype.h"
#include "base/file.h"
#include "containers/queue.h"
#include "base/strings.h"
#include "containers/vector.h"

namespace Base {

const char Json::m_space_char[5] = {' ', '\t', '\r', '\n', 0};

namespace {

// Elements per block of an array's vector.
const int k_array_block = 16;

char* copy_text(const char* text, int length) {
    char* copy = static_cast<char*>(std::malloc(length + 1));
    std::memcpy(copy, text, length);
    copy[length] = 0;
    return copy;
}

// Where output goes: a stream, a buffer, or nowhere (only counting).
struct Out {
    FILE* file;
    char* dst;
    int length;

    void write(const char* text, int n) {
        if (file) {
            std::fwrite(text, 1, n, file);
        } else if (dst) {
            std::memcpy(dst + length, text, n);
        }
        length += n;
    }
    void write(const char* text) { write(text, static_cast<int>(std::strlen(text))); }
    void tabs(int indent) {
        for (int i = 0; i < indent; ++i) write("\t", 1);
    }
    int finish() {
        if (!file && dst) dst[length] = 0;
        return length;
    }
};

// A text between quotes, escaped when escaping changes it.
void write_string(Out& out, const char* text) {
    int plain = static_cast<int>(std::strlen(text));
    int escaped = Json::escape_to(nullptr, text);
    out.write("\"", 1);
    if (escaped > plain) {
        char* buffer = static_cast<char*>(std::malloc(escaped + 1));
        Json::escape_to(buffer, text);
        out.write(buffer, escaped);
        std::free(buffer);
    } else {
        out.write(text, plain);
    }
    out.write("\"", 1);
}

// The decimal text of a scaled integer, by integer arithmetic alone: the
// same digits as printing value * 10^-decimals with that many decimals.
void write_number(Out& out, long number, int decimals) {
    if (decimals > 18) decimals = 18;
    unsigned long magnitude = number < 0 ? 0UL - static_cast<unsigned long>(number)
                                         : static_cast<unsigned long>(number);
    const char* sign = number < 0 ? "-" : "";
    char text[64];
    int n;
    if (decimals == 0) {
        n = std::snprintf(text, sizeof text, "%s%lu", sign, magnitude);
    } else {
        unsigned long power = 1;
        for (int i = 0; i < decimals; ++i) power *= 10;
        n = std::snprintf(text, sizeof text, "%s%lu.%0*lu", sign, magnitude / power, decimals,
                          magnitude % power);
    }
    out.write(text, n);
}

bool is_container(const Json::Value* value) {
    return value->type == Json::VALUE_ARRAY || value->type == Json::VALUE_OBJECT;
}

void write_object(Out& out, const Json::Object* object, int indent);
void write_array(Out& out, const Vector* array, int indent);

// A value that has been placed at its indent already, unless it is a
// container, which writes its own first line.
void write_value(Out& out, const Json::Value* value, int indent) {
    switch (value->type) {
    case Json::VALUE_NULL:
        out.write("null");
        break;
    case Json::VALUE_BOOL:
        out.write(value->boolean ? "true" : "false");
        break;
    case Json::VALUE_STRING:
        write_string(out, value->string);
        break;
    case Json::VALUE_ARRAY:
        write_array(out, value->array, indent);
        break;
    case Json::VALUE_OBJECT:
        write_object(out, value->object, indent);
        break;
    default:
        write_number(out, value->number, value->type - Json::VALUE_NUMBER);
        break;
    }
}

void write_array(Out& out, const Vector* array, int indent) {
    out.tabs(indent);
    out.write("[\n");
    const void* next = array->get(0);
    for (unsigned int i = 0; next; ++i) {
        const Json::Value* value = static_cast<const Json::Value*>(next);
        if (!is_container(value)) out.tabs(indent + 1);
        write_value(out, value, indent + 1);
        next = array->get(i + 1);
        if (next) out.write(",", 1);
        out.write("\n", 1);
    }
    out.tabs(indent);
    out.write("]", 1);
}

void write_property(Out& out, const Json::Property* property, int indent) {
    out.tabs(indent);
    write_string(out, property->get_name());
    out.write(":", 1);
    const Json::Value* value = property->get_value();
    if (is_container(value)) out.write("\n", 1);
    write_value(out, value, indent);
}

void write_object(Out& out, const Json::Object* object, int indent) {
    out.tabs(indent);
    out.write("{\n");
    int visible = 0;
    for (Queue::Iterator it(object->get_properties()); !it.is_end();) {
        if (!static_cast<const Json::Property*>(it.next())->is_hidden()) ++visible;
    }
    for (Queue::Iterator it(object->get_properties()); !it.is_end();) {
        const Json::Property* property = static_cast<const Json::Property*>(it.next());
        if (property->is_hidden()) continue;
        write_property(out, property, indent + 1);
        if (--visible > 0) out.write(",", 1);
        out.write("\n", 1);
    }
    out.tabs(indent);
    out.write("}", 1);
}

}  // namespace

// ---- parsing -------------------------------------------------------------

struct JsonParser {
    const char* text;
    int length;

    bool parse_object(int& position, Json::Object* object, int depth);
    bool parse_property(int& position, Json::Property* property, int depth);
    bool parse_value(int& position, Json::Value* value, int depth);
    bool parse_array(int& position, Json::Value* value, int depth);
    bool parse_string(int& position, char** out);
    bool parse_number(int& position, Json::Value* value);
    bool parse_word(int& position, const char* word);
};

bool JsonParser::parse_word(int& position, const char* word) {
    int n = static_cast<int>(std::strlen(word));
    if (length - position < n || std::memcmp(text + position, word, n) != 0) return false;
    position += n;
    return true;
}

// Checks the escapes up to the closing quote, then copies and unescapes.
bool JsonParser::parse_string(int& position, char** out) {
    if (position >= length || text[position] != '"') return false;
    int start = position + 1;
    int i = start;
    for (;;) {
        if (i >= length) return false;
        char c = text[i];
        if (c == '"') break;
        if (c != '\\') {
            ++i;
            continue;
        }
        if (i + 1 >= length) return false;
        switch (text[i + 1]) {
        case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
            i += 2;
            break;
        case 'u':
            if (i + 5 >= length) return false;
            i += 6;
            break;
        default:
            return false;
        }
    }
    // The copy ends at an embedded zero, as a C text does.
    int n = static_cast<int>(strnlen(text + start, i - start));
    char* copy = copy_text(text + start, n);
    Json::escape_from(copy);  // the escapes were checked above
    *out = copy;
    position = i + 1;
    return true;
}

// An optional '-', a digit, then digits and at most one '.'. The digits are
// summed from the right with a 32-bit weight, as the format has always done.
bool JsonParser::parse_number(int& position, Json::Value* value) {
    int i = position;
    bool negative = false;
    if (i < length && text[i] == '-') {
        negative = true;
        ++i;
    }
    if (i >= length || text[i] < '0' || text[i] > '9') return false;
    int first = i;
    int point = -1;
    for (; i < length; ++i) {
        char c = text[i];
        if (c == '.') {
            if (point >= 0) return false;
            point = i;
        } else if (c < '0' || c > '9') {
            break;
        }
    }
    int decimals = point < 0 ? 0 : i - point - 1;
    if (decimals > Json::MAX_DECIMALS) return false;
    unsigned long sum = 0;
    unsigned int weight = 1;
    for (int k = i - 1; k >= first; --k) {
        if (k == point) continue;
        sum += static_cast<unsigned long>(text[k] - '0') * weight;
        weight *= 10;  // wraps at 32 bits beyond ten digits
    }
    if (negative) sum = 0UL - sum;
    value->type = static_cast<Json::ValueType>(Json::VALUE_NUMBER + decimals);
    value->number = static_cast<long>(sum);
    position = i;
    return true;
}

bool JsonParser::parse_array(int& position, Json::Value* value, int depth) {
    ++position;  // '['
    Vector* array = new Vector(sizeof(Json::Value), k_array_block, 1, nullptr);
    value->type = Json::VALUE_ARRAY;
    value->array = array;
    unsigned int count = 0;
    if (!Json::skip_space_char(text, length, position, true)) return false;
    if (text[position] == ']') {
        ++position;
        return true;
    }
    for (;;) {
        Json::Value element;
        if (!parse_value(position, &element, depth)) {
            Json::free_value(&element);
            return false;
        }
        array->set(count++, &element);
        if (!Json::skip_space_char(text, length, position, true)) return false;
        char c = text[position++];
        if (c == ']') return true;
        if (c != ',') return false;
        if (!Json::skip_space_char(text, length, position, true)) return false;
        if (text[position] == ']') {
            ++position;
            return true;
        }
    }
}

// On failure the value is left null or holding what was built, which the
// caller frees with free_value.
bool JsonParser::parse_value(int& position, Json::Value* value, int depth) {
    value->type = Json::VALUE_NULL;
    value->number = 0;
    if (!Json::skip_space_char(text, length, position, true)) return false;
    switch (text[position]) {
    case '[':
        if (depth >= Json::MAX_DEPTH) return false;
        return parse_array(position, value, depth + 1);
    case '{':
        if (depth >= Json::MAX_DEPTH) return false;
        value->type = Json::VALUE_OBJECT;
        value->object = new Json::Object();
        return parse_object(position, value->object, depth + 1);
    case '"':
        if (!parse_string(position, &value->string)) return false;
        value->type = Json::VALUE_STRING;
        return true;
    default:
        break;
    }
    if (parse_word(position, "null")) return true;
    if (parse_word(position, "true")) {
        value->type = Json::VALUE_BOOL;
        value->boolean = true;
        return true;
    }
    if (parse_word(position, "false")) {
        value->type = Json::VALUE_BOOL;
        value->boolean = false;
        return true;
    }
    return parse_number(position, value);
}

bool JsonParser::parse_property(int& position, Json::Property* property, int depth) {
    if (!parse_string(position, &property->name)) return false;
    if (!Json::skip_space_char(text, length, position, true)) return false;
    if (text[position] != ':') return false;
    ++position;
    if (!parse_value(position, &property->value, depth)) {
        Json::free_value(&property->value);
        return false;
    }
    return true;
}

bool JsonParser::parse_object(int& position, Json::Object* object, int depth) {
    if (!Json::skip_space_char(text, length, position, true)) return false;
    if (text[position] != '{') return false;
    ++position;
    if (!Json::skip_space_char(text, length, position, true)) return false;
    if (text[position] == '}') {
        ++position;
        return true;
    }
    for (;;) {
        Json::Property* property = new Json::Property();
        if (!parse_property(position, property, depth)) {
            delete property;
            return false;
        }
        object->add_property(property);
        if (!Json::skip_space_char(text, length, position, true)) return false;
        char c = text[position++];
        if (c == '}') return true;
        if (c != ',') return false;
        if (!Json::skip_space_char(text, length, position, true)) return false;
        if (text[position] == '}') {
            ++position;
            return true;
        }
    }
}

// ---- Property and Object -------------------------------------------------

Json::Property::Property() : name(nullptr), hidden(false) {
    value.type = VALUE_NULL;
    value.number = 0;
}

Json::Property::Property(const char* property_name, const char* text) : hidden(false) {
    name = copy_text(property_name, static_cast<int>(std::strlen(property_name)));
    if (!text) text = "";
    value.type = VALUE_STRING;
    value.string = copy_text(text, static_cast<int>(std::strlen(text)));
}

Json::Property::~Property() {
    std::free(name);
    free_value(&value);
}

bool Json::Property::parse(const char* text, int length, int& position) {
    JsonParser parser{text, length};
    std::free(name);
    name = nullptr;
    free_value(&value);
    return parser.parse_property(position, this, 0);
}

int Json::Property::output(char* dst, int indent) const {
    Out out{nullptr, dst, 0};
    write_property(out, this, indent);
    return out.finish();
}

void Json::Property::output(FILE* file, int indent) const {
    Out out{file, nullptr, 0};
    write_property(out, this, indent);
}

Json::Object::Object() : properties(new Queue(false, 0)) {}

Json::Object::~Object() {
    while (void* property = properties->pop()) delete static_cast<Property*>(property);
    delete properties;
}

const Json::Property* Json::Object::get_property(const char* name) const {
    for (Queue::Iterator it(properties); !it.is_end();) {
        const Property* property = static_cast<const Property*>(it.next());
        if (!property->hidden && property->name && std::strcmp(property->name, name) == 0) return property;
    }
    return nullptr;
}

void Json::Object::add_property(Property* property) { properties->push(property); }

bool Json::Object::parse(const char* text, int length, int& position) {
    JsonParser parser{text, length};
    return parser.parse_object(position, this, 0);
}

int Json::Object::output(char* dst, int indent) const {
    Out out{nullptr, dst, 0};
    write_object(out, this, indent);
    return out.finish();
}

void Json::Object::output(FILE* file, int indent) const {
    Out out{file, nullptr, 0};
    write_object(out, this, indent);
}

// ---- Json ----------------------------------------------------------------

Json::Json() : root(nullptr) {}

Json::~Json() { delete root; }

bool Json::parse(const char* text, int length) {
    delete root;
    root = new Object();
    int position = 0;
    if (text && length > 0 && root->parse(text, length, position)) return true;
    delete root;
    root = nullptr;
    return false;
}

Json::Object* Json::parse_file(FILE* file) {
    long length = 0;
    if (!File::get_length(file, length) || length < 0) return nullptr;
    char* buffer = static_cast<char*>(std::malloc(length + 1));
    long got = static_cast<long>(std::fread(buffer, 1, length, file));
    buffer[got] = 0;
    Object* object = new Object();
    int position = 0;
    if (!object->parse(buffer, static_cast<int>(got), position)) {
        delete object;
        object = nullptr;
    }
    std::free(buffer);
    return object;
}

Json::Object* Json::parse_file(const char* path) {
    FILE* file = std::fopen(path, "rb");
    if (!file) return nullptr;
    Object* object = parse_file(file);
    std::fclose(file);
    return object;
}

bool Json::parse(const char* file_names, bool must_exist) {
    delete root;
    root = new Object();
    if (!file_names) return true;
    int total = static_cast<int>(std::strlen(file_names));
    char* name = static_cast<char*>(std::malloc(total + 1));
    bool ok = true;
    int i = 0;
    while (ok) {
        skip_space_char(file_names, total, i, false);
        if (i >= total) break;
        // A piece runs to a blank outside a pair of quotes; the quotes stay.
        int start = i;
        char quote = 0;
        for (; i < total; ++i) {
            char c = file_names[i];
            if (quote) {
                if (c == quote) quote = 0;
            } else if (c == '\'' || c == '"') {
                quote = c;
            } else if (is_space_char(c)) {
                break;
            }
        }
        std::memcpy(name, file_names + start, i - start);
        name[i - start] = 0;
        if (!must_exist && access(name, F_OK) != 0) continue;
        Object* object = parse_file(name);
        if (!object) {
            ok = false;
            break;
        }
        while (void* property = object->properties->pop()) root->properties->push(property);
        delete object;
    }
    std::free(name);
    if (ok) return true;
    delete root;
    root = nullptr;
    return false;
}

int Json::output(FILE* file, int indent) const {
    if (!root) return 0;
    Out out{file, nullptr, 0};
    write_object(out, root, indent);
    out.write("\n", 1);
    return out.length;
}

int Json::output(char* dst, int indent) const {
    Out out{nullptr, dst, 0};
    if (root) {
        write_object(out, root, indent);
        out.write("\n", 1);
    }
    return out.finish();
}

long Json::get_number(const Value* value, int& decimals) {
    decimals = value->type - VALUE_NUMBER;
    return value->number;
}

double Json::get_float(const Value* value) {
    int decimals = value->type - VALUE_NUMBER;
    double result = static_cast<double>(value->number);
    if (decimals <= MAX_DECIMALS) return result * FIXED_POINT_INVERSE[decimals];
    for (int i = 0; i < decimals; ++i) result /= 10;
    return result;
}

int Json::escape_to(char* dst, const char* src) {
    int n = 0;
    for (const char* p = src; *p; ++p) {
        char code = 0;
        switch (*p) {
        case '\b': code = 'b'; break;
        case '\t': code = 't'; break;
        case '\n': code = 'n'; break;
        case '\f': code = 'f'; break;
        case '\r': code = 'r'; break;
        case '"': case '\\': case '/': code = *p; break;
        default: break;
        }
        if (code) {
            if (dst) {
                dst[n] = '\\';
                dst[n + 1] = code;
            }
            n += 2;
        } else {
            if (dst) dst[n] = *p;
            n += 1;
        }
    }
    if (dst) dst[n] = 0;
    return n;
}

bool Json::escape_from(char* text) {
    char* w = text;
    const char* r = text;
    bool ok = true;
    while (*r) {
        if (*r != '\\') {
            *w++ = *r++;
            continue;
        }
        char code = r[1];
        char plain = 0;
        switch (code) {
        case '"': case '\\': case '/': plain = code; break;
        case 'b': plain = '\b'; break;
        case 'f': plain = '\f'; break;
        case 'n': plain = '\n'; break;
        case 'r': plain = '\r'; break;
        case 't': plain = '\t'; break;
        case 'u': {
            if (!r[2] || !r[3] || !r[4] || !r[5]) {
                ok = false;
                break;
            }
            char bytes[2] = {0, 0};
            if (!hex_to_bytes(r + 2, bytes, 2)) ok = false;
            if (bytes[0] != 0) *w++ = bytes[0];
            *w++ = bytes[1];
            r += 6;
            continue;
        }
        default:
            ok = false;
            break;
        }
        if (!ok) break;
        *w++ = plain;
        r += 2;
    }
    *w = 0;
    return ok;
}

bool Json::is_space_char(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int Json::find_char(const char* text, int length, int position, char c, bool skip_escaped) {
    for (int i = position; i < length; ++i) {
        if (skip_escaped && text[i] == '\\') {
            ++i;
            continue;
        }
        if (text[i] == c) return i;
    }
    return -1;
}

int Json::find_space_char(const char* text, int length, int position) {
    for (int i = position; i < length; ++i) {
        if (is_space_char(text[i])) return i;
    }
    return -1;
}

bool Json::skip_space_char(const char* text, int length, int& position, bool required) {
    while (position < length && is_space_char(text[position])) ++position;
    return !required || position < length;
}

void Json::free_value(Value* value) {
    switch (value->type) {
    case VALUE_STRING:
        std::free(value->string);
        break;
    case VALUE_ARRAY: {
        for (unsigned int i = 0;; ++i) {
            Value* element = static_cast<Value*>(value->array->get(i));
            if (!element) break;
            free_value(element);
        }
        delete value->array;
        break;
    }
    case VALUE_OBJECT:
        delete value->object;
        break;
    default:
        break;
    }
    value->type = VALUE_NULL;
    value->number = 0;
}

}  // namespace Base

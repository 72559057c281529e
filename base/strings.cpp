#include "base/strings.h"

#include <cctype>
#include <cstdarg>
#include <cstring>

namespace Base {

const char* const NULL_STRING = "";

void str_ncpy(unsigned long n, char* dst, const char* src) {
    unsigned long i = 0;
    for (; i < n && src[i] != '\0'; ++i) dst[i] = src[i];
    std::memset(dst + i, 0, n + 1 - i);
}

char* str_print(unsigned long n, char* dst, const char* format, ...) {
    if (n == 0) return dst;
    va_list args;
    va_start(args, format);
    std::vsnprintf(dst, n, format, args);
    va_end(args);
    dst[n - 1] = '\0';
    return dst;
}

namespace {

const char LOWER_DIGITS[] = "0123456789abcdef";
const char UPPER_DIGITS[] = "0123456789ABCDEF";

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_letter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool is_option(const char* word) { return word[0] == '-' && word[1] != '\0' && is_letter(word[1]); }
bool is_flag(const char* word) { return word[0] == '-' && word[1] == '-' && is_letter(word[2]); }

template <typename Predicate>
bool all_of(const char* text, Predicate predicate) {
    if (text == nullptr || *text == '\0') return false;
    for (; *text; ++text)
        if (!predicate(static_cast<unsigned char>(*text))) return false;
    return true;
}

}  // namespace

void hex_from_bytes(char* dst, const char* src, int length, bool upper) {
    const char* digits = upper ? UPPER_DIGITS : LOWER_DIGITS;
    for (int i = 0; i < length; ++i) {
        unsigned char byte = static_cast<unsigned char>(src[i]);
        dst[2 * i] = digits[byte >> 4];
        dst[2 * i + 1] = digits[byte & 0x0F];
    }
}

char* hex_to_bytes(const char* src, char* dst, int length) {
    for (int i = 0; i < length; ++i) {
        int high = hex_value(src[2 * i]);
        if (high < 0) return nullptr;
        int low = hex_value(src[2 * i + 1]);
        if (low < 0) return nullptr;
        dst[i] = static_cast<char>(high << 4 | low);
    }
    return dst;
}

void hex_output(const char* src, int length, bool upper, FILE* stream) {
    const char* digits = upper ? UPPER_DIGITS : LOWER_DIGITS;
    for (int i = 0; i < length; ++i) {
        unsigned char byte = static_cast<unsigned char>(src[i]);
        std::fputc(digits[byte >> 4], stream);
        std::fputc(digits[byte & 0x0F], stream);
    }
}

char* str_token(char* text, const char* separator, int& position) {
    if (text == nullptr || position < 0) return nullptr;
    if (position == 0 && text[0] == '\0') return nullptr;
    char* piece = text + position;
    char* found = std::strstr(piece, separator);
    if (found == nullptr || *separator == '\0') {
        position = -1;
        return piece;
    }
    *found = '\0';
    position = int(found - text) + int(std::strlen(separator));
    return piece;
}

int find_split(const char* text, char c, bool from_end) {
    const char* found = from_end ? std::strrchr(text, c) : std::strchr(text, c);
    if (found == nullptr || c == '\0') return -1;
    return int(found - text);
}

bool str_head(const char* text, const char* head) {
    return std::strncmp(text, head, std::strlen(head)) == 0;
}

bool str_tail(const char* text, const char* tail) {
    const char* found = std::strstr(text, tail);
    return found != nullptr && std::strlen(found) == std::strlen(tail);
}

int replace_str(const char* src, char* dst, const char* from, const char* to) {
    size_t from_length = std::strlen(from);
    size_t to_length = std::strlen(to);
    int length = 0;
    while (*src) {
        if (from_length > 0 && std::strncmp(src, from, from_length) == 0) {
            if (dst) std::memcpy(dst + length, to, to_length);
            length += int(to_length);
            src += from_length;
        } else {
            if (dst) dst[length] = *src;
            ++length;
            ++src;
        }
    }
    if (dst) dst[length] = '\0';
    return length;
}

int replace_char(char* text, char from, char to) {
    int count = 0;
    for (; *text; ++text)
        if (*text == from) {
            *text = to;
            ++count;
        }
    return count;
}

void trim_left(char* text, char c) {
    size_t skip = 0;
    while (text[skip] != '\0' && text[skip] == c) ++skip;
    if (skip) std::memmove(text, text + skip, std::strlen(text + skip) + 1);
}

void trim_right(char* text, char c) {
    size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == c) text[--length] = '\0';
}

bool is_upper(const char* text) { return all_of(text, [](int c) { return std::isupper(c); }); }
bool is_lower(const char* text) { return all_of(text, [](int c) { return std::islower(c); }); }
bool is_digit(const char* text) { return all_of(text, [](int c) { return std::isdigit(c); }); }

void to_upper(char* dst, const char* src) {
    for (; *src; ++src, ++dst) *dst = char(std::toupper(static_cast<unsigned char>(*src)));
    *dst = '\0';
}

void to_lower(char* dst, const char* src) {
    for (; *src; ++src, ++dst) *dst = char(std::tolower(static_cast<unsigned char>(*src)));
    *dst = '\0';
}

unsigned int ceil_log(unsigned long value, unsigned int base, bool* exact) {
    unsigned int n = 0;
    bool is_exact = true;
    while (value > 1 && base > 1) {
        if (value % base != 0) is_exact = false;
        value = value / base + (value % base != 0 ? 1 : 0);
        ++n;
    }
    if (exact) *exact = is_exact;
    return n;
}

unsigned char align_addition(unsigned char value, unsigned char bits) {
    unsigned char mask = static_cast<unsigned char>((1u << bits) - 1);
    return static_cast<unsigned char>((0u - value) & mask);
}

int get_arg_count(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (is_flag(argv[i])) continue;
        if (is_option(argv[i])) {
            ++i;  // skips the option's value
            continue;
        }
        ++count;
    }
    return count;
}

const char* get_arg_value(int argc, char** argv, const char* name) {
    for (int i = 1; i < argc; ++i) {
        if (is_flag(argv[i])) {
            if (std::strcmp(argv[i], name) == 0) return argv[i];
            continue;
        }
        if (is_option(argv[i])) {
            if (std::strcmp(argv[i], name) == 0) return i + 1 < argc ? argv[i + 1] : NULL_STRING;
            ++i;
        }
    }
    return nullptr;
}

const char* get_arg_value(int argc, char** argv, int index) {
    if (index == 0) return argc > 0 ? argv[0] : nullptr;
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (is_flag(argv[i])) continue;
        if (is_option(argv[i])) {
            ++i;
            continue;
        }
        if (++count == index) return argv[i];
    }
    return nullptr;
}

}  // namespace Base

// Free text helpers on the caller's memory: bounded copies that always
// terminate, hexadecimal text, in-place tokenising, small predicates and
// command-line arguments. None allocates; failures are null, -1 or false.
#pragma once

#include <cstdio>

namespace Base {

extern const char* const NULL_STRING;  // "" : an empty text that is not null

// Copies at most n bytes, stops after the terminator and zero-fills through
// dst[n]: dst must hold n + 1 bytes and is always terminated.
void str_ncpy(unsigned long n, char* dst, const char* src);
// printf into dst with a bound of n bytes (terminator included); returns dst.
char* str_print(unsigned long n, char* dst, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void hex_from_bytes(char* dst, const char* src, int length, bool upper);
char* hex_to_bytes(const char* src, char* dst, int length);
void hex_output(const char* src, int length, bool upper, FILE* stream);

// Returns the next piece of text up to separator, cutting in place; position
// starts at 0 and is -1 after the last piece.
char* str_token(char* text, const char* separator, int& position);
int find_split(const char* text, char c, bool from_end);
bool str_head(const char* text, const char* head);
bool str_tail(const char* text, const char* tail);
int replace_str(const char* src, char* dst, const char* from, const char* to);
int replace_char(char* text, char from, char to);
void trim_left(char* text, char c);
void trim_right(char* text, char c);
bool is_upper(const char* text);
bool is_lower(const char* text);
bool is_digit(const char* text);
void to_upper(char* dst, const char* src);
void to_lower(char* dst, const char* src);
unsigned int ceil_log(unsigned long value, unsigned int base, bool* exact);
unsigned char align_addition(unsigned char value, unsigned char bits);

// Options are "-x value" (a hyphen and a letter), flags "--name"; all other
// words are positional.
int get_arg_count(int argc, char** argv);
const char* get_arg_value(int argc, char** argv, const char* name);
const char* get_arg_value(int argc, char** argv, int index);

}  // namespace Base

// SPRINT: the formatting primitive of the text forms. It prints at
// dst + position and returns the length printed; with a null dst it prints
// nothing and only counts, so that a first pass can size the buffer.
#pragma once

namespace Base {

int sprint_at(char* dst, int position, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace Base

#define SPRINT(dst, position, ...) Base::sprint_at((dst), (position), __VA_ARGS__)

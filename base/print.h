// Print macros: EPRINT for error lines on standard error, PRINT for normal
// lines on standard output. Both take a printf format and flush at once so
// lines from several threads never sit in a buffer at a crash.
#pragma once

#include <cstdio>

#define EPRINT(...)                        \
    do {                                   \
        std::fprintf(stderr, __VA_ARGS__); \
        std::fflush(stderr);               \
    } while (0)

#define PRINT(...)                         \
    do {                                   \
        std::fprintf(stdout, __VA_ARGS__); \
        std::fflush(stdout);               \
    } while (0)

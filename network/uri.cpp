#include "network/uri.h"

#include <cstdlib>
#include <cstring>

#include "base/strings.h"

namespace Base {

Uri::Uri() { reset(); }

Uri::Uri(const char* value) { parse(value); }

void Uri::reset() {
    std::memset(text, 0, sizeof(text));
    std::memset(parts, 0, sizeof(parts));
    protocol = nullptr;
    host = nullptr;
    port = 0;
    path = nullptr;
}

void Uri::parse(const char* value) {
    reset();
    if (value == nullptr) return;
    str_ncpy(sizeof(text) - 1, text, value);
    str_ncpy(sizeof(parts) - 1, parts, value);

    char* colon = std::strchr(parts, ':');
    if (colon == nullptr) return;
    *colon = '\0';
    protocol = parts;
    char* cursor = colon + 1;
    if (std::strncmp(cursor, "//", 2) != 0) return;
    cursor += 2;

    host = cursor;
    cursor += std::strcspn(cursor, ":/");
    if (*cursor == ':') {
        *cursor++ = '\0';
        char* end = cursor + std::strcspn(cursor, "/");
        char held = *end;
        *end = '\0';
        port = int(std::strtol(cursor, nullptr, 10));
        *end = held;
        cursor = end;
    }
    if (*cursor == '/') {
        *cursor++ = '\0';
        path = cursor;
    }
}

}  // namespace Base

// Tables of the tests, kept as text files beside them: one row a line, its
// fields separated by blanks, '#' lines and empty lines skipped. Paths are
// relative to tests/ of the source tree. The texts live as long as the
// process, so rows can be held as plain C strings.
#pragma once

#include <cstdlib>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace test_data {

inline std::vector<std::vector<const char*>> rows(const char* path) {
    static std::deque<std::string> texts;
    std::vector<std::vector<const char*>> out;
    std::ifstream file(std::string(QEL_SOURCE_DIR) + "/tests/" + path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::vector<const char*> row;
        std::string field;
        while (fields >> field) {
            texts.push_back(field);
            row.push_back(texts.back().c_str());
        }
        out.push_back(row);
    }
    return out;
}

// A number in C notation: decimal, or hexadecimal after 0x.
inline unsigned long number(const char* text) { return std::strtoul(text, nullptr, 0); }

// Bytes written as hexadecimal digits, two a byte; "-" is no bytes.
inline std::vector<unsigned char> hex(const char* text) {
    std::vector<unsigned char> out;
    for (const char* p = text; p[0] && p[0] != '-' && p[1]; p += 2)
        out.push_back(static_cast<unsigned char>(std::stoul(std::string(p, 2), nullptr, 16)));
    return out;
}

}  // namespace test_data

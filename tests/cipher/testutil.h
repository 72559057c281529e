// Small helpers shared by the cipher tests: hex text of bytes and back, and
// a seeded byte generator so that a failure can be reproduced.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace CipherTest {

typedef std::vector<unsigned char> Bytes;

inline std::string to_hex(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

inline std::string to_hex(const Bytes& b) { return to_hex(b.data(), b.size()); }

inline Bytes from_hex(const std::string& s) {
    Bytes b;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        b.push_back((unsigned char)std::stoi(s.substr(i, 2), nullptr, 16));
    return b;
}

inline Bytes from_text(const std::string& s) { return Bytes(s.begin(), s.end()); }

inline Bytes random_bytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& c : b)
        c = (unsigned char)rng();
    return b;
}

}  // namespace CipherTest

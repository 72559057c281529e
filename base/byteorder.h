// Byte order: big- and little-endian loads and stores of 16-, 32- and 64-bit
// words at any byte address, and a 32-bit rotation.
//
// Every integer of the wire protocol and of the record stream form is
// big-endian, and the ciphers and hashes state their formats in bytes; stream
// offsets are unaligned, so all access goes through memcpy, which keeps it
// well-defined and compiles to one move and one byte swap.
#pragma once

#include <cstdint>
#include <cstring>

namespace Base {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the byte-order helpers assume a little-endian host");

// Host value at an unaligned address, copied by its bytes.
template <typename T>
inline T load_host(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}
template <typename T>
inline void store_host(void* p, T v) {
    std::memcpy(p, &v, sizeof(T));
}

inline void put_be16(void* p, uint16_t v) { store_host(p, __builtin_bswap16(v)); }
inline void put_be32(void* p, uint32_t v) { store_host(p, __builtin_bswap32(v)); }
inline void put_be64(void* p, uint64_t v) { store_host(p, __builtin_bswap64(v)); }
inline uint16_t get_be16(const void* p) { return __builtin_bswap16(load_host<uint16_t>(p)); }
inline uint32_t get_be32(const void* p) { return __builtin_bswap32(load_host<uint32_t>(p)); }
inline uint64_t get_be64(const void* p) { return __builtin_bswap64(load_host<uint64_t>(p)); }

inline void put_le32(void* p, uint32_t v) { store_host(p, v); }
inline void put_le64(void* p, uint64_t v) { store_host(p, v); }
inline uint32_t get_le32(const void* p) { return load_host<uint32_t>(p); }

inline uint32_t rotl32(uint32_t x, int n) {
    return (x << (n & 31)) | (x >> ((32 - n) & 31));
}

// Swaps n bytes (2, 4 or 8) from host order to big-endian or back; any other
// width is copied as it stands.
inline void swap_bytes(unsigned char* dst, const unsigned char* src, int n) {
    switch (n) {
        case 2: put_be16(dst, load_host<uint16_t>(src)); break;
        case 4: put_be32(dst, load_host<uint32_t>(src)); break;
        case 8: put_be64(dst, load_host<uint64_t>(src)); break;
        default: std::memcpy(dst, src, n); break;
    }
}

}  // namespace Base

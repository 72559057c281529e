// Big-endian loads and stores at any address. Every integer of the wire
// protocol is big-endian and stream offsets are unaligned, so all access goes
// through these; memcpy keeps the unaligned access well-defined.
#pragma once

#include <cstdint>
#include <cstring>

namespace Network {

inline void put_be16(void* p, uint16_t v)
{
    v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
}

inline void put_be32(void* p, uint32_t v)
{
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

inline void put_be64(void* p, uint64_t v)
{
    v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

inline uint16_t get_be16(const void* p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return __builtin_bswap16(v);
}

inline uint32_t get_be32(const void* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return __builtin_bswap32(v);
}

inline uint64_t get_be64(const void* p)
{
    uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

}  // namespace Network

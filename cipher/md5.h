// Cipher::Md5: the MD5 message digest of RFC 1321, streaming.
//
// reset() sets the initial values (the constructor calls it); update() takes
// any number of bytes (a length of 0 or less does nothing); final() pads and
// leaves the 16-byte digest at the start of the object, which digest() also
// returns. The digest is the leading member, the object is a flat value that
// may be copied as bytes, and update() after final() without reset() is not
// defined. One object serves one thread.
#pragma once

#include <cstdint>

namespace Cipher {

class Md5 {
public:
    static const int DIGEST_SIZE = 16;

    Md5() { reset(); }
    ~Md5() = default;

    void reset();
    void update(const void* data, int length);
    void final();

    const unsigned char* digest() const { return reinterpret_cast<const unsigned char*>(state); }

private:
    uint32_t state[4];  // chaining value; the digest after final(); must stay first
    uint64_t count;     // bytes taken so far
    unsigned char buffer[64];
};

}  // namespace Cipher

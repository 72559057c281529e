// Cipher::Base64: the standard alphabet of RFC 4648 with "=" padding and no
// line breaks.
//
// encode() gives 4 characters for every 3 bytes, the last group padded. It
// writes no terminator. decode() takes a text without blanks; its result is
// the text's length times 6 / 8, less the trailing "=" (at most two), and a
// character outside the alphabet counts as zero bits rather than an error.
// It never writes more than that length nor reads past src_length. With a
// null dst both only set length.
#pragma once

namespace Cipher {

class Base64 {
public:
    static const char ENCODE_ALPHABET[65];
    static const unsigned char DECODE_ALPHABET[256];

    static bool encode(void* dst, int& length, const void* src, int src_length);
    static bool decode(void* dst, int& length, const void* src, int src_length);
};

}  // namespace Cipher

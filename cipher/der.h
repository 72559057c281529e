// Cipher::Der: a reader of DER encodings, element by element.
//
// Der::Iterator walks the sibling elements of one DER content. next() gives
// the next element (its tag byte, content length and content pointer), or
// null at the end or at a malformed element, after which the iterator
// stays at its end. The tag is one byte (no high tag numbers); a length is
// short, or long with up to 4 big-endian bytes. An element whose header or
// content would run past the data is malformed, so nothing is ever read
// outside the data given. The element points into the data.
#pragma once

namespace Cipher {

class Der {
public:
    struct Element {
        unsigned char tag;
        int length;
        const unsigned char* content;
    };

    class Iterator {
    public:
        Iterator() : data(nullptr), length(0), position(0), element{0, 0, nullptr} {}
        Iterator(const void* data, int length);
        void attach(const void* data, int length);
        bool is_end() const { return position >= length; }
        const Element* next();

    private:
        const unsigned char* data;
        int length;
        int position;
        Element element;
    };
};

}  // namespace Cipher

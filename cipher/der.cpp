// DER element reader; see der.h.
#include "cipher/der.h"

namespace Cipher {

Der::Iterator::Iterator(const void* d, int n)
{
    attach(d, n);
}

void Der::Iterator::attach(const void* d, int n)
{
    data = static_cast<const unsigned char*>(d);
    length = d && n > 0 ? n : 0;
    position = 0;
    element = Element{0, 0, nullptr};
}

const Der::Element* Der::Iterator::next()
{
    if (position >= length)
        return nullptr;
    int pos = position;
    position = length;  // stays at the end unless the element is whole
    if (length - pos < 2)
        return nullptr;
    unsigned char tag = data[pos++];
    unsigned int size = data[pos++];
    if (size & 0x80) {
        int count = size & 0x7F;
        if (count == 0 || count > 4 || length - pos < count)
            return nullptr;
        size = 0;
        for (int i = 0; i < count; i++)
            size = (size << 8) | data[pos++];
    }
    if (size > (unsigned int)(length - pos))
        return nullptr;
    element.tag = tag;
    element.length = (int)size;
    element.content = data + pos;
    position = pos + (int)size;
    return &element;
}

}  // namespace Cipher

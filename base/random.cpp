#include "base/random.h"

#include <cstdint>
#include <ctime>

namespace Base {

Random::Random(unsigned int value) { seed(value); }

void Random::seed(unsigned int value) {
    if (value == 0) value = static_cast<unsigned int>(time(nullptr));
    value &= 0x7FFFFFFFu;
    if (value == 0 || value == 0x7FFFFFFFu) value = 1;
    state = value;
}

// state * 16807 mod (2^31 - 1), folded without a division.
unsigned int Random::next() {
    uint64_t product = uint64_t(state) * 16807u;
    uint64_t folded = (product & 0x7FFFFFFFu) + (product >> 31);
    if (folded >= 0x80000000u) folded -= 0x7FFFFFFFu;
    state = static_cast<unsigned int>(folded);
    return state;
}

void Random::shuffle(unsigned int* out, unsigned int count, unsigned int seed) {
    for (unsigned int i = 0; i < count; ++i) out[i] = i;
    if (count < 2) return;
    Random generator(seed);
    for (unsigned int i = count - 1; i >= 1; --i) {
        unsigned int r = generator.next() % (i + 1);
        if (r != i) {
            unsigned int held = out[r];
            out[r] = out[i];
            out[i] = held;
        }
    }
}

}  // namespace Base

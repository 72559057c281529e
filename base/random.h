// Base::Random: the minimal standard Lehmer generator (multiplier 16807,
// modulus 2^31 - 1), and the shuffle that orders the fronts to try. For a
// given seed the sequence is reproduced bit for bit. Not for shared use:
// each user holds its own generator.
#pragma once

namespace Base {

class Random {
public:
    explicit Random(unsigned int seed = 0);

    // A seed of 0 takes time(); the value is masked to 31 bits and a masked
    // 0 or 0x7FFFFFFF becomes 1.
    void seed(unsigned int value);
    unsigned int next();
    unsigned int get_state() const { return state; }

    // Fills out with 0..count-1 and permutes it by a generator seeded as above.
    static void shuffle(unsigned int* out, unsigned int count, unsigned int seed);

private:
    unsigned int state;
};

}  // namespace Base

// Arbitrary-precision integers for RSA, the elliptic curves and the CTR
// counters.
//
// The mpi_* functions work on raw arrays of 64-bit limbs, least significant
// limb first, with the count of used limbs beside them (a count of 0 is
// zero). The caller provides all space; each function says how many limbs its
// result needs. Results are normalized (no high zero limbs) unless a function
// says otherwise. Operands are not checked: a division by zero or a result
// buffer that is too small is undefined.
//
// Cipher::MPInt wraps one such number with ownership and a sign. Copies are
// deep. Allocation failure throws through the ordinary allocator.
#pragma once

#include <cstdint>
#include <cstdio>

namespace Base {
class Random;
}

namespace Cipher {

// Ready one-limb operands for the arithmetic.
extern const uint64_t g_mpi_one[1];
extern const uint64_t g_mpi_two[1];

// Size and comparison.
int mpi_get_bits(const uint64_t* a, int an);
int mpi_normalize(const uint64_t* a, int an);  // the count without high zero limbs
bool mpi_is_zero(const uint64_t* a, int an);
bool mpi_equal_num(const uint64_t* a, int an, const uint64_t* b, int bn);
int mpi_cmp(const uint64_t* a, int an, const uint64_t* b, int bn);  // -1, 0, 1

// Shifts by one bit; r may be a. shift_left needs an + 1 limbs.
void mpi_shift_left(uint64_t* r, int& rn, const uint64_t* a, int an);
void mpi_shift_right(uint64_t* r, int& rn, const uint64_t* a, int an);

// r = a + b, r holds max(an, bn) + 1 limbs; r may be a or b.
void mpi_add(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn);
// r = a - b for a >= b, r holds an limbs; r may be a or b.
void mpi_sub(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn);
// Signed forms: each magnitude carries its sign; r holds max(an, bn) + 1 limbs
// and may be a or b. Zero is never negative.
void mpi_add(uint64_t* r, int& rn, bool& rneg, const uint64_t* a, int an, bool aneg,
             const uint64_t* b, int bn, bool bneg);
void mpi_sub(uint64_t* r, int& rn, bool& rneg, const uint64_t* a, int an, bool aneg,
             const uint64_t* b, int bn, bool bneg);

// r = a * b; r holds an + bn limbs and overlaps neither operand.
void mpi_mul(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn);
// The forms under mpi_mul: schoolbook, by one limb, and Karatsuba.
void mpi_mul_base(uint64_t* r, const uint64_t* a, int an, const uint64_t* b, int bn);
uint64_t mpi_mul_n1(uint64_t* r, const uint64_t* a, int an, uint64_t b);
void mpi_mul_karatsuba(uint64_t* r, const uint64_t* a, int an, const uint64_t* b, int bn);

// q = a / b and r = a % b, b not zero. q holds an - bn + 1 limbs (at least
// 1), r holds bn limbs; either may be null. Neither overlaps a or b.
void mpi_div(uint64_t* q, int& qn, uint64_t* r, int& rn, const uint64_t* a, int an,
             const uint64_t* b, int bn);
// In place: a becomes the remainder, q the quotient (q may be null).
void mpi_div(uint64_t* q, int& qn, uint64_t* a, int& an, const uint64_t* b, int bn);
// By one limb: q = a / b (q may be a or null); returns the remainder.
uint64_t mpi_div(uint64_t* q, int& qn, const uint64_t* a, int an, uint64_t b);
// r = a mod m; r holds mn limbs and may be a.
void mpi_mod(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* m, int mn);
uint64_t mpi_mod(const uint64_t* a, int an, uint64_t m);

// Number theory. r holds the limbs of the modulus (or of the smaller operand).
void mpi_gcd(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn);
// r = a^-1 mod m; false when a and m are not coprime.
bool mpi_inverse(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* m, int mn);
// r = a^e mod m by repeated squaring; r holds mn limbs.
void mpi_power_mod(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* e, int en,
                   const uint64_t* m, int mn);
// r = floor(sqrt(a)); r holds an / 2 + 1 limbs.
void mpi_square_root(uint64_t* r, int& rn, const uint64_t* a, int an);
// r with r^2 = a mod p for an odd prime p; false when a is not a square.
bool mpi_square_root(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* p, int pn);
// Montgomery product r = a * b / 2^(64 n) mod m for a, b < m, m odd, with
// m0inv = -m^-1 mod 2^64; r holds n limbs, is not normalized, may be a or b.
void mpi_mont_mul(uint64_t* r, const uint64_t* a, const uint64_t* b, const uint64_t* m, int n,
                  uint64_t m0inv);
// -m0^-1 mod 2^64 for an odd m0, the constant of mpi_mont_mul.
uint64_t mpi_mont_m0inv(uint64_t m0);
bool mpi_is_prime(const uint64_t* a, int an, int rounds);
// A random number of exactly `bits` bits; limbs holds (bits + 63) / 64.
void mpi_gen_random(Base::Random* random, int bits, uint64_t* limbs, int& size);
void mpi_gen_prime(Base::Random* random, int bits, int rounds, uint64_t* limbs, int& size);
// Secret material (private keys, ephemeral scalars, padding seeds) comes
// from the kernel's generator; the given generator serves only when that
// fails. gen_secret has the shape of mpi_gen_random: exactly `bits` bits.
void mpi_random_bytes(Base::Random* fallback, void* dst, int length);
void mpi_gen_secret(Base::Random* fallback, int bits, uint64_t* limbs, int& size);

// Text and bytes. to_hex writes 16 digits a limb, no prefix, "0" for zero;
// to_dec writes plain digits. Both terminate and return the length;
// dst holds 16 an + 1 bytes (hex) or 20 an + 2 (decimal). The readers take
// digits only and return false at any other character.
int mpi_to_hex(char* dst, const uint64_t* a, int an, bool upper);
bool mpi_from_hex(uint64_t* r, int& rn, const char* text);
int mpi_to_dec(char* dst, const uint64_t* a, int an);
bool mpi_from_dec(uint64_t* r, int& rn, const char* text);
// Big-endian bytes: an * 8 of them, or with trim the shortest form (none for
// zero). With a null dst only length is set.
void mpi_to_bytes(const uint64_t* a, int an, void* dst, int& length, bool trim);
// size becomes (length - 1) / 8 + 1; with a null limbs only size is set.
void mpi_from_bytes(uint64_t* limbs, int& size, const void* src, int length);
void mpi_output(const uint64_t* a, int an, FILE* stream);

class MPInt {
public:
    struct Value {
        uint32_t capacity;  // limbs allocated
        uint32_t size;      // limbs in use
        uint32_t negative;  // 1 for a negative value
        uint32_t reserved;
        uint64_t* limbs;
    };

    MPInt();
    explicit MPInt(unsigned long value);
    explicit MPInt(const MPInt* other);
    MPInt(const MPInt& other);
    MPInt& operator=(const MPInt& other);
    ~MPInt();

    void set_uint64(uint64_t value);
    uint64_t get_uint64() const;  // the low limb

    void alloc(int limbs);   // room for limbs, value zero
    void resize(int limbs);  // room for limbs, value kept
    void copy(const Value* value);
    void set(Value* value);  // takes ownership of value and its limbs
    void assign(const MPInt* other);
    void clear();
    void neg();
    void abs();

    void add(const MPInt* other);
    void add(unsigned long value);
    void sub(const MPInt* other);
    void sub(unsigned long value);
    void mul(const MPInt* other);
    // this becomes the quotient truncated toward zero; the remainder takes
    // the sign of the dividend. False for a zero divisor.
    bool div(const MPInt* divisor, MPInt* remainder);
    void shift_left();
    void shift_right();

    // "0x" then hexadecimal, or decimal, with an optional "-" in front.
    bool from_str(const char* text);
    // "0x" and 16 digits a limb, "-" in front when negative; returns the
    // length. text holds 16 * size + 4 bytes.
    int to_str(char* text, bool upper) const;
    // Magnitude as big-endian bytes without leading zeros, and the sign.
    void to_bytes(void* dst, int& length, int& negative) const;
    void from_bytes(const void* src, int length, int negative);
    void output(FILE* stream) const;

    bool is_zero() const;
    bool is_negative() const;
    int get_bits() const;
    int cmp(const MPInt* other) const;  // by value, with signs
    bool is_prime(int rounds) const;
    bool is_safe_prime() const;
    void gen_random(Base::Random* random, int bits);
    void gen_prime(Base::Random* random, int bits, int rounds);

    const Value* get_value() const { return value; }

private:
    Value* value;
};

}  // namespace Cipher

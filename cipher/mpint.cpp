// Limb arithmetic and the MPInt wrapper; see mpint.h for the contract.
#include "cipher/mpint.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "base/measure.h"
#include "base/random.h"

namespace Cipher {

typedef unsigned __int128 u128;

const uint64_t g_mpi_one[1] = {1};
const uint64_t g_mpi_two[1] = {2};

// Powers of ten up to 10^19, the largest that fits a limb: decimal text is
// read and written 19 digits at a time.
static const uint64_t _mpi_dec_tab[20] = {
    1ULL, 10ULL, 100ULL, 1000ULL, 10000ULL, 100000ULL, 1000000ULL, 10000000ULL,
    100000000ULL, 1000000000ULL, 10000000000ULL, 100000000000ULL, 1000000000000ULL,
    10000000000000ULL, 100000000000000ULL, 1000000000000000ULL, 10000000000000000ULL,
    100000000000000000ULL, 1000000000000000000ULL, 10000000000000000000ULL};

static const int KARATSUBA_THRESHOLD = 15;

namespace {

// Scratch limbs on the stack for the common sizes, on the heap beyond.
class Scratch {
public:
    explicit Scratch(int n) : data(n <= STACK_LIMBS ? stack : nullptr)
    {
        if (!data) {
            heap.resize(n);
            data = heap.data();
        }
    }
    uint64_t* get() { return data; }

private:
    static const int STACK_LIMBS = 160;
    uint64_t stack[STACK_LIMBS];
    std::vector<uint64_t> heap;
    uint64_t* data;
};

// (hi:lo) / d for hi < d, so that the quotient fits one limb.
inline uint64_t div_128(uint64_t hi, uint64_t lo, uint64_t d, uint64_t& rem)
{
#if defined(__x86_64__)
    uint64_t q;
    __asm__("divq %4" : "=a"(q), "=d"(rem) : "a"(lo), "d"(hi), "rm"(d));
    return q;
#else
    u128 n = ((u128)hi << 64) | lo;
    rem = (uint64_t)(n % d);
    return (uint64_t)(n / d);
#endif
}

// r[0..rn) += a[0..an) with the carry run through r; an <= rn.
void add_into(uint64_t* r, int rn, const uint64_t* a, int an)
{
    uint64_t carry = 0;
    int i = 0;
    for (; i < an; i++) {
        u128 s = (u128)r[i] + a[i] + carry;
        r[i] = (uint64_t)s;
        carry = (uint64_t)(s >> 64);
    }
    for (; carry && i < rn; i++) {
        r[i] += 1;
        carry = r[i] == 0;
    }
}

// r[0..rn) -= a[0..an) for r >= a; an <= rn.
void sub_from(uint64_t* r, int rn, const uint64_t* a, int an)
{
    uint64_t borrow = 0;
    int i = 0;
    for (; i < an; i++) {
        uint64_t x = r[i];
        uint64_t d = x - a[i] - borrow;
        borrow = (x < a[i]) || (x - a[i] < borrow);
        r[i] = d;
    }
    for (; borrow && i < rn; i++) {
        borrow = r[i] == 0;
        r[i] -= 1;
    }
}

}  // namespace

int mpi_normalize(const uint64_t* a, int an)
{
    while (an > 0 && a[an - 1] == 0)
        an--;
    return an;
}

int mpi_get_bits(const uint64_t* a, int an)
{
    an = mpi_normalize(a, an);
    if (an == 0)
        return 0;
    return (an - 1) * 64 + 64 - __builtin_clzll(a[an - 1]);
}

bool mpi_is_zero(const uint64_t* a, int an)
{
    return mpi_normalize(a, an) == 0;
}

int mpi_cmp(const uint64_t* a, int an, const uint64_t* b, int bn)
{
    an = mpi_normalize(a, an);
    bn = mpi_normalize(b, bn);
    if (an != bn)
        return an < bn ? -1 : 1;
    for (int i = an - 1; i >= 0; i--) {
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
    }
    return 0;
}

bool mpi_equal_num(const uint64_t* a, int an, const uint64_t* b, int bn)
{
    return mpi_cmp(a, an, b, bn) == 0;
}

void mpi_shift_left(uint64_t* r, int& rn, const uint64_t* a, int an)
{
    uint64_t carry = 0;
    for (int i = 0; i < an; i++) {
        uint64_t v = a[i];
        r[i] = (v << 1) | carry;
        carry = v >> 63;
    }
    int n = an;
    if (carry)
        r[n++] = carry;
    rn = mpi_normalize(r, n);
}

void mpi_shift_right(uint64_t* r, int& rn, const uint64_t* a, int an)
{
    for (int i = 0; i < an; i++) {
        uint64_t high = i + 1 < an ? a[i + 1] << 63 : 0;
        r[i] = (a[i] >> 1) | high;
    }
    rn = mpi_normalize(r, an);
}

void mpi_add(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    if (an < bn) {
        const uint64_t* t = a;
        a = b;
        b = t;
        int tn = an;
        an = bn;
        bn = tn;
    }
    uint64_t carry = 0;
    int i = 0;
    for (; i < bn; i++) {
        u128 s = (u128)a[i] + b[i] + carry;
        r[i] = (uint64_t)s;
        carry = (uint64_t)(s >> 64);
    }
    for (; i < an; i++) {
        uint64_t s = a[i] + carry;
        carry = s < carry;
        r[i] = s;
    }
    if (carry)
        r[i++] = carry;
    rn = mpi_normalize(r, i);
}

void mpi_sub(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    bn = mpi_normalize(b, bn);
    uint64_t borrow = 0;
    int i = 0;
    for (; i < bn; i++) {
        uint64_t x = a[i];
        uint64_t y = b[i];
        r[i] = x - y - borrow;
        borrow = (x < y) || (x - y < borrow);
    }
    for (; i < an; i++) {
        uint64_t x = a[i];
        r[i] = x - borrow;
        borrow = x < borrow;
    }
    rn = mpi_normalize(r, an);
}

void mpi_add(uint64_t* r, int& rn, bool& rneg, const uint64_t* a, int an, bool aneg,
             const uint64_t* b, int bn, bool bneg)
{
    if (aneg == bneg) {
        mpi_add(r, rn, a, an, b, bn);
        rneg = aneg;
    } else if (mpi_cmp(a, an, b, bn) >= 0) {
        mpi_sub(r, rn, a, an, b, bn);
        rneg = aneg;
    } else {
        mpi_sub(r, rn, b, bn, a, an);
        rneg = bneg;
    }
    if (rn == 0)
        rneg = false;
}

void mpi_sub(uint64_t* r, int& rn, bool& rneg, const uint64_t* a, int an, bool aneg,
             const uint64_t* b, int bn, bool bneg)
{
    mpi_add(r, rn, rneg, a, an, aneg, b, bn, !bneg);
}

uint64_t mpi_mul_n1(uint64_t* r, const uint64_t* a, int an, uint64_t b)
{
    uint64_t carry = 0;
    for (int i = 0; i < an; i++) {
        u128 p = (u128)a[i] * b + carry;
        r[i] = (uint64_t)p;
        carry = (uint64_t)(p >> 64);
    }
    return carry;
}

void mpi_mul_base(uint64_t* r, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    r[an] = mpi_mul_n1(r, a, an, b[0]);
    for (int j = 1; j < bn; j++) {
        uint64_t carry = 0;
        uint64_t bj = b[j];
        uint64_t* row = r + j;
        for (int i = 0; i < an; i++) {
            u128 p = (u128)a[i] * bj + row[i] + carry;
            row[i] = (uint64_t)p;
            carry = (uint64_t)(p >> 64);
        }
        row[an] = carry;
    }
}

// r[0..2n) = a[0..n) * b[0..n), by Karatsuba while a half is above the
// threshold.
static void mpi_mul_nn(uint64_t* r, const uint64_t* a, const uint64_t* b, int n)
{
    if (n <= KARATSUBA_THRESHOLD) {
        mpi_mul_base(r, a, n, b, n);
        return;
    }
    int low = n / 2;
    int high = n - low;
    mpi_mul_nn(r, a, b, low);                           // z0 in r[0..2 low)
    mpi_mul_nn(r + 2 * low, a + low, b + low, high);    // z2 in r[2 low..2n)

    int sn = high + 1;
    Scratch scratch(4 * sn);
    uint64_t* sa = scratch.get();
    uint64_t* sb = sa + sn;
    uint64_t* t = sb + sn;
    std::memcpy(sa, a + low, high * 8);
    sa[high] = 0;
    add_into(sa, sn, a, low);
    std::memcpy(sb, b + low, high * 8);
    sb[high] = 0;
    add_into(sb, sn, b, low);
    mpi_mul_nn(t, sa, sb, sn);  // (a0 + a1)(b0 + b1) in 2 sn limbs
    sub_from(t, 2 * sn, r, 2 * low);
    sub_from(t, 2 * sn, r + 2 * low, 2 * high);
    // z1 < 2^(64 (2 high + 1)); it fits beside z0 and z2 within 2n limbs.
    int tn = mpi_normalize(t, 2 * sn);
    add_into(r + low, 2 * n - low, t, tn);
}

void mpi_mul_karatsuba(uint64_t* r, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    // an >= bn: equal-length parts of a by b, then the shorter rest.
    std::memset(r, 0, (an + bn) * 8);
    Scratch scratch(2 * bn);
    uint64_t* t = scratch.get();
    int offset = 0;
    for (; offset + bn <= an; offset += bn) {
        mpi_mul_nn(t, a + offset, b, bn);
        add_into(r + offset, an + bn - offset, t, 2 * bn);
    }
    int rest = an - offset;
    if (rest > 0) {
        int tn;
        mpi_mul(t, tn, b, bn, a + offset, rest);
        add_into(r + offset, an + bn - offset, t, tn);
    }
}

void mpi_mul(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    an = mpi_normalize(a, an);
    bn = mpi_normalize(b, bn);
    if (an < bn) {
        const uint64_t* t = a;
        a = b;
        b = t;
        int tn = an;
        an = bn;
        bn = tn;
    }
    if (bn == 0) {
        rn = 0;
        return;
    }
    if (bn == 1)
        r[an] = mpi_mul_n1(r, a, an, b[0]);
    else if (bn > KARATSUBA_THRESHOLD)
        mpi_mul_karatsuba(r, a, an, b, bn);
    else
        mpi_mul_base(r, a, an, b, bn);
    rn = mpi_normalize(r, an + bn);
}

uint64_t mpi_div(uint64_t* q, int& qn, const uint64_t* a, int an, uint64_t b)
{
    an = mpi_normalize(a, an);
    uint64_t rem = 0;
    for (int i = an - 1; i >= 0; i--) {
        uint64_t quotient = div_128(rem, a[i], b, rem);
        if (q)
            q[i] = quotient;
    }
    qn = q ? mpi_normalize(q, an) : 0;
    return rem;
}

uint64_t mpi_mod(const uint64_t* a, int an, uint64_t m)
{
    int qn;
    return mpi_div(nullptr, qn, a, an, m);
}

void mpi_div(uint64_t* q, int& qn, uint64_t* r, int& rn, const uint64_t* a, int an,
             const uint64_t* b, int bn)
{
    an = mpi_normalize(a, an);
    bn = mpi_normalize(b, bn);
    if (mpi_cmp(a, an, b, bn) < 0) {
        if (r && r != a)
            std::memmove(r, a, an * 8);
        rn = an;
        qn = 0;
        return;
    }
    if (bn == 1) {
        uint64_t rem;
        if (q) {
            rem = mpi_div(q, qn, a, an, b[0]);
        } else {
            rem = mpi_mod(a, an, b[0]);
            qn = 0;
        }
        if (r)
            r[0] = rem;
        rn = rem ? 1 : 0;
        return;
    }

    // Long division on limbs: divisor shifted so its top bit is set, each
    // quotient limb estimated from the top two limbs of the remainder and
    // corrected at most twice.
    Scratch scratch(an + 1 + bn);
    uint64_t* un = scratch.get();
    uint64_t* vn = un + an + 1;
    int shift = __builtin_clzll(b[bn - 1]);
    if (shift) {
        for (int i = bn - 1; i > 0; i--)
            vn[i] = (b[i] << shift) | (b[i - 1] >> (64 - shift));
        vn[0] = b[0] << shift;
        un[an] = a[an - 1] >> (64 - shift);
        for (int i = an - 1; i > 0; i--)
            un[i] = (a[i] << shift) | (a[i - 1] >> (64 - shift));
        un[0] = a[0] << shift;
    } else {
        std::memcpy(vn, b, bn * 8);
        std::memcpy(un, a, an * 8);
        un[an] = 0;
    }

    uint64_t vtop = vn[bn - 1];
    uint64_t vnext = vn[bn - 2];
    for (int j = an - bn; j >= 0; j--) {
        uint64_t uhi = un[j + bn];
        uint64_t ulo = un[j + bn - 1];
        uint64_t qhat, rhat;
        bool rhat_big = false;  // rhat no longer fits a limb: qhat is right
        if (uhi >= vtop) {
            qhat = ~0ULL;
            u128 rr = (((u128)uhi << 64) | ulo) - (u128)qhat * vtop;
            rhat_big = (rr >> 64) != 0;
            rhat = (uint64_t)rr;
        } else {
            qhat = div_128(uhi, ulo, vtop, rhat);
        }
        while (!rhat_big && (u128)qhat * vnext > (((u128)rhat << 64) | un[j + bn - 2])) {
            qhat--;
            u128 sum = (u128)rhat + vtop;
            rhat = (uint64_t)sum;
            rhat_big = (sum >> 64) != 0;
        }

        // un[j..j+bn] -= qhat * vn
        uint64_t carry = 0;
        uint64_t borrow = 0;
        for (int i = 0; i < bn; i++) {
            u128 p = (u128)qhat * vn[i] + carry;
            carry = (uint64_t)(p >> 64);
            uint64_t plo = (uint64_t)p;
            uint64_t x = un[i + j];
            uint64_t d = x - plo - borrow;
            borrow = (x < plo) || (x - plo < borrow);
            un[i + j] = d;
        }
        uint64_t x = un[j + bn];
        uint64_t d = x - carry - borrow;
        bool negative = (x < carry) || (x - carry < borrow);
        un[j + bn] = d;
        if (negative) {
            // The estimate was one too large: add the divisor back.
            qhat--;
            uint64_t c = 0;
            for (int i = 0; i < bn; i++) {
                u128 s = (u128)un[i + j] + vn[i] + c;
                un[i + j] = (uint64_t)s;
                c = (uint64_t)(s >> 64);
            }
            un[j + bn] += c;
        }
        if (q)
            q[j] = qhat;
    }
    qn = q ? mpi_normalize(q, an - bn + 1) : 0;
    if (r) {
        if (shift) {
            for (int i = 0; i < bn - 1; i++)
                r[i] = (un[i] >> shift) | (un[i + 1] << (64 - shift));
            r[bn - 1] = un[bn - 1] >> shift;
        } else {
            std::memcpy(r, un, bn * 8);
        }
        rn = mpi_normalize(r, bn);
    } else {
        rn = 0;
    }
}

void mpi_div(uint64_t* q, int& qn, uint64_t* a, int& an, const uint64_t* b, int bn)
{
    int rn;
    mpi_div(q, qn, a, rn, a, an, b, bn);
    an = rn;
}

void mpi_mod(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* m, int mn)
{
    int qn;
    mpi_div(nullptr, qn, r, rn, a, an, m, mn);
}

void mpi_gcd(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn)
{
    an = mpi_normalize(a, an);
    bn = mpi_normalize(b, bn);
    int n = an > bn ? an : bn;
    std::vector<uint64_t> buffer(2 * n + 2);
    uint64_t* x = buffer.data();
    uint64_t* y = x + n + 1;
    int xn = an, yn = bn;
    std::memcpy(x, a, an * 8);
    std::memcpy(y, b, bn * 8);
    while (yn) {
        mpi_mod(x, xn, x, xn, y, yn);  // x = x mod y, then swap
        uint64_t* t = x;
        x = y;
        y = t;
        int tn = xn;
        xn = yn;
        yn = tn;
    }
    std::memcpy(r, x, xn * 8);
    rn = xn;
}

bool mpi_inverse(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* m, int mn)
{
    // Extended Euclid keeping only the coefficient of a:
    // r0 = s0 a (mod m), r1 = s1 a (mod m).
    mn = mpi_normalize(m, mn);
    if (mn == 0)
        return false;
    int w = mn + 2;  // a signed step may carry one limb before it normalizes
    std::vector<uint64_t> buffer(8 * w);
    uint64_t* r0 = buffer.data();
    uint64_t* r1 = r0 + w;
    uint64_t* s0 = r1 + w;
    uint64_t* s1 = s0 + w;
    uint64_t* q = s1 + w;
    uint64_t* t = q + w;  // 2w limbs for q s1
    uint64_t* rem = t + 2 * w;
    int r0n, r1n, s0n = 0, s1n = 1, qn, tn, remn;
    bool s0neg = false, s1neg = false;
    std::memcpy(r0, m, mn * 8);
    r0n = mn;
    mpi_mod(r1, r1n, a, an, m, mn);
    s1[0] = 1;
    while (r1n) {
        mpi_div(q, qn, rem, remn, r0, r0n, r1, r1n);
        // s2 = s0 - q s1; coefficients stay below m in magnitude.
        mpi_mul(t, tn, q, qn, s1, s1n);
        bool tneg = s1neg && tn;
        mpi_sub(s0, s0n, s0neg, s0, s0n, s0neg, t, tn, tneg);
        std::swap(s0, s1);
        std::swap(s0n, s1n);
        std::swap(s0neg, s1neg);
        std::swap(r0, r1);
        std::swap(r0n, r1n);
        std::memcpy(r1, rem, remn * 8);
        r1n = remn;
    }
    if (!(r0n == 1 && r0[0] == 1))
        return false;
    mpi_mod(s0, s0n, s0, s0n, m, mn);
    if (s0neg && s0n)
        mpi_sub(r, rn, m, mn, s0, s0n);
    else {
        std::memcpy(r, s0, s0n * 8);
        rn = s0n;
    }
    return true;
}

void mpi_power_mod(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* e, int en,
                   const uint64_t* m, int mn)
{
    mn = mpi_normalize(m, mn);
    Scratch scratch(4 * mn);
    uint64_t* base = scratch.get();
    uint64_t* acc = base + mn;
    uint64_t* t = acc + mn;  // 2 mn limbs
    int basen, accn, tn;
    mpi_mod(base, basen, a, an, m, mn);
    acc[0] = 1;
    mpi_mod(acc, accn, acc, 1, m, mn);  // 1 mod m: 0 for m = 1
    int bits = mpi_get_bits(e, en);
    for (int i = bits - 1; i >= 0; i--) {
        mpi_mul(t, tn, acc, accn, acc, accn);
        mpi_mod(acc, accn, t, tn, m, mn);
        if ((e[i / 64] >> (i % 64)) & 1) {
            mpi_mul(t, tn, acc, accn, base, basen);
            mpi_mod(acc, accn, t, tn, m, mn);
        }
    }
    std::memcpy(r, acc, accn * 8);
    rn = accn;
}

void mpi_square_root(uint64_t* r, int& rn, const uint64_t* a, int an)
{
    // Newton from above: x = 2^ceil(bits/2), then x = (x + a/x) / 2 while
    // it shrinks.
    an = mpi_normalize(a, an);
    if (an == 0) {
        rn = 0;
        return;
    }
    int bits = mpi_get_bits(a, an);
    int half = (bits + 1) / 2;
    int w = an + 2;
    std::vector<uint64_t> buffer(4 * w);
    uint64_t* x = buffer.data();
    uint64_t* y = x + w;
    uint64_t* q = y + w;
    uint64_t* rem = q + w;
    int xn = half / 64 + 1, yn, qn, remn;
    std::memset(x, 0, xn * 8);
    x[half / 64] = 1ULL << (half % 64);
    for (;;) {
        mpi_div(q, qn, rem, remn, a, an, x, xn);
        mpi_add(y, yn, x, xn, q, qn);
        mpi_shift_right(y, yn, y, yn);
        if (mpi_cmp(y, yn, x, xn) >= 0)
            break;
        std::memcpy(x, y, yn * 8);
        xn = yn;
    }
    std::memcpy(r, x, xn * 8);
    rn = xn;
}

namespace {

// Modular products over numbers below a fixed modulus, for the square root.
struct ModRing {
    const uint64_t* m;
    int mn;
    std::vector<uint64_t> t;
    ModRing(const uint64_t* modulus, int n) : m(modulus), mn(n), t(2 * n + 2) {}
    void mul(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn)
    {
        int tn;
        mpi_mul(t.data(), tn, a, an, b, bn);
        mpi_mod(r, rn, t.data(), tn, m, mn);
    }
};

bool is_one(const uint64_t* a, int an)
{
    return mpi_normalize(a, an) == 1 && a[0] == 1;
}

}  // namespace

bool mpi_square_root(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* p, int pn)
{
    pn = mpi_normalize(p, pn);
    int w = pn + 1;
    std::vector<uint64_t> buffer(11 * w);
    uint64_t* x = buffer.data();
    uint64_t* e = x + w;
    uint64_t* pm1 = e + w;
    uint64_t* c = pm1 + w;
    uint64_t* t = c + w;
    uint64_t* res = t + w;
    uint64_t* b = res + w;
    uint64_t* u = b + w;
    uint64_t* z = u + w;
    int xn, en, pm1n, cn, tn, resn, bn, un, zn;
    ModRing ring(p, pn);

    mpi_mod(x, xn, a, an, p, pn);
    if (xn == 0) {
        rn = 0;
        return true;
    }
    mpi_sub(pm1, pm1n, p, pn, g_mpi_one, 1);
    // Euler's criterion: x^((p-1)/2) is 1 for a square.
    mpi_shift_right(e, en, pm1, pm1n);
    mpi_power_mod(t, tn, x, xn, e, en, p, pn);
    if (!is_one(t, tn))
        return false;

    if ((p[0] & 3) == 3) {
        // p = 3 mod 4: the root is x^((p+1)/4).
        mpi_add(e, en, p, pn, g_mpi_one, 1);
        mpi_shift_right(e, en, e, en);
        mpi_shift_right(e, en, e, en);
        mpi_power_mod(r, rn, x, xn, e, en, p, pn);
        return true;
    }

    // Tonelli-Shanks: p - 1 = q 2^s with q odd.
    int s = 0;
    std::memcpy(e, pm1, pm1n * 8);
    en = pm1n;
    while ((e[0] & 1) == 0) {
        mpi_shift_right(e, en, e, en);
        s++;
    }
    // A non-square z: z^((p-1)/2) = p - 1.
    uint64_t* half = z + w;
    int halfn;
    mpi_shift_right(half, halfn, pm1, pm1n);
    zn = 1;
    for (z[0] = 2;; z[0]++) {
        mpi_power_mod(t, tn, z, zn, half, halfn, p, pn);
        if (mpi_equal_num(t, tn, pm1, pm1n))
            break;
    }
    mpi_power_mod(c, cn, z, zn, e, en, p, pn);  // c = z^q
    mpi_power_mod(t, tn, x, xn, e, en, p, pn);  // t = x^q
    mpi_add(u, un, e, en, g_mpi_one, 1);
    mpi_shift_right(u, un, u, un);
    mpi_power_mod(res, resn, x, xn, u, un, p, pn);  // R = x^((q+1)/2)
    int m = s;
    while (!is_one(t, tn)) {
        // The least i with t^(2^i) = 1.
        int i = 0;
        std::memcpy(u, t, tn * 8);
        un = tn;
        while (!is_one(u, un)) {
            ring.mul(u, un, u, un, u, un);
            i++;
            if (i == m)
                return false;
        }
        std::memcpy(b, c, cn * 8);
        bn = cn;
        for (int k = 0; k < m - i - 1; k++)
            ring.mul(b, bn, b, bn, b, bn);
        m = i;
        ring.mul(c, cn, b, bn, b, bn);
        ring.mul(t, tn, t, tn, c, cn);
        ring.mul(res, resn, res, resn, b, bn);
    }
    std::memcpy(r, res, resn * 8);
    rn = resn;
    return true;
}

void mpi_mont_mul(uint64_t* r, const uint64_t* a, const uint64_t* b, const uint64_t* m, int n,
                  uint64_t m0inv)
{
    // Curve-sized operands stay in a small stack block; this runs in every
    // step of a point multiplication.
    uint64_t small[34];
    std::vector<uint64_t> large;
    uint64_t* t = small;
    if (n + 2 > 34) {
        large.resize(n + 2);
        t = large.data();
    }
    // The first row writes t instead of adding to it, so t needs no clearing.
    t[n] = 0;
    for (int i = 0; i < n; i++) {
        uint64_t carry = 0;
        uint64_t bi = b[i];
        for (int j = 0; j < n; j++) {
            u128 s = (u128)a[j] * bi + (i ? t[j] : 0) + carry;
            t[j] = (uint64_t)s;
            carry = (uint64_t)(s >> 64);
        }
        u128 s = (u128)t[n] + carry;
        t[n] = (uint64_t)s;
        t[n + 1] = (uint64_t)(s >> 64);

        uint64_t k = t[0] * m0inv;
        s = (u128)k * m[0] + t[0];
        carry = (uint64_t)(s >> 64);
        for (int j = 1; j < n; j++) {
            s = (u128)k * m[j] + t[j] + carry;
            t[j - 1] = (uint64_t)s;
            carry = (uint64_t)(s >> 64);
        }
        s = (u128)t[n] + carry;
        t[n - 1] = (uint64_t)s;
        t[n] = t[n + 1] + (uint64_t)(s >> 64);
    }
    if (t[n] || mpi_cmp(t, n, m, n) >= 0)
        sub_from(t, n + 1, m, n);
    std::memcpy(r, t, n * 8);
}

uint64_t mpi_mont_m0inv(uint64_t m0)
{
    // Newton's iteration doubles the correct low bits each step.
    uint64_t x = m0;  // right to 3 bits for odd m0
    for (int i = 0; i < 5; i++)
        x *= 2 - m0 * x;
    return 0 - x;
}

static const unsigned short SMALL_PRIMES[] = {
    3,   5,   7,   11,  13,  17,  19,  23,  29,  31,  37,  41,  43,  47,  53,  59,  61,
    67,  71,  73,  79,  83,  89,  97,  101, 103, 107, 109, 113, 127, 131, 137, 139, 149,
    151, 157, 163, 167, 173, 179, 181, 191, 193, 197, 199, 211, 223, 227, 229, 233, 239};

bool mpi_is_prime(const uint64_t* a, int an, int rounds)
{
    if (rounds < 1)
        return true;
    an = mpi_normalize(a, an);
    if (an == 0)
        return false;
    if ((a[0] & 1) == 0)
        return an == 1 && a[0] == 2;
    if (an == 1 && a[0] < 4)
        return a[0] == 3;
    // Trial division first: it rejects most candidates cheaply.
    for (unsigned short prime : SMALL_PRIMES) {
        if (mpi_mod(a, an, prime) == 0)
            return an == 1 && a[0] == prime;
    }

    int n = an;
    std::vector<uint64_t> buffer(10 * (n + 1));
    uint64_t* d = buffer.data();
    uint64_t* one_m = d + (n + 1);          // R mod a
    uint64_t* minus_one_m = one_m + (n + 1);
    uint64_t* base = minus_one_m + (n + 1);
    uint64_t* base_m = base + (n + 1);
    uint64_t* x = base_m + (n + 1);
    uint64_t* wide = x + (n + 1);  // 2n + 1 limbs
    int dn, tn, basen;
    uint64_t m0inv = mpi_mont_m0inv(a[0]);

    // a - 1 = d 2^s
    mpi_sub(d, dn, a, an, g_mpi_one, 1);
    int s = 0;
    while ((d[0] & 1) == 0) {
        mpi_shift_right(d, dn, d, dn);
        s++;
    }
    std::memset(wide, 0, (2 * n + 1) * 8);
    wide[n] = 1;
    mpi_mod(one_m, tn, wide, n + 1, a, an);
    std::memset(one_m + tn, 0, (n - tn) * 8);
    mpi_sub(minus_one_m, tn, a, an, one_m, n);
    std::memset(minus_one_m + tn, 0, (n - tn) * 8);
    int dbits = mpi_get_bits(d, dn);

    for (int round = 0; round < rounds; round++) {
        Base::Random random((unsigned int)Base::Measure::get_clock());
        int bits = (int)(random.next() % (unsigned)(n * 64)) + 1;
        if (bits < 2)
            bits = 2;
        mpi_gen_random(&random, bits, wide, tn);
        mpi_mod(base, basen, wide, tn, a, an);
        if (basen == 0 || is_one(base, basen))
            continue;  // a trivial base proves nothing either way
        // base in Montgomery form: base R mod a.
        std::memset(wide, 0, 2 * n * 8);
        std::memcpy(wide + n, base, basen * 8);
        mpi_mod(base_m, tn, wide, n + basen, a, an);
        std::memset(base_m + tn, 0, (n - tn) * 8);

        std::memcpy(x, one_m, n * 8);
        for (int i = dbits - 1; i >= 0; i--) {
            mpi_mont_mul(x, x, x, a, n, m0inv);
            if ((d[i / 64] >> (i % 64)) & 1)
                mpi_mont_mul(x, x, base_m, a, n, m0inv);
        }
        if (std::memcmp(x, one_m, n * 8) == 0 || std::memcmp(x, minus_one_m, n * 8) == 0)
            continue;
        bool witness = true;
        for (int i = 1; i < s; i++) {
            mpi_mont_mul(x, x, x, a, n, m0inv);
            if (std::memcmp(x, minus_one_m, n * 8) == 0) {
                witness = false;
                break;
            }
            if (std::memcmp(x, one_m, n * 8) == 0)
                break;
        }
        if (witness)
            return false;
    }
    return true;
}

void mpi_gen_random(Base::Random* random, int bits, uint64_t* limbs, int& size)
{
    if (bits <= 0) {
        size = 0;
        return;
    }
    int n = (bits + 63) / 64;
    for (int i = 0; i < n; i++) {
        uint64_t high = random->next();
        uint64_t low = random->next();
        limbs[i] = (high << 32) | low;
    }
    int shift = (64 - bits % 64) % 64;
    limbs[n - 1] = (limbs[n - 1] | (1ULL << 63)) >> shift;
    size = n;
}

void mpi_gen_prime(Base::Random* random, int bits, int rounds, uint64_t* limbs, int& size)
{
    do {
        mpi_gen_random(random, bits, limbs, size);
        limbs[0] |= 1;
    } while (!mpi_is_prime(limbs, size, rounds));
}

void mpi_random_bytes(Base::Random* fallback, void* dst, int length)
{
    unsigned char* out = (unsigned char*)dst;
    int done = 0;
    while (done < length) {
        ssize_t got = getrandom(out + done, length - done, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += (int)got;
    }
    for (; done < length; done++)
        out[done] = (unsigned char)fallback->next();
}

void mpi_gen_secret(Base::Random* fallback, int bits, uint64_t* limbs, int& size)
{
    if (bits <= 0) {
        size = 0;
        return;
    }
    int n = (bits + 63) / 64;
    mpi_random_bytes(fallback, limbs, n * 8);
    int shift = (64 - bits % 64) % 64;
    limbs[n - 1] = (limbs[n - 1] | (1ULL << 63)) >> shift;
    size = n;
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

int mpi_to_hex(char* dst, const uint64_t* a, int an, bool upper)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    if (an <= 0) {
        dst[0] = '0';
        dst[1] = 0;
        return 1;
    }
    int k = 0;
    for (int i = an - 1; i >= 0; i--) {
        for (int shift = 60; shift >= 0; shift -= 4)
            dst[k++] = digits[(a[i] >> shift) & 15];
    }
    dst[k] = 0;
    return k;
}

bool mpi_from_hex(uint64_t* r, int& rn, const char* text)
{
    int length = (int)std::strlen(text);
    if (length == 0)
        return false;
    int n = (length + 15) / 16;
    std::memset(r, 0, n * 8);
    for (int i = 0; i < length; i++) {
        int v = hex_digit(text[length - 1 - i]);
        if (v < 0)
            return false;
        r[i / 16] |= (uint64_t)v << (4 * (i % 16));
    }
    rn = mpi_normalize(r, n);
    return true;
}

int mpi_to_dec(char* dst, const uint64_t* a, int an)
{
    an = mpi_normalize(a, an);
    if (an == 0) {
        dst[0] = '0';
        dst[1] = 0;
        return 1;
    }
    std::vector<uint64_t> t(a, a + an);
    std::vector<uint64_t> chunks;
    int tn = an;
    while (tn) {
        chunks.push_back(mpi_div(t.data(), tn, t.data(), tn, _mpi_dec_tab[19]));
    }
    int k = std::sprintf(dst, "%lu", (unsigned long)chunks.back());
    for (int i = (int)chunks.size() - 2; i >= 0; i--)
        k += std::sprintf(dst + k, "%019lu", (unsigned long)chunks[i]);
    return k;
}

bool mpi_from_dec(uint64_t* r, int& rn, const char* text)
{
    int length = (int)std::strlen(text);
    if (length == 0)
        return false;
    rn = 0;
    for (int start = 0; start < length;) {
        int count = length - start < 19 ? length - start : 19;
        uint64_t chunk = 0;
        for (int i = 0; i < count; i++) {
            char c = text[start + i];
            if (c < '0' || c > '9')
                return false;
            chunk = chunk * 10 + (c - '0');
        }
        uint64_t carry = mpi_mul_n1(r, r, rn, _mpi_dec_tab[count]);
        if (carry)
            r[rn++] = carry;
        if (rn == 0 && chunk) {
            r[0] = chunk;
            rn = 1;
        } else if (chunk) {
            uint64_t c[1] = {chunk};
            mpi_add(r, rn, r, rn, c, 1);
        }
        start += count;
    }
    rn = mpi_normalize(r, rn);
    return true;
}

void mpi_to_bytes(const uint64_t* a, int an, void* dst, int& length, bool trim)
{
    if (trim) {
        length = (mpi_get_bits(a, an) + 7) / 8;
    } else {
        length = an * 8;
    }
    if (!dst)
        return;
    unsigned char* out = (unsigned char*)dst;
    for (int i = 0; i < length; i++) {
        int k = length - 1 - i;  // byte index from the low end
        out[i] = (unsigned char)(a[k / 8] >> (8 * (k % 8)));
    }
}

void mpi_from_bytes(uint64_t* limbs, int& size, const void* src, int length)
{
    size = (length - 1) / 8 + 1;
    if (!limbs)
        return;
    std::memset(limbs, 0, size * 8);
    const unsigned char* in = (const unsigned char*)src;
    for (int i = 0; i < length; i++) {
        int k = length - 1 - i;
        limbs[k / 8] |= (uint64_t)in[i] << (8 * (k % 8));
    }
}

void mpi_output(const uint64_t* a, int an, FILE* stream)
{
    std::vector<char> text(16 * (an > 0 ? an : 1) + 1);
    mpi_to_hex(text.data(), a, an, true);
    std::fputs(text.data(), stream);
}

// MPInt ---------------------------------------------------------------------

static MPInt::Value* new_value(int capacity)
{
    MPInt::Value* v = new MPInt::Value;
    v->capacity = capacity;
    v->size = 0;
    v->negative = 0;
    v->reserved = 0;
    v->limbs = new uint64_t[capacity > 0 ? capacity : 1]();
    return v;
}

static void delete_value(MPInt::Value* v)
{
    if (v) {
        delete[] v->limbs;
        delete v;
    }
}

MPInt::MPInt() : value(nullptr) {}

MPInt::MPInt(unsigned long v) : value(nullptr)
{
    set_uint64(v);
}

MPInt::MPInt(const MPInt* other) : value(nullptr)
{
    assign(other);
}

MPInt::MPInt(const MPInt& other) : value(nullptr)
{
    assign(&other);
}

MPInt& MPInt::operator=(const MPInt& other)
{
    assign(&other);
    return *this;
}

MPInt::~MPInt()
{
    delete_value(value);
}

void MPInt::set_uint64(uint64_t v)
{
    resize(1);
    value->limbs[0] = v;
    value->size = v ? 1 : 0;
    value->negative = 0;
}

uint64_t MPInt::get_uint64() const
{
    return value && value->size ? value->limbs[0] : 0;
}

void MPInt::alloc(int limbs)
{
    if (!value || (int)value->capacity < limbs) {
        delete_value(value);
        value = new_value(limbs);
    }
    value->size = 0;
    value->negative = 0;
}

void MPInt::resize(int limbs)
{
    if (!value) {
        value = new_value(limbs);
        return;
    }
    if ((int)value->capacity >= limbs)
        return;
    Value* v = new_value(limbs);
    std::memcpy(v->limbs, value->limbs, value->size * 8);
    v->size = value->size;
    v->negative = value->negative;
    delete_value(value);
    value = v;
}

void MPInt::copy(const Value* v)
{
    if (!v) {
        clear();
        return;
    }
    if (v == value)
        return;
    alloc(v->size);
    std::memcpy(value->limbs, v->limbs, v->size * 8);
    value->size = v->size;
    value->negative = v->negative;
}

void MPInt::set(Value* v)
{
    if (v == value)
        return;
    delete_value(value);
    value = v;
}

void MPInt::assign(const MPInt* other)
{
    if (other != this)
        copy(other->value);
}

void MPInt::clear()
{
    if (value) {
        value->size = 0;
        value->negative = 0;
    }
}

void MPInt::neg()
{
    if (value && value->size)
        value->negative ^= 1;
}

void MPInt::abs()
{
    if (value)
        value->negative = 0;
}

bool MPInt::is_zero() const
{
    return !value || value->size == 0;
}

bool MPInt::is_negative() const
{
    return value && value->size && value->negative;
}

int MPInt::get_bits() const
{
    return value ? mpi_get_bits(value->limbs, value->size) : 0;
}

int MPInt::cmp(const MPInt* other) const
{
    bool an = is_negative(), bn = other->is_negative();
    if (an != bn)
        return an ? -1 : 1;
    int c = mpi_cmp(value ? value->limbs : nullptr, value ? value->size : 0,
                    other->value ? other->value->limbs : nullptr,
                    other->value ? other->value->size : 0);
    return an ? -c : c;
}

// this = this + sign * other, with other given as limbs.
static void add_signed(MPInt* self, MPInt::Value*& value, const uint64_t* b, int bn, bool bneg)
{
    int an = value ? (int)value->size : 0;
    int n = (an > bn ? an : bn) + 1;
    self->resize(n);
    int rn;
    bool rneg;
    mpi_add(value->limbs, rn, rneg, value->limbs, an, value->negative != 0, b, bn, bneg);
    value->size = rn;
    value->negative = rneg ? 1 : 0;
}

void MPInt::add(const MPInt* other)
{
    if (other->is_zero())
        return;
    if (other == this) {
        shift_left();
        return;
    }
    add_signed(this, value, other->value->limbs, other->value->size, other->value->negative != 0);
}

void MPInt::add(unsigned long v)
{
    uint64_t b[1] = {v};
    add_signed(this, value, b, v ? 1 : 0, false);
}

void MPInt::sub(const MPInt* other)
{
    if (other->is_zero())
        return;
    if (other == this) {
        clear();
        return;
    }
    add_signed(this, value, other->value->limbs, other->value->size, other->value->negative == 0);
}

void MPInt::sub(unsigned long v)
{
    uint64_t b[1] = {v};
    add_signed(this, value, b, v ? 1 : 0, true);
}

void MPInt::mul(const MPInt* other)
{
    int an = value ? (int)value->size : 0;
    int bn = other->value ? (int)other->value->size : 0;
    if (an == 0 || bn == 0) {
        clear();
        return;
    }
    Value* r = new_value(an + bn);
    int rn;
    mpi_mul(r->limbs, rn, value->limbs, an, other->value->limbs, bn);
    r->size = rn;
    r->negative = (value->negative ^ other->value->negative) & 1;
    set(r);
}

bool MPInt::div(const MPInt* divisor, MPInt* remainder)
{
    if (divisor->is_zero())
        return false;
    const Value* b = divisor->value;
    int an = value ? (int)value->size : 0;
    int bn = (int)b->size;
    uint32_t aneg = is_negative() ? 1 : 0;
    uint32_t bneg = divisor->is_negative() ? 1 : 0;
    int qcap = an - bn + 1 > 0 ? an - bn + 1 : 1;
    Value* q = new_value(qcap);
    Value* r = new_value(bn);
    int qn, rn;
    mpi_div(q->limbs, qn, r->limbs, rn, value ? value->limbs : q->limbs, an, b->limbs, bn);
    q->size = qn;
    q->negative = qn ? (aneg ^ bneg) : 0;
    r->size = rn;
    r->negative = rn ? aneg : 0;
    if (remainder && remainder != this)
        remainder->set(r);
    else
        delete_value(r);
    set(q);
    return true;
}

void MPInt::shift_left()
{
    if (is_zero())
        return;
    resize(value->size + 1);
    int rn;
    mpi_shift_left(value->limbs, rn, value->limbs, value->size);
    value->size = rn;
}

void MPInt::shift_right()
{
    if (is_zero())
        return;
    int rn;
    mpi_shift_right(value->limbs, rn, value->limbs, value->size);
    value->size = rn;
    if (rn == 0)
        value->negative = 0;
}

bool MPInt::from_str(const char* text)
{
    bool negative = false;
    if (*text == '-') {
        negative = true;
        text++;
    }
    int length = (int)std::strlen(text);
    bool ok;
    int rn = 0;
    if (length > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        alloc((length - 2 + 15) / 16);
        ok = mpi_from_hex(value->limbs, rn, text + 2);
    } else {
        alloc(length / 19 + 1);
        ok = mpi_from_dec(value->limbs, rn, text);
    }
    if (!ok) {
        clear();
        return false;
    }
    value->size = rn;
    value->negative = negative && rn ? 1 : 0;
    return true;
}

int MPInt::to_str(char* text, bool upper) const
{
    int k = 0;
    if (is_negative())
        text[k++] = '-';
    text[k++] = '0';
    text[k++] = 'x';
    k += mpi_to_hex(text + k, value ? value->limbs : nullptr, value ? value->size : 0, upper);
    return k;
}

void MPInt::to_bytes(void* dst, int& length, int& negative) const
{
    negative = is_negative() ? 1 : 0;
    if (!value) {
        length = 0;
        return;
    }
    mpi_to_bytes(value->limbs, value->size, dst, length, true);
}

void MPInt::from_bytes(const void* src, int length, int negative)
{
    int n;
    mpi_from_bytes(nullptr, n, src, length);
    alloc(n);
    mpi_from_bytes(value->limbs, n, src, length);
    value->size = mpi_normalize(value->limbs, n);
    value->negative = negative && value->size ? 1 : 0;
}

void MPInt::output(FILE* stream) const
{
    std::vector<char> text(16 * (value ? value->size : 0) + 8);
    to_str(text.data(), true);
    std::fputs(text.data(), stream);
}

bool MPInt::is_prime(int rounds) const
{
    if (is_negative())
        return false;
    return mpi_is_prime(value ? value->limbs : nullptr, value ? value->size : 0, rounds);
}

bool MPInt::is_safe_prime() const
{
    // A safe prime p = 2q + 1 with q prime: this is q, tested with 2q + 1.
    if (!is_prime(16))
        return false;
    MPInt twice(this);
    twice.shift_left();
    twice.add(1UL);
    return twice.is_prime(16);
}

void MPInt::gen_random(Base::Random* random, int bits)
{
    alloc((bits + 63) / 64);
    int n;
    mpi_gen_random(random, bits, value->limbs, n);
    value->size = n;
}

void MPInt::gen_prime(Base::Random* random, int bits, int rounds)
{
    alloc(bits / 64 + 1);
    int n;
    mpi_gen_prime(random, bits, rounds, value->limbs, n);
    value->size = n;
}

}  // namespace Cipher

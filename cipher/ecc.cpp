// Point arithmetic over a prime field; see ecc.h for the contract.
#include "cipher/ecc.h"

#include <cstring>
#include <memory>

#include "cipher/mpint.h"

namespace Cipher {

namespace {

const int W = ECC_MAX_LIMBS + 2;  // room for a field element and a carry

void copy_num(uint64_t* r, int& rn, const uint64_t* a, int an)
{
    if (r != a && an > 0)
        std::memmove(r, a, an * 8);
    rn = an;
}

// Field operations modulo p on reduced operands; each result goes through a
// local so that it may share storage with an operand.
// With montgomery set, operands and results of mul are in Montgomery form
// (x R mod p, R = 2^(64 pn)), which spares the division of each product;
// add and sub are the same in both forms.
struct Field {
    const uint64_t* p;
    int pn;
    bool montgomery = false;
    uint64_t m0inv = 0;
    bool a_is_minus_3 = false;  // a = p - 3, as on the SM2 curve: a shorter doubling

    void check_a(const uint64_t* a, int an)
    {
        uint64_t t[W];
        int tn;
        uint64_t three[1] = {3};
        mpi_add(t, tn, a, mpi_normalize(a, an), three, 1);
        a_is_minus_3 = mpi_equal_num(t, tn, p, pn);
    }

    void mul(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn) const
    {
        if (montgomery) {
            // The product reads pn limbs of each operand: pad them with zeros.
            uint64_t ta[W], tb[W];
            an = mpi_normalize(a, an);
            bn = mpi_normalize(b, bn);
            for (int i = 0; i < pn; i++) {
                ta[i] = i < an ? a[i] : 0;
                tb[i] = i < bn ? b[i] : 0;
            }
            mpi_mont_mul(ta, ta, tb, p, pn, m0inv);
            copy_num(r, rn, ta, mpi_normalize(ta, pn));
            return;
        }
        uint64_t t[2 * W];
        int tn;
        mpi_mul(t, tn, a, an, b, bn);
        mpi_mod(r, rn, t, tn, p, pn);
    }
    // x R mod p, for x below p.
    void to_montgomery(uint64_t* r, int& rn, const uint64_t* x, int xn) const
    {
        uint64_t t[2 * W] = {};
        xn = mpi_normalize(x, xn);
        std::memcpy(t + pn, x, xn * 8);
        mpi_mod(r, rn, t, pn + xn, p, pn);
    }
    // x / R mod p: the Montgomery product with 1.
    void from_montgomery(uint64_t* r, int& rn, const uint64_t* x, int xn) const
    {
        uint64_t t[W] = {}, one[W] = {1};
        std::memcpy(t, x, mpi_normalize(x, xn) * 8);
        mpi_mont_mul(t, t, one, p, pn, m0inv);
        copy_num(r, rn, t, mpi_normalize(t, pn));
    }
    void add(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn) const
    {
        uint64_t t[W];
        int tn;
        mpi_add(t, tn, a, an, b, bn);
        if (mpi_cmp(t, tn, p, pn) >= 0)
            mpi_sub(t, tn, t, tn, p, pn);
        copy_num(r, rn, t, tn);
    }
    void sub(uint64_t* r, int& rn, const uint64_t* a, int an, const uint64_t* b, int bn) const
    {
        uint64_t t[W];
        int tn;
        if (mpi_cmp(a, an, b, bn) >= 0) {
            mpi_sub(t, tn, a, an, b, bn);
        } else {
            mpi_add(t, tn, a, an, p, pn);
            mpi_sub(t, tn, t, tn, b, bn);
        }
        copy_num(r, rn, t, tn);
    }
    void reduce(uint64_t* r, int& rn, const uint64_t* a, int an) const
    {
        mpi_mod(r, rn, a, an, p, pn);
    }
};

struct Num {
    uint64_t v[W];
    int n = 0;
};

}  // namespace

bool ecc_coordinate_is_infinite(const uint64_t* c, int cn)
{
    return cn == 0 && (c == nullptr || c[0] == 0);
}

void ecc_coordinate_set_infinite(uint64_t* c, int& cn)
{
    if (c)
        c[0] = 0;
    cn = 0;
}

bool ecc_point_is_infinite(const uint64_t* x, int xn, const uint64_t* y, int yn)
{
    return ecc_coordinate_is_infinite(x, xn) && ecc_coordinate_is_infinite(y, yn);
}

void ecc_point_set_infinite(uint64_t* x, int& xn, uint64_t* y, int& yn)
{
    ecc_coordinate_set_infinite(x, xn);
    ecc_coordinate_set_infinite(y, yn);
}

bool ecc_point_equal(const uint64_t* x1, int x1n, const uint64_t* y1, int y1n,
                     const uint64_t* x2, int x2n, const uint64_t* y2, int y2n)
{
    return mpi_equal_num(x1, x1n, x2, x2n) && mpi_equal_num(y1, y1n, y2, y2n);
}

void ecc_point_copy(uint64_t* dx, int& dxn, uint64_t* dy, int& dyn,
                    const uint64_t* sx, int sxn, const uint64_t* sy, int syn)
{
    copy_num(dx, dxn, sx, mpi_normalize(sx, sxn));
    copy_num(dy, dyn, sy, mpi_normalize(sy, syn));
    if (dxn == 0 && dx)
        dx[0] = 0;
    if (dyn == 0 && dy)
        dy[0] = 0;
}

void ecc_point_y_square(uint64_t* r, int& rn, const uint64_t* x, int xn, const uint64_t* a,
                        int an, const uint64_t* b, int bn, const uint64_t* p, int pn)
{
    Field f{p, mpi_normalize(p, pn)};
    Num t, ax, xr;
    f.reduce(xr.v, xr.n, x, xn);
    f.mul(t.v, t.n, xr.v, xr.n, xr.v, xr.n);
    f.mul(t.v, t.n, t.v, t.n, xr.v, xr.n);
    f.mul(ax.v, ax.n, a, an, xr.v, xr.n);
    f.reduce(ax.v, ax.n, ax.v, ax.n);
    f.add(t.v, t.n, t.v, t.n, ax.v, ax.n);
    Num br;
    f.reduce(br.v, br.n, b, bn);
    f.add(t.v, t.n, t.v, t.n, br.v, br.n);
    copy_num(r, rn, t.v, t.n);
}

bool ecc_point_y(uint64_t* y, int& yn, const uint64_t* x, int xn, const uint64_t* a, int an,
                 const uint64_t* b, int bn, const uint64_t* p, int pn)
{
    Num s;
    ecc_point_y_square(s.v, s.n, x, xn, a, an, b, bn, p, pn);
    return mpi_square_root(y, yn, s.v, s.n, p, pn);
}

bool ecc_point_check(const uint64_t* x, int xn, const uint64_t* y, int yn, const uint64_t* a,
                     int an, const uint64_t* b, int bn, const uint64_t* p, int pn)
{
    if (ecc_point_is_infinite(x, xn, y, yn))
        return true;
    pn = mpi_normalize(p, pn);
    if (mpi_cmp(x, xn, p, pn) >= 0 || mpi_cmp(y, yn, p, pn) >= 0)
        return false;
    Field f{p, pn};
    Num lhs, rhs;
    f.mul(lhs.v, lhs.n, y, mpi_normalize(y, yn), y, mpi_normalize(y, yn));
    ecc_point_y_square(rhs.v, rhs.n, x, xn, a, an, b, bn, p, pn);
    return mpi_equal_num(lhs.v, lhs.n, rhs.v, rhs.n);
}

bool ecc_point_is_negative(const uint64_t* x1, int x1n, const uint64_t* y1, int y1n,
                           const uint64_t* x2, int x2n, const uint64_t* y2, int y2n,
                           const uint64_t* p, int pn)
{
    if (!mpi_equal_num(x1, x1n, x2, x2n))
        return false;
    Field f{p, mpi_normalize(p, pn)};
    Num s;
    f.add(s.v, s.n, y1, mpi_normalize(y1, y1n), y2, mpi_normalize(y2, y2n));
    return s.n == 0;
}

void ecc_point_set_negative(uint64_t* x, int& xn, uint64_t* y, int& yn, const uint64_t* p, int pn)
{
    yn = mpi_normalize(y, yn);
    if (yn == 0)
        return;
    Num t;
    mpi_sub(t.v, t.n, p, mpi_normalize(p, pn), y, yn);
    copy_num(y, yn, t.v, t.n);
}

void ecc_point_add(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x1, int x1n,
                   const uint64_t* y1, int y1n, const uint64_t* x2, int x2n, const uint64_t* y2,
                   int y2n, const uint64_t* a, int an, const uint64_t* p, int pn)
{
    x1n = mpi_normalize(x1, x1n);
    y1n = mpi_normalize(y1, y1n);
    x2n = mpi_normalize(x2, x2n);
    y2n = mpi_normalize(y2, y2n);
    if (ecc_point_is_infinite(x1, x1n, y1, y1n)) {
        ecc_point_copy(rx, rxn, ry, ryn, x2, x2n, y2, y2n);
        return;
    }
    if (ecc_point_is_infinite(x2, x2n, y2, y2n)) {
        ecc_point_copy(rx, rxn, ry, ryn, x1, x1n, y1, y1n);
        return;
    }
    if (ecc_point_is_negative(x1, x1n, y1, y1n, x2, x2n, y2, y2n, p, pn)) {
        ecc_point_set_infinite(rx, rxn, ry, ryn);
        return;
    }
    pn = mpi_normalize(p, pn);
    Field f{p, pn};
    Num lambda, num, den, t, x3, y3;
    if (mpi_equal_num(x1, x1n, x2, x2n)) {
        // Tangent: (3 x^2 + a) / 2y.
        f.mul(t.v, t.n, x1, x1n, x1, x1n);
        f.add(num.v, num.n, t.v, t.n, t.v, t.n);
        f.add(num.v, num.n, num.v, num.n, t.v, t.n);
        Num ar;
        f.reduce(ar.v, ar.n, a, an);
        f.add(num.v, num.n, num.v, num.n, ar.v, ar.n);
        f.add(den.v, den.n, y1, y1n, y1, y1n);
    } else {
        f.sub(num.v, num.n, y2, y2n, y1, y1n);
        f.sub(den.v, den.n, x2, x2n, x1, x1n);
    }
    mpi_inverse(t.v, t.n, den.v, den.n, p, pn);
    f.mul(lambda.v, lambda.n, num.v, num.n, t.v, t.n);
    f.mul(x3.v, x3.n, lambda.v, lambda.n, lambda.v, lambda.n);
    f.sub(x3.v, x3.n, x3.v, x3.n, x1, x1n);
    f.sub(x3.v, x3.n, x3.v, x3.n, x2, x2n);
    f.sub(t.v, t.n, x1, x1n, x3.v, x3.n);
    f.mul(y3.v, y3.n, lambda.v, lambda.n, t.v, t.n);
    f.sub(y3.v, y3.n, y3.v, y3.n, y1, y1n);
    ecc_point_copy(rx, rxn, ry, ryn, x3.v, x3.n, y3.v, y3.n);
}

void ecc_point_mul(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x, int xn,
                   const uint64_t* y, int yn, const uint64_t* k, int kn, const uint64_t* a, int an,
                   const uint64_t* p, int pn)
{
    Num bx, by, ax, ay;
    ecc_point_copy(bx.v, bx.n, by.v, by.n, x, xn, y, yn);
    ecc_point_set_infinite(ax.v, ax.n, ay.v, ay.n);
    int bits = mpi_get_bits(k, kn);
    for (int i = 0; i < bits; i++) {
        if ((k[i / 64] >> (i % 64)) & 1)
            ecc_point_add(ax.v, ax.n, ay.v, ay.n, ax.v, ax.n, ay.v, ay.n, bx.v, bx.n, by.v, by.n, a,
                          an, p, pn);
        if (i + 1 < bits)
            ecc_point_add(bx.v, bx.n, by.v, by.n, bx.v, bx.n, by.v, by.n, bx.v, bx.n, by.v, by.n, a,
                          an, p, pn);
    }
    ecc_point_copy(rx, rxn, ry, ryn, ax.v, ax.n, ay.v, ay.n);
}

// P = 2P over the field f; a is in f's form.
static void double_jacobian(const Field& f, uint64_t* x, int& xn, uint64_t* y, int& yn,
                            uint64_t* z, int& zn, const uint64_t* a, int an)
{
    if (zn == 0 || yn == 0) {
        ecc_coordinate_set_infinite(z, zn);
        return;
    }
    Num xx, yy, yyyy, zz, s, m, t;
    f.mul(yy.v, yy.n, y, yn, y, yn);
    f.mul(yyyy.v, yyyy.n, yy.v, yy.n, yy.v, yy.n);
    f.mul(zz.v, zz.n, z, zn, z, zn);
    // S = 4 X YY
    f.mul(s.v, s.n, x, xn, yy.v, yy.n);
    f.add(s.v, s.n, s.v, s.n, s.v, s.n);
    f.add(s.v, s.n, s.v, s.n, s.v, s.n);
    if (f.a_is_minus_3) {
        // M = 3 (X - ZZ)(X + ZZ), the same as 3 XX - 3 ZZ^2
        f.sub(t.v, t.n, x, xn, zz.v, zz.n);
        f.add(xx.v, xx.n, x, xn, zz.v, zz.n);
        f.mul(t.v, t.n, t.v, t.n, xx.v, xx.n);
        f.add(m.v, m.n, t.v, t.n, t.v, t.n);
        f.add(m.v, m.n, m.v, m.n, t.v, t.n);
    } else {
        // M = 3 XX + a ZZ^2
        f.mul(xx.v, xx.n, x, xn, x, xn);
        f.add(m.v, m.n, xx.v, xx.n, xx.v, xx.n);
        f.add(m.v, m.n, m.v, m.n, xx.v, xx.n);
        f.mul(t.v, t.n, zz.v, zz.n, zz.v, zz.n);
        f.mul(t.v, t.n, t.v, t.n, a, an);
        f.add(m.v, m.n, m.v, m.n, t.v, t.n);
    }
    // Z3 = 2 Y Z, before Y changes
    f.mul(t.v, t.n, y, yn, z, zn);
    f.add(z, zn, t.v, t.n, t.v, t.n);
    // X3 = M^2 - 2 S
    f.mul(t.v, t.n, m.v, m.n, m.v, m.n);
    f.sub(t.v, t.n, t.v, t.n, s.v, s.n);
    f.sub(x, xn, t.v, t.n, s.v, s.n);
    // Y3 = M (S - X3) - 8 YYYY
    f.sub(t.v, t.n, s.v, s.n, x, xn);
    f.mul(t.v, t.n, m.v, m.n, t.v, t.n);
    f.add(yyyy.v, yyyy.n, yyyy.v, yyyy.n, yyyy.v, yyyy.n);
    f.add(yyyy.v, yyyy.n, yyyy.v, yyyy.n, yyyy.v, yyyy.n);
    f.add(yyyy.v, yyyy.n, yyyy.v, yyyy.n, yyyy.v, yyyy.n);
    f.sub(y, yn, t.v, t.n, yyyy.v, yyyy.n);
}

// P1 = P1 + P2 over the field f; a is in f's form.
static void add_jacobian(const Field& f, uint64_t* x1, int& x1n, uint64_t* y1, int& y1n,
                         uint64_t* z1, int& z1n, const uint64_t* x2, int x2n, const uint64_t* y2,
                         int y2n, const uint64_t* z2, int z2n, const uint64_t* a, int an)
{
    if (z2n == 0)
        return;
    if (z1n == 0) {
        copy_num(x1, x1n, x2, x2n);
        copy_num(y1, y1n, y2, y2n);
        copy_num(z1, z1n, z2, z2n);
        return;
    }
    Num z1z1, z2z2, u1, u2, s1, s2, h, r, hh, hhh, v, t;
    f.mul(z1z1.v, z1z1.n, z1, z1n, z1, z1n);
    f.mul(z2z2.v, z2z2.n, z2, z2n, z2, z2n);
    f.mul(u1.v, u1.n, x1, x1n, z2z2.v, z2z2.n);
    f.mul(u2.v, u2.n, x2, x2n, z1z1.v, z1z1.n);
    f.mul(s1.v, s1.n, y1, y1n, z2, z2n);
    f.mul(s1.v, s1.n, s1.v, s1.n, z2z2.v, z2z2.n);
    f.mul(s2.v, s2.n, y2, y2n, z1, z1n);
    f.mul(s2.v, s2.n, s2.v, s2.n, z1z1.v, z1z1.n);
    if (mpi_equal_num(u1.v, u1.n, u2.v, u2.n)) {
        if (mpi_equal_num(s1.v, s1.n, s2.v, s2.n))
            double_jacobian(f, x1, x1n, y1, y1n, z1, z1n, a, an);
        else
            ecc_coordinate_set_infinite(z1, z1n);
        return;
    }
    f.sub(h.v, h.n, u2.v, u2.n, u1.v, u1.n);
    f.sub(r.v, r.n, s2.v, s2.n, s1.v, s1.n);
    f.mul(hh.v, hh.n, h.v, h.n, h.v, h.n);
    f.mul(hhh.v, hhh.n, h.v, h.n, hh.v, hh.n);
    f.mul(v.v, v.n, u1.v, u1.n, hh.v, hh.n);
    // Z3 = Z1 Z2 H
    f.mul(t.v, t.n, z1, z1n, z2, z2n);
    f.mul(z1, z1n, t.v, t.n, h.v, h.n);
    // X3 = R^2 - HHH - 2 V
    f.mul(t.v, t.n, r.v, r.n, r.v, r.n);
    f.sub(t.v, t.n, t.v, t.n, hhh.v, hhh.n);
    f.sub(t.v, t.n, t.v, t.n, v.v, v.n);
    f.sub(x1, x1n, t.v, t.n, v.v, v.n);
    // Y3 = R (V - X3) - S1 HHH
    f.sub(t.v, t.n, v.v, v.n, x1, x1n);
    f.mul(t.v, t.n, r.v, r.n, t.v, t.n);
    f.mul(s1.v, s1.n, s1.v, s1.n, hhh.v, hhh.n);
    f.sub(y1, y1n, t.v, t.n, s1.v, s1.n);
}

void ecc_point_double_jacobian(uint64_t* x, int& xn, uint64_t* y, int& yn, uint64_t* z, int& zn,
                               const uint64_t* a, int an, const uint64_t* p, int pn)
{
    Field f{p, mpi_normalize(p, pn)};
    f.check_a(a, an);
    double_jacobian(f, x, xn, y, yn, z, zn, a, an);
}

void ecc_point_add_jacobian(uint64_t* x1, int& x1n, uint64_t* y1, int& y1n, uint64_t* z1,
                            int& z1n, const uint64_t* x2, int x2n, const uint64_t* y2, int y2n,
                            const uint64_t* z2, int z2n, const uint64_t* a, int an,
                            const uint64_t* p, int pn)
{
    Field f{p, mpi_normalize(p, pn)};
    f.check_a(a, an);
    add_jacobian(f, x1, x1n, y1, y1n, z1, z1n, x2, x2n, y2, y2n, z2, z2n, a, an);
}

void ecc_point_mul_jacobian(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x,
                            int xn, const uint64_t* y, int yn, const uint64_t* k, int kn,
                            const uint64_t* a, int an, const uint64_t* p, int pn)
{
    kn = mpi_normalize(k, kn);
    pn = mpi_normalize(p, pn);
    if (kn == 0 || ecc_point_is_infinite(x, xn, y, yn)) {
        ecc_point_set_infinite(rx, rxn, ry, ryn);
        return;
    }
    if (kn == 1 && k[0] == 1) {
        ecc_point_copy(rx, rxn, ry, ryn, x, xn, y, yn);
        return;
    }

    // One heap block for the whole computation: base, accumulator, scalar.
    const int BUFFER_LIMBS = 8192 / 8;
    std::unique_ptr<uint64_t[]> buffer(new uint64_t[BUFFER_LIMBS]);
    uint64_t* bx = buffer.get();
    uint64_t* by = bx + W;
    uint64_t* bz = by + W;
    uint64_t* ax = bz + W;
    uint64_t* ay = ax + W;
    uint64_t* az = ay + W;
    uint64_t* zinv = az + W;
    uint64_t* t = zinv + W;
    uint64_t* scalar = t + 2 * W;
    int scalar_room = BUFFER_LIMBS - (int)(scalar - bx);
    if (kn > scalar_room) {
        kn = scalar_room;  // scalars are field-sized; far larger ones are cut
    }
    int bxn, byn, bzn, axn = 0, ayn = 0, azn = 0, zinvn, tn, sn = kn;
    std::memcpy(scalar, k, kn * 8);
    Field f{p, pn};
    // The loop runs in Montgomery form when p is odd, as a prime field's is.
    Field m{p, pn, (p[0] & 1) != 0, (p[0] & 1) ? mpi_mont_m0inv(p[0]) : 0};
    uint64_t ar[W];
    int arn;
    f.reduce(bx, bxn, x, mpi_normalize(x, xn));
    f.reduce(by, byn, y, mpi_normalize(y, yn));
    f.reduce(ar, arn, a, mpi_normalize(a, an));
    m.check_a(ar, arn);
    bz[0] = 1;
    bzn = 1;
    if (m.montgomery) {
        m.to_montgomery(bx, bxn, bx, bxn);
        m.to_montgomery(by, byn, by, byn);
        m.to_montgomery(bz, bzn, bz, bzn);
        m.to_montgomery(ar, arn, ar, arn);
    }

    while (sn) {
        if (scalar[0] & 1) {
            add_jacobian(m, ax, axn, ay, ayn, az, azn, bx, bxn, by, byn, bz, bzn, ar, arn);
            scalar[0] &= ~1ULL;
            sn = mpi_normalize(scalar, sn);
        } else {
            double_jacobian(m, bx, bxn, by, byn, bz, bzn, ar, arn);
            mpi_shift_right(scalar, sn, scalar, sn);
        }
    }
    if (m.montgomery) {
        m.from_montgomery(ax, axn, ax, axn);
        m.from_montgomery(ay, ayn, ay, ayn);
        m.from_montgomery(az, azn, az, azn);
    }
    if (azn == 0) {
        ecc_point_set_infinite(rx, rxn, ry, ryn);
        return;
    }
    // x = X / Z^2, y = Y / Z^3
    mpi_inverse(zinv, zinvn, az, azn, p, pn);
    f.mul(t, tn, zinv, zinvn, zinv, zinvn);
    f.mul(ax, axn, ax, axn, t, tn);
    f.mul(t, tn, t, tn, zinv, zinvn);
    f.mul(ay, ayn, ay, ayn, t, tn);
    ecc_point_copy(rx, rxn, ry, ryn, ax, axn, ay, ayn);
}

}  // namespace Cipher

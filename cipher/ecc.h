// Arithmetic on the points of a short Weierstrass curve y^2 = x^3 + a x + b
// over the prime field of p, for SM2.
//
// A coordinate is a number of mpint.h: limbs and a count. A coordinate is
// infinite when its count is 0 and its limbs are null or hold 0 in the first
// limb; a point is at infinity when both of its coordinates are. Points are
// passed as separate x and y pairs. Coordinates are below p, and result
// coordinates need the limbs of p (at most ECC_MAX_LIMBS). Results may share
// storage with operands unless a function says otherwise.
//
// The affine forms (ecc_point_add, ecc_point_mul) suit any curve and are
// slow; ecc_point_mul_jacobian is the one for keys and encryption.
#pragma once

#include <cstdint>

namespace Cipher {

const int ECC_MAX_LIMBS = 16;

bool ecc_coordinate_is_infinite(const uint64_t* c, int cn);
void ecc_coordinate_set_infinite(uint64_t* c, int& cn);
bool ecc_point_is_infinite(const uint64_t* x, int xn, const uint64_t* y, int yn);
void ecc_point_set_infinite(uint64_t* x, int& xn, uint64_t* y, int& yn);
bool ecc_point_equal(const uint64_t* x1, int x1n, const uint64_t* y1, int y1n,
                     const uint64_t* x2, int x2n, const uint64_t* y2, int y2n);
void ecc_point_copy(uint64_t* dx, int& dxn, uint64_t* dy, int& dyn,
                    const uint64_t* sx, int sxn, const uint64_t* sy, int syn);

// r = x^3 + a x + b mod p.
void ecc_point_y_square(uint64_t* r, int& rn, const uint64_t* x, int xn, const uint64_t* a,
                        int an, const uint64_t* b, int bn, const uint64_t* p, int pn);
// A y of the point with this x; false when x is on no point.
bool ecc_point_y(uint64_t* y, int& yn, const uint64_t* x, int xn, const uint64_t* a, int an,
                 const uint64_t* b, int bn, const uint64_t* p, int pn);
// Whether the point lies on the curve; infinity passes.
bool ecc_point_check(const uint64_t* x, int xn, const uint64_t* y, int yn, const uint64_t* a,
                     int an, const uint64_t* b, int bn, const uint64_t* p, int pn);
// Whether the second point is the negative of the first.
bool ecc_point_is_negative(const uint64_t* x1, int x1n, const uint64_t* y1, int y1n,
                           const uint64_t* x2, int x2n, const uint64_t* y2, int y2n,
                           const uint64_t* p, int pn);
void ecc_point_set_negative(uint64_t* x, int& xn, uint64_t* y, int& yn, const uint64_t* p, int pn);

// Affine: r = P1 + P2, r = k P.
void ecc_point_add(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x1, int x1n,
                   const uint64_t* y1, int y1n, const uint64_t* x2, int x2n, const uint64_t* y2,
                   int y2n, const uint64_t* a, int an, const uint64_t* p, int pn);
void ecc_point_mul(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x, int xn,
                   const uint64_t* y, int yn, const uint64_t* k, int kn, const uint64_t* a, int an,
                   const uint64_t* p, int pn);

// Jacobian: (X, Y, Z) stands for (X / Z^2, Y / Z^3); Z = 0 is infinity.
// Each array holds the limbs of p. In place: P = 2P, P1 = P1 + P2.
void ecc_point_double_jacobian(uint64_t* x, int& xn, uint64_t* y, int& yn, uint64_t* z, int& zn,
                               const uint64_t* a, int an, const uint64_t* p, int pn);
void ecc_point_add_jacobian(uint64_t* x1, int& x1n, uint64_t* y1, int& y1n, uint64_t* z1,
                            int& z1n, const uint64_t* x2, int x2n, const uint64_t* y2, int y2n,
                            const uint64_t* z2, int z2n, const uint64_t* a, int an,
                            const uint64_t* p, int pn);
// r = k P through Jacobian coordinates, back to affine at the end.
void ecc_point_mul_jacobian(uint64_t* rx, int& rxn, uint64_t* ry, int& ryn, const uint64_t* x,
                            int xn, const uint64_t* y, int yn, const uint64_t* k, int kn,
                            const uint64_t* a, int an, const uint64_t* p, int pn);

}  // namespace Cipher

// SM2 encryption over the curve arithmetic of ecc.h; see sm2.h.
#include "cipher/sm2.h"

#include <cstring>
#include <vector>

#include "base/measure.h"
#include "base/byteorder.h"
#include "cipher/ecc.h"
#include "cipher/mpint.h"
#include "cipher/sm3.h"

namespace Cipher {

// The recommended curve of GB/T 32918.5.
static const char* const SM2_P = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF";
static const char* const SM2_A = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFC";
static const char* const SM2_B = "28E9FA9E9D9F5E344D5A9E4BCF6509A7F39789F515AB8F92DDBCBD414D940E93";
static const char* const SM2_N = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123";
static const char* const SM2_GX = "32C4AE2C1F1981195F9904466A39C9948FE30BBFF2660BE1715A4589334C74C7";
static const char* const SM2_GY = "BC3736A2F4F6779C59BDCEE36B692153D0A9877CC62A474002DF32E52139F0A0";

static const int HASH_SIZE = 32;

void kdf(char* out, int out_length, const char* z, int z_length, char* scratch)
{
    if (scratch != z)
        std::memmove(scratch, z, z_length);
    unsigned char* counter = reinterpret_cast<unsigned char*>(scratch) + z_length;
    for (uint32_t ct = 1; out_length > 0; ct++) {
        Base::put_be32(counter, ct);
        Sm3 hash;
        hash.update(scratch, z_length + 4);
        hash.final();
        int take = out_length < HASH_SIZE ? out_length : HASH_SIZE;
        std::memcpy(out, hash.digest(), take);
        out += take;
        out_length -= take;
    }
}

Sm2::Sm2(bool mask)
    : random((unsigned int)(Base::Measure::get_clock() ^ (uintptr_t)this)),
      mask_with_public_key(mask),
      storage(nullptr)
{
    init(SM2_P, SM2_A, SM2_B, SM2_N, SM2_GX, SM2_GY);
}

Sm2::Sm2(const char* p_hex, const char* a_hex, const char* b_hex, const char* n_hex,
         const char* gx_hex, const char* gy_hex, bool mask)
    : random((unsigned int)(Base::Measure::get_clock() ^ (uintptr_t)this)),
      mask_with_public_key(mask),
      storage(nullptr)
{
    init(p_hex, a_hex, b_hex, n_hex, gx_hex, gy_hex);
}

Sm2::~Sm2()
{
    if (storage)
        std::memset(storage, 0, sizeof(uint64_t) * 10 * limbs);
    delete[] storage;
}

void Sm2::init(const char* p_hex, const char* a_hex, const char* b_hex, const char* n_hex,
               const char* gx_hex, const char* gy_hex)
{
    limbs = (int)(std::strlen(p_hex) / 16);
    if (limbs < 1)
        limbs = 1;
    if (limbs > ECC_MAX_LIMBS)
        limbs = ECC_MAX_LIMBS;
    storage = new uint64_t[10 * limbs]();
    Number* all[10] = {&p, &a, &b, &n, &gx, &gy, &d, &px, &py, &k};
    for (int i = 0; i < 10; i++) {
        all[i]->v = storage + i * limbs;
        all[i]->n = 0;
    }
    read_hex(p, p_hex);
    read_hex(a, a_hex);
    read_hex(b, b_hex);
    read_hex(n, n_hex);
    read_hex(gx, gx_hex);
    read_hex(gy, gy_hex);
    bits = mpi_get_bits(p.v, p.n);
}

bool Sm2::read_hex(Number& number, const char* hex)
{
    size_t length = std::strlen(hex);
    std::vector<uint64_t> t((length + 15) / 16 + 1);
    int tn;
    if (!mpi_from_hex(t.data(), tn, hex) || tn > limbs)
        return false;
    std::memset(number.v, 0, limbs * 8);
    std::memcpy(number.v, t.data(), tn * 8);
    number.n = tn;
    return true;
}

// Private keys are brought below the order by halving, not by a modulo.
void Sm2::reduce_below_order(Number& number)
{
    while (mpi_cmp(number.v, number.n, n.v, n.n) >= 0)
        mpi_shift_right(number.v, number.n, number.v, number.n);
}

void Sm2::derive_public_key()
{
    std::memset(px.v, 0, limbs * 8);
    std::memset(py.v, 0, limbs * 8);
    ecc_point_mul_jacobian(px.v, px.n, py.v, py.n, gx.v, gx.n, gy.v, gy.n, d.v, d.n, a.v, a.n, p.v,
                           p.n);
}

bool Sm2::set_private_key(const char* hex)
{
    if (!read_hex(d, hex))
        return false;
    reduce_below_order(d);
    derive_public_key();
    return true;
}

bool Sm2::set_public_key(const char* x_hex, const char* y_hex)
{
    return read_hex(px, x_hex) && read_hex(py, y_hex);
}

void Sm2::gen_keys()
{
    std::memset(d.v, 0, limbs * 8);
    mpi_gen_secret(&random, bits - 1, d.v, d.n);
    d.n = mpi_normalize(d.v, d.n);
    reduce_below_order(d);
    derive_public_key();
}

void Sm2::get_public_key(char* x_hex, char* y_hex) const
{
    mpi_to_hex(x_hex, px.v, limbs, true);
    mpi_to_hex(y_hex, py.v, limbs, true);
}

bool Sm2::set_k(const char* hex)
{
    return read_hex(k, hex);
}

void Sm2::gen_k()
{
    std::memset(k.v, 0, limbs * 8);
    mpi_gen_secret(&random, bits - 1, k.v, k.n);
    k.n = mpi_normalize(k.v, k.n);
}

void Sm2::to_bytes(const Number& number, unsigned char* dst) const
{
    int length;
    mpi_to_bytes(number.v, limbs, dst, length, false);
}

void Sm2::mask(unsigned char* data, int length) const
{
    int width = limbs * 8;
    const unsigned char* x = reinterpret_cast<const unsigned char*>(px.v);
    const unsigned char* y = reinterpret_cast<const unsigned char*>(py.v);
    for (int i = 0; i < width; i++) {
        data[i] ^= x[i];
        data[length - width + i] ^= y[i];
    }
}

void Sm2::shared_secret(unsigned char* xy, const uint64_t* x2, int x2n, const uint64_t* y2,
                        int y2n) const
{
    Number x{const_cast<uint64_t*>(x2), x2n}, y{const_cast<uint64_t*>(y2), y2n};
    to_bytes(x, xy);
    to_bytes(y, xy + limbs * 8);
}

bool Sm2::encode(unsigned char* dst, int& length, const unsigned char* src, int src_length)
{
    int width = limbs * 8;
    int total = src_length + 2 * width + 1 + HASH_SIZE;
    if (!dst) {
        length = total;
        return true;
    }
    // Without a k or a public key the key stream would be public.
    if (src_length < 1 || mpi_is_zero(k.v, limbs) || ecc_point_is_infinite(px.v, px.n, py.v, py.n))
        return false;
    uint64_t x1[ECC_MAX_LIMBS] = {}, y1[ECC_MAX_LIMBS] = {};
    uint64_t x2[ECC_MAX_LIMBS] = {}, y2[ECC_MAX_LIMBS] = {};
    int x1n, y1n, x2n, y2n;
    ecc_point_mul_jacobian(x1, x1n, y1, y1n, gx.v, gx.n, gy.v, gy.n, k.v, k.n, a.v, a.n, p.v, p.n);
    ecc_point_mul_jacobian(x2, x2n, y2, y2n, px.v, px.n, py.v, py.n, k.v, k.n, a.v, a.n, p.v,
                           p.n);

    dst[0] = 4;
    to_bytes(Number{x1, limbs}, dst + 1);
    to_bytes(Number{y1, limbs}, dst + 1 + width);

    unsigned char xy[2 * 8 * ECC_MAX_LIMBS];
    char scratch[2 * 8 * ECC_MAX_LIMBS + 4];
    shared_secret(xy, x2, limbs, y2, limbs);
    unsigned char* c2 = dst + 1 + 2 * width;
    kdf(reinterpret_cast<char*>(c2), src_length, reinterpret_cast<const char*>(xy), 2 * width,
        scratch);
    for (int i = 0; i < src_length; i++)
        c2[i] ^= src[i];

    Sm3 hash;
    hash.update(xy, width);
    hash.update(src, src_length);
    hash.update(xy + width, width);
    hash.final();
    std::memcpy(c2 + src_length, hash.digest(), HASH_SIZE);

    if (mask_with_public_key)
        mask(dst, total);
    length = total;
    return true;
}

bool Sm2::decode(unsigned char* dst, int& length, const unsigned char* src, int src_length)
{
    int width = limbs * 8;
    int message_length = src_length - 2 * width - 1 - HASH_SIZE;
    if (message_length < 1)
        return false;
    if (!dst) {
        length = message_length;
        return true;
    }
    std::vector<unsigned char> unmasked;
    if (mask_with_public_key) {
        unmasked.assign(src, src + src_length);
        mask(unmasked.data(), src_length);
        src = unmasked.data();
    } else if (src[0] != 4) {
        return false;
    }

    uint64_t x1[ECC_MAX_LIMBS], y1[ECC_MAX_LIMBS];
    uint64_t x2[ECC_MAX_LIMBS] = {}, y2[ECC_MAX_LIMBS] = {};
    int x1n, y1n, x2n, y2n;
    mpi_from_bytes(x1, x1n, src + 1, width);
    mpi_from_bytes(y1, y1n, src + 1 + width, width);
    x1n = mpi_normalize(x1, x1n);
    y1n = mpi_normalize(y1, y1n);
    // A C1 off the curve would make d times C1 a point of some weaker curve,
    // and the hash check an oracle on the private key.
    if (ecc_point_is_infinite(x1, x1n, y1, y1n) ||
        !ecc_point_check(x1, x1n, y1, y1n, a.v, a.n, b.v, b.n, p.v, p.n))
        return false;
    ecc_point_mul_jacobian(x2, x2n, y2, y2n, x1, x1n, y1, y1n, d.v, d.n, a.v, a.n, p.v, p.n);

    unsigned char xy[2 * 8 * ECC_MAX_LIMBS];
    char scratch[2 * 8 * ECC_MAX_LIMBS + 4];
    shared_secret(xy, x2, limbs, y2, limbs);
    const unsigned char* c2 = src + 1 + 2 * width;
    kdf(reinterpret_cast<char*>(dst), message_length, reinterpret_cast<const char*>(xy),
        2 * width, scratch);
    for (int i = 0; i < message_length; i++)
        dst[i] ^= c2[i];

    Sm3 hash;
    hash.update(xy, width);
    hash.update(dst, message_length);
    hash.update(xy + width, width);
    hash.final();
    unsigned char diff = 0;
    const unsigned char* c3 = c2 + message_length;
    for (int i = 0; i < HASH_SIZE; i++)
        diff |= hash.digest()[i] ^ c3[i];
    if (diff) {
        std::memset(dst, 0, message_length);
        return false;
    }
    length = message_length;
    return true;
}

}  // namespace Cipher

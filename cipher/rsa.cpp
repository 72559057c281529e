// RSA raw and OAEP coding; see rsa.h.
#include "cipher/rsa.h"

#include <cstring>
#include <vector>

#include "base/measure.h"
#include "base/random.h"
#include "base/byteorder.h"
#include "cipher/mpint.h"
#include "cipher/sha1.h"

namespace Cipher {

static const int SHA1_SIZE = 20;

void Mgf1::calc_sha1(const char* seed, int seed_length, char* mask, int mask_length)
{
    Sha1 base;
    base.update(seed, seed_length);
    unsigned char counter[4];
    for (uint32_t i = 0; mask_length > 0; i++) {
        Sha1 hash;
        std::memcpy(static_cast<void*>(&hash), &base, sizeof(Sha1));  // a flat value
        Base::put_be32(counter, i);
        hash.update(counter, 4);
        hash.final();
        int take = mask_length < SHA1_SIZE ? mask_length : SHA1_SIZE;
        std::memcpy(mask, hash.digest(), take);
        mask += take;
        mask_length -= take;
    }
}

Rsa::Rsa() {}

Rsa::~Rsa()
{
    for (Number* number : {&n, &e, &d}) {
        if (number->v)
            std::memset(number->v, 0, number->n * 8);
        delete[] number->v;
    }
}

void Rsa::set_number(Number& number, const char* bytes, int length)
{
    int size;
    mpi_from_bytes(nullptr, size, bytes, length);
    uint64_t* v = new uint64_t[size];
    mpi_from_bytes(v, size, bytes, length);
    delete[] number.v;
    number.v = v;
    number.n = mpi_normalize(v, size);
}

void Rsa::set_keys(const char* n_bytes, int n_length, const char* e_bytes, int e_length,
                   const char* d_bytes, int d_length)
{
    if (n_bytes)
        set_number(n, n_bytes, n_length);
    if (e_bytes)
        set_number(e, e_bytes, e_length);
    if (d_bytes)
        set_number(d, d_bytes, d_length);
}

void Rsa::get_keys(char* n_bytes, int& n_length, char* e_bytes, int& e_length, char* d_bytes,
                   int& d_length) const
{
    mpi_to_bytes(n.v, n.n, n_bytes, n_length, true);
    mpi_to_bytes(e.v, e.n, e_bytes, e_length, true);
    mpi_to_bytes(d.v, d.n, d_bytes, d_length, true);
}

bool Rsa::gen_keys(const char* p_bytes, int p_length, const char* q_bytes, int q_length)
{
    int pn, qn;
    mpi_from_bytes(nullptr, pn, p_bytes, p_length);
    mpi_from_bytes(nullptr, qn, q_bytes, q_length);
    std::vector<uint64_t> p(pn), q(qn);
    mpi_from_bytes(p.data(), pn, p_bytes, p_length);
    mpi_from_bytes(q.data(), qn, q_bytes, q_length);
    pn = mpi_normalize(p.data(), pn);
    qn = mpi_normalize(q.data(), qn);
    if (pn == 0 || qn == 0)
        return false;

    Number modulus;
    modulus.v = new uint64_t[pn + qn];
    mpi_mul(modulus.v, modulus.n, p.data(), pn, q.data(), qn);
    delete[] n.v;
    n = modulus;

    // The totient: p and q with their lowest bit cleared, (p - 1)(q - 1)
    // for odd primes.
    p[0] &= ~1ULL;
    q[0] &= ~1ULL;
    std::vector<uint64_t> phi(pn + qn), g(pn + qn);
    int phin, gn;
    mpi_mul(phi.data(), phin, p.data(), pn, q.data(), qn);
    if (phin == 0)
        return false;

    Base::Random random((unsigned int)(Base::Measure::get_clock() ^ (uintptr_t)this));
    int bits = n.n * 64 / 2;
    std::vector<uint64_t> ev((bits + 63) / 64 + 1);
    int en;
    do {
        mpi_gen_random(&random, bits, ev.data(), en);
        ev[0] |= 1;
        mpi_gcd(g.data(), gn, ev.data(), en, phi.data(), phin);
    } while (!(gn == 1 && g[0] == 1));
    delete[] e.v;
    e.v = new uint64_t[en];
    std::memcpy(e.v, ev.data(), en * 8);
    e.n = mpi_normalize(e.v, en);

    delete[] d.v;
    d.v = new uint64_t[phin];
    return mpi_inverse(d.v, d.n, e.v, e.n, phi.data(), phin);
}

void Rsa::power(uint64_t* r, const uint64_t* x, const Number& exponent) const
{
    int rn;
    mpi_power_mod(r, rn, x, n.n, exponent.v, exponent.n, n.v, n.n);
    std::memset(r + rn, 0, (n.n - rn) * 8);
}

bool Rsa::encode(void* dst, int& length, const void* src, int src_length) const
{
    int k = n.n * 8;
    if (k == 0) {
        length = -1;
        return false;
    }
    int blocks = src_length > 0 ? (src_length + k - 2) / (k - 1) : 0;
    length = blocks * k;
    if (!dst)
        return true;
    std::vector<uint64_t> x(n.n);
    const char* in = static_cast<const char*>(src);
    char* out = static_cast<char*>(dst);
    for (int i = 0; i < blocks; i++) {
        int take = src_length - i * (k - 1);
        if (take > k - 1)
            take = k - 1;
        std::memset(x.data(), 0, k);
        std::memcpy(x.data(), in + i * (k - 1), take);
        power(x.data(), x.data(), e);
        std::memcpy(out + i * k, x.data(), k);
    }
    return true;
}

bool Rsa::decode(void* dst, int& length, const void* src, int src_length) const
{
    int k = n.n * 8;
    if (k == 0) {
        length = -1;
        return false;
    }
    int blocks = src_length / k;
    length = blocks * (k - 1);
    if (!dst)
        return true;
    std::vector<uint64_t> x(n.n);
    const char* in = static_cast<const char*>(src);
    char* out = static_cast<char*>(dst);
    for (int i = 0; i < blocks; i++) {
        std::memcpy(x.data(), in + i * k, k);
        power(x.data(), x.data(), d);
        std::memcpy(out + i * (k - 1), x.data(), k - 1);
    }
    return true;
}

// SHA-1 of the empty label.
static const unsigned char EMPTY_LABEL_HASH[SHA1_SIZE] = {
    0xda, 0x39, 0xa3, 0xee, 0x5e, 0x6b, 0x4b, 0x0d, 0x32, 0x55,
    0xbf, 0xef, 0x95, 0x60, 0x18, 0x90, 0xaf, 0xd8, 0x07, 0x09};

bool Rsa::encode_oaep(char* dst, int& length, const char* src, int src_length) const
{
    int k = n.n * 8;
    int capacity = k - 2 * SHA1_SIZE - 2;
    if (capacity < 1) {
        length = -1;
        return false;
    }
    int blocks = src_length > 0 ? (src_length + capacity - 1) / capacity : 0;
    length = blocks * k;
    if (!dst)
        return true;

    Base::Random random((unsigned int)(Base::Measure::get_clock() ^ (uintptr_t)this));
    int db_length = k - SHA1_SIZE - 1;
    std::vector<char> em(k), mask(db_length);
    std::vector<uint64_t> x(n.n);
    for (int i = 0; i < blocks; i++) {
        int take = src_length - i * capacity;
        if (take > capacity)
            take = capacity;
        // EM = 0x00, seed, DB with DB = lHash, zeros, 0x01, message.
        char* seed = em.data() + 1;
        char* db = seed + SHA1_SIZE;
        std::memset(em.data(), 0, k);
        std::memcpy(db, EMPTY_LABEL_HASH, SHA1_SIZE);
        db[db_length - take - 1] = 1;
        std::memcpy(db + db_length - take, src + i * capacity, take);
        mpi_random_bytes(&random, seed, SHA1_SIZE);
        Mgf1::calc_sha1(seed, SHA1_SIZE, mask.data(), db_length);
        for (int j = 0; j < db_length; j++)
            db[j] ^= mask[j];
        Mgf1::calc_sha1(db, db_length, mask.data(), SHA1_SIZE);
        for (int j = 0; j < SHA1_SIZE; j++)
            seed[j] ^= mask[j];

        int size;
        mpi_from_bytes(x.data(), size, em.data(), k);
        power(x.data(), x.data(), e);
        mpi_to_bytes(x.data(), n.n, dst + i * k, size, false);
    }
    std::memset(em.data(), 0, k);
    return true;
}

bool Rsa::decode_oaep(char* dst, int& length, const char* src, int src_length) const
{
    int k = n.n * 8;
    int capacity = k - 2 * SHA1_SIZE - 2;
    if (capacity < 1) {
        length = -1;
        return false;
    }
    int blocks = src_length / k;
    if (!dst) {
        length = blocks * capacity;
        return true;
    }
    int db_length = k - SHA1_SIZE - 1;
    std::vector<char> em(k), mask(db_length);
    std::vector<uint64_t> x(n.n);
    length = 0;
    for (int i = 0; i < blocks; i++) {
        int size;
        mpi_from_bytes(x.data(), size, src + i * k, k);
        power(x.data(), x.data(), d);
        mpi_to_bytes(x.data(), n.n, em.data(), size, false);

        char* seed = em.data() + 1;
        char* db = seed + SHA1_SIZE;
        Mgf1::calc_sha1(db, db_length, mask.data(), SHA1_SIZE);
        for (int j = 0; j < SHA1_SIZE; j++)
            seed[j] ^= mask[j];
        Mgf1::calc_sha1(seed, SHA1_SIZE, mask.data(), db_length);
        for (int j = 0; j < db_length; j++)
            db[j] ^= mask[j];

        bool bad = em[0] != 0 || std::memcmp(db, EMPTY_LABEL_HASH, SHA1_SIZE) != 0;
        int j = SHA1_SIZE;
        while (j < db_length && db[j] == 0)
            j++;
        if (bad || j == db_length || db[j] != 1) {
            length = -1;
            return false;
        }
        j++;
        std::memcpy(dst + length, db + j, db_length - j);
        length += db_length - j;
    }
    return true;
}

}  // namespace Cipher

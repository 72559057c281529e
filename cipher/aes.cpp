#include "cipher/aes.h"

#include "cipher/aesni.h"
#include "cipher/blockmode.h"
#include "base/byteorder.h"

#if defined(__clang__)
#define UNROLL_4 _Pragma("unroll 4")
#else
#define UNROLL_4 _Pragma("GCC unroll 4")
#endif

namespace Cipher {

namespace {

// The S-box and the four lookup tables per direction, built at compile time
// from the field GF(2^8) mod x^8 + x^4 + x^3 + x + 1. te[0][x] is the column
// S(x) * (2, 1, 1, 3) as a big-endian word and te[k] is te[0] rotated right
// by 8k bits; td likewise with the inverse S-box and (14, 9, 13, 11).
struct AesTables {
    uint8_t sbox[256];
    uint8_t inv_sbox[256];
    uint32_t te[4][256];
    uint32_t td[4][256];

    static constexpr uint8_t xtime(uint8_t x) { return uint8_t((x << 1) ^ ((x & 0x80) ? 0x1b : 0)); }

    static constexpr uint8_t mul(uint8_t a, uint8_t b) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i) {
            if (b & 1)
                r ^= a;
            a = xtime(a);
            b >>= 1;
        }
        return r;
    }

    static constexpr uint8_t rotl8(uint8_t x, int n) { return uint8_t((x << n) | (x >> (8 - n))); }

    static constexpr uint32_t rotr(uint32_t x, int n) { return n ? (x >> n) | (x << (32 - n)) : x; }

    static constexpr uint32_t column(uint8_t s, uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
        return uint32_t(mul(s, a)) << 24 | uint32_t(mul(s, b)) << 16 | uint32_t(mul(s, c)) << 8 |
               mul(s, d);
    }

    constexpr AesTables() : sbox(), inv_sbox(), te(), td() {
        uint8_t exp[256] = {}, log[256] = {};
        uint8_t x = 1;
        for (int i = 0; i < 255; ++i) {  // 3 generates the multiplicative group
            exp[i] = x;
            log[x] = uint8_t(i);
            x = uint8_t(x ^ xtime(x));
        }
        for (int i = 0; i < 256; ++i) {
            uint8_t inv = i ? exp[(255 - log[i]) % 255] : 0;
            uint8_t s = uint8_t(inv ^ rotl8(inv, 1) ^ rotl8(inv, 2) ^ rotl8(inv, 3) ^ rotl8(inv, 4) ^ 0x63);
            sbox[i] = s;
            inv_sbox[s] = uint8_t(i);
        }
        for (int i = 0; i < 256; ++i) {
            uint32_t e = column(sbox[i], 2, 1, 1, 3);
            uint32_t d = column(inv_sbox[i], 14, 9, 13, 11);
            for (int k = 0; k < 4; ++k) {
                te[k][i] = rotr(e, 8 * k);
                td[k][i] = rotr(d, 8 * k);
            }
        }
    }
};

constexpr AesTables g_aes;

inline uint32_t sub_word(uint32_t w) {
    const uint8_t* s = g_aes.sbox;
    return uint32_t(s[w >> 24]) << 24 | uint32_t(s[(w >> 16) & 0xff]) << 16 |
           uint32_t(s[(w >> 8) & 0xff]) << 8 | s[w & 0xff];
}

inline uint32_t inv_mix_column(uint32_t w) {
    // td[k][inv_sbox[S(b)]] cancels the S-box and leaves InvMixColumns.
    return g_aes.td[0][g_aes.sbox[w >> 24]] ^ g_aes.td[1][g_aes.sbox[(w >> 16) & 0xff]] ^
           g_aes.td[2][g_aes.sbox[(w >> 8) & 0xff]] ^ g_aes.td[3][g_aes.sbox[w & 0xff]];
}

}  // namespace

Aes::Aes(const unsigned char* key, int key_size, bool use_hardware)
    : hardware(use_hardware && AesNi::supported()) {
    int size = key_size <= 16 ? 16 : key_size <= 24 ? 24 : 32;
    unsigned char k[32] = {};
    if (key && key_size > 0)
        memcpy(k, key, size_t(key_size < size ? key_size : size));
    int nk = size / 4;
    rounds = nk + 6;
    int words = 4 * (rounds + 1);
    for (int i = 0; i < nk; ++i)
        encode_keys[i] = Base::get_be32(k + 4 * i);
    uint32_t rcon = 0x01;
    for (int i = nk; i < words; ++i) {
        uint32_t t = encode_keys[i - 1];
        if (i % nk == 0) {
            t = sub_word(Base::rotl32(t, 8)) ^ (rcon << 24);
            rcon = AesTables::xtime(uint8_t(rcon));
        } else if (nk > 6 && i % nk == 4) {
            t = sub_word(t);
        }
        encode_keys[i] = encode_keys[i - nk] ^ t;
    }
    // The equivalent inverse cipher: round keys in reverse order, the inner
    // ones passed through InvMixColumns.
    for (int r = 0; r <= rounds; ++r)
        for (int j = 0; j < 4; ++j) {
            uint32_t w = encode_keys[4 * (rounds - r) + j];
            decode_keys[4 * r + j] = (r == 0 || r == rounds) ? w : inv_mix_column(w);
        }
    for (int i = 0; i < words; ++i) {
        Base::put_be32(encode_bytes + 4 * i, encode_keys[i]);
        Base::put_be32(decode_bytes + 4 * i, decode_keys[i]);
    }
    memset(k, 0, sizeof(k));
}

Aes::~Aes() {
    // The key schedule is secret: leave none of it in freed memory.
    volatile unsigned char* p = reinterpret_cast<volatile unsigned char*>(encode_keys);
    for (size_t i = 0; i < sizeof(encode_keys); ++i) p[i] = 0;
    p = reinterpret_cast<volatile unsigned char*>(decode_keys);
    for (size_t i = 0; i < sizeof(decode_keys); ++i) p[i] = 0;
    p = encode_bytes;
    for (size_t i = 0; i < sizeof(encode_bytes); ++i) p[i] = 0;
    p = decode_bytes;
    for (size_t i = 0; i < sizeof(decode_bytes); ++i) p[i] = 0;
}

namespace {

// The table-driven rounds of both directions. Encoding takes column i's
// bytes from columns i, i+1, i+2, i+3; the equivalent inverse cipher takes
// them from i, i-1, i-2, i-3: Step is 1 or 3 (mod 4). The indices are
// constants, so the compiler unrolls each direction as if written out.
template <int Step>
void aes_rounds(unsigned char* dst, const unsigned char* src, const uint32_t* rk, int rounds,
                const uint32_t (&t)[4][256], const uint8_t* sbox) {
    uint32_t s[4];
UNROLL_4
    for (int i = 0; i < 4; ++i) s[i] = Base::get_be32(src + 4 * i) ^ rk[i];
    for (int r = 1; r < rounds; ++r) {
        rk += 4;
        uint32_t n[4];
UNROLL_4
        for (int i = 0; i < 4; ++i)
            n[i] = t[0][s[i] >> 24] ^ t[1][(s[(i + Step) & 3] >> 16) & 0xff] ^
                   t[2][(s[(i + 2 * Step) & 3] >> 8) & 0xff] ^ t[3][s[(i + 3 * Step) & 3] & 0xff] ^
                   rk[i];
UNROLL_4
        for (int i = 0; i < 4; ++i) s[i] = n[i];
    }
    rk += 4;
UNROLL_4
    for (int i = 0; i < 4; ++i) {
        uint32_t w = uint32_t(sbox[s[i] >> 24]) << 24 |
                     uint32_t(sbox[(s[(i + Step) & 3] >> 16) & 0xff]) << 16 |
                     uint32_t(sbox[(s[(i + 2 * Step) & 3] >> 8) & 0xff]) << 8 |
                     sbox[s[(i + 3 * Step) & 3] & 0xff];
        Base::put_be32(dst + 4 * i, w ^ rk[i]);
    }
}

}  // namespace

void Aes::encode(unsigned char* dst, const unsigned char* src) {
    if (hardware)
        AesNi::encode_blocks(encode_bytes, rounds, dst, src, 1);
    else
        aes_rounds<1>(dst, src, encode_keys, rounds, g_aes.te, g_aes.sbox);
}

void Aes::decode(unsigned char* dst, const unsigned char* src) {
    if (hardware)
        AesNi::decode_blocks(decode_bytes, rounds, dst, src, 1);
    else
        aes_rounds<3>(dst, src, decode_keys, rounds, g_aes.td, g_aes.inv_sbox);
}

void Aes::encode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks) {
    if (hardware)
        AesNi::encode_blocks(encode_bytes, rounds, dst, src, blocks);
    else
        Modes::encode_blocks(dst, src, blocks);
}

void Aes::decode_blocks(unsigned char* dst, const unsigned char* src, size_t blocks) {
    if (hardware)
        AesNi::decode_blocks(decode_bytes, rounds, dst, src, blocks);
    else
        Modes::decode_blocks(dst, src, blocks);
}

void Aes::encode_cbc_blocks(unsigned char* chain, unsigned char* dst, const unsigned char* src,
                            size_t blocks) {
    if (hardware)
        AesNi::encode_cbc(encode_bytes, rounds, chain, dst, src, blocks);
    else
        Modes::encode_cbc_blocks(chain, dst, src, blocks);
}

void Aes::decode_cbc_blocks(unsigned char* chain, unsigned char* dst, const unsigned char* src,
                            size_t blocks) {
    if (hardware)
        AesNi::decode_cbc(decode_bytes, rounds, chain, dst, src, blocks);
    else
        Modes::decode_cbc_blocks(chain, dst, src, blocks);
}

void Aes::ctr_blocks(unsigned char* counter, unsigned char* dst, const unsigned char* src,
                     size_t length) {
    if (hardware)
        AesNi::ctr(encode_bytes, rounds, counter, dst, src, length);
    else
        Modes::ctr_blocks(counter, dst, src, length);
}

void Aes::encode_func(void* self, unsigned char* dst, const unsigned char* src) {
    static_cast<Aes*>(self)->encode(dst, src);
}


}  // namespace Cipher

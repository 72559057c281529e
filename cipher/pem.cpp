// PEM, key and certificate readers; see pem.h.
#include "cipher/pem.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/strings.h"
#include "cipher/aes.h"
#include "cipher/base64.h"
#include "cipher/der.h"
#include "cipher/des.h"
#include "cipher/md5.h"

namespace Cipher {

namespace {

const unsigned char TAG_INTEGER = 0x02;
const unsigned char TAG_BIT_STRING = 0x03;
const unsigned char TAG_OID = 0x06;
const unsigned char TAG_UTC_TIME = 0x17;
const unsigned char TAG_GENERALIZED_TIME = 0x18;
const unsigned char TAG_SEQUENCE = 0x30;
const unsigned char TAG_VERSION = 0xA0;  // [0] EXPLICIT of the certificate

const int PEM_LINE = 64;

struct PemCipher {
    const char* name;
    int key_size;
    int iv_size;
};

const PemCipher PEM_CIPHERS[] = {
    {"DES-EDE3-CBC", 24, 8},
    {"AES-128-CBC", 16, 16},
    {"AES-192-CBC", 24, 16},
    {"AES-256-CBC", 32, 16},
};

bool skip_prefix(const char*& p, const char* prefix)
{
    size_t n = std::strlen(prefix);
    if (std::strncmp(p, prefix, n) != 0)
        return false;
    p += n;
    return true;
}

// The key of OpenSSL's traditional encrypted PEM: D1 = MD5(password, salt),
// D2 = MD5(D1, password, salt), key = D1 D2 cut to size; salt = iv[0..8).
void derive_key(const char* password, const unsigned char* salt, unsigned char* key, int key_size)
{
    int password_length = (int)std::strlen(password);
    unsigned char block[32];
    Md5 d1;
    d1.update(password, password_length);
    d1.update(salt, 8);
    d1.final();
    std::memcpy(block, d1.digest(), 16);
    Md5 d2;
    d2.update(block, 16);
    d2.update(password, password_length);
    d2.update(salt, 8);
    d2.final();
    std::memcpy(block + 16, d2.digest(), 16);
    std::memcpy(key, block, key_size);
    std::memset(block, 0, sizeof(block));
}

// CBC without the mode's own padding rule, then a strict PKCS #7 check, so
// that a wrong password rarely passes for a right one.
bool decrypt(const PemCipher& cipher, const char* password, const unsigned char* iv,
             std::vector<unsigned char>& data)
{
    int block = cipher.iv_size;
    int size = (int)data.size();
    if (size == 0 || size % block != 0)
        return false;
    unsigned char key[32];
    derive_key(password, iv, key, cipher.key_size);
    int length = 0;
    bool ok;
    if (cipher.key_size == 24 && block == 8) {
        TripleDes des(key, key + 8, key + 16);
        ok = des.decode_cbc(data.data(), length, data.data(), size, false, iv, block);
    } else {
        Aes aes(key, cipher.key_size);
        ok = aes.decode_cbc(data.data(), length, data.data(), size, false, iv, block);
    }
    std::memset(key, 0, sizeof(key));
    if (!ok || length != size)
        return false;
    int pad = data[size - 1];
    if (pad < 1 || pad > block)
        return false;
    for (int i = size - pad; i < size; i++) {
        if (data[i] != pad)
            return false;
    }
    data.resize(size - pad);
    return true;
}

// The bytes of a PEM block, decrypted when its header says so.
bool read_pem(const char* text, const char* label, const char* password,
              std::vector<unsigned char>& out)
{
    if (!text || !label)
        return false;
    std::string begin = std::string("-----BEGIN ") + label + "-----\n";
    std::string end = std::string("-----END ") + label + "-----";
    const char* p = std::strstr(text, begin.c_str());
    if (!p)
        return false;
    p += begin.size();

    const PemCipher* cipher = nullptr;
    unsigned char iv[16];
    if (skip_prefix(p, "Proc-Type: 4,ENCRYPTED\n")) {
        if (!skip_prefix(p, "DEK-Info: "))
            return false;
        for (const PemCipher& c : PEM_CIPHERS) {
            if (std::strncmp(p, c.name, std::strlen(c.name)) == 0 && p[std::strlen(c.name)] == ',') {
                cipher = &c;
                break;
            }
        }
        if (!cipher || !password)
            return false;
        p += std::strlen(cipher->name) + 1;
        const char* line_end = std::strchr(p, '\n');
        if (!line_end || line_end - p != 2 * cipher->iv_size)
            return false;
        if (!Base::hex_to_bytes(p, (char*)iv, cipher->iv_size))
            return false;
        p = line_end + 1;
        if (*p != '\n')
            return false;
        p++;
    }

    // Lines of 64 characters, a last one of 1 to 64, then the end line.
    std::string body;
    bool last = false;
    for (;;) {
        if (std::strncmp(p, end.c_str(), end.size()) == 0)
            break;
        if (last)
            return false;
        const char* line_end = std::strchr(p, '\n');
        if (!line_end)
            return false;
        long line = line_end - p;
        if (line < 1 || line > PEM_LINE)
            return false;
        if (line < PEM_LINE)
            last = true;
        body.append(p, line);
        p = line_end + 1;
    }
    if (body.empty())
        return false;

    int length;
    Base64::decode(nullptr, length, body.data(), (int)body.size());
    out.resize(length);
    Base64::decode(out.data(), length, body.data(), (int)body.size());
    if (cipher)
        return decrypt(*cipher, password, iv, out);
    return true;
}

bool put_integer(const Der::Element* element, char* dst, int& length)
{
    if (!element || element->tag != TAG_INTEGER || element->length < 1)
        return false;
    const unsigned char* content = element->content;
    int size = element->length;
    if (content[0] == 0 && size > 1) {
        content++;
        size--;
    }
    if (dst)
        std::memcpy(dst, content, size);
    length = size;
    return true;
}

bool enter(const Der::Element* element, unsigned char tag, Der::Iterator& inner)
{
    if (!element || element->tag != tag)
        return false;
    inner.attach(element->content, element->length);
    return true;
}

// RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER },
// given its content.
bool parse_pkcs1_public(const unsigned char* content, int length, char* n, int& n_length, char* e,
                        int& e_length)
{
    Der::Iterator it(content, length);
    return put_integer(it.next(), n, n_length) && put_integer(it.next(), e, e_length);
}

// SubjectPublicKeyInfo ::= SEQUENCE { algorithm SEQUENCE, key BIT STRING },
// given its content; the bit string wraps an RSAPublicKey.
bool parse_spki(const unsigned char* content, int length, char* n, int& n_length, char* e,
                int& e_length)
{
    Der::Iterator it(content, length);
    const Der::Element* algorithm = it.next();
    if (!algorithm || algorithm->tag != TAG_SEQUENCE)
        return false;
    const Der::Element* key = it.next();
    if (!key || key->tag != TAG_BIT_STRING || key->length < 1 || key->content[0] != 0)
        return false;
    Der::Iterator bits(key->content + 1, key->length - 1);
    const Der::Element* seq = bits.next();
    if (!seq || seq->tag != TAG_SEQUENCE)
        return false;
    return parse_pkcs1_public(seq->content, seq->length, n, n_length, e, e_length);
}

// "20" in front of a two-digit year, then the digits as one number.
bool parse_time(const Der::Element* element, unsigned long& value)
{
    if (!element || (element->tag != TAG_UTC_TIME && element->tag != TAG_GENERALIZED_TIME))
        return false;
    char text[40];
    int prefix = element->tag == TAG_UTC_TIME ? 2 : 0;
    int size = element->length < 32 ? element->length : 32;
    std::memcpy(text, "20", 2);
    std::memcpy(text + prefix, element->content, size);
    text[prefix + size] = 0;
    unsigned long long number;
    if (std::sscanf(text, "%llu", &number) != 1)
        return false;
    value = (unsigned long)number;
    return true;
}

}  // namespace

bool Pem::parse_pem(const char* text, const char* label, char* dst, int& length,
                    const char* password)
{
    std::vector<unsigned char> out;
    if (!read_pem(text, label, password, out))
        return false;
    length = (int)out.size();
    if (dst && length)
        std::memcpy(dst, out.data(), length);
    return true;
}

bool Pem::parse_rsa_public_key(const char* der, int der_length, char* n, int& n_length, char* e,
                               int& e_length)
{
    Der::Iterator top(der, der_length);
    const Der::Element* outer = top.next();
    if (!outer || outer->tag != TAG_SEQUENCE)
        return false;
    Der::Iterator seq(outer->content, outer->length);
    const Der::Element* first = seq.next();
    if (!first)
        return false;
    if (first->tag == TAG_SEQUENCE)
        return parse_spki(outer->content, outer->length, n, n_length, e, e_length);
    return parse_pkcs1_public(outer->content, outer->length, n, n_length, e, e_length);
}

bool Pem::parse_rsa_public_key(const char* text, char* n, int& n_length, char* e, int& e_length)
{
    std::vector<unsigned char> der;
    if (!text)
        return false;
    const char* label = std::strstr(text, "RSA PUBLIC KEY") ? "RSA PUBLIC KEY" : "PUBLIC KEY";
    if (!read_pem(text, label, nullptr, der))
        return false;
    Der::Iterator top(der.data(), (int)der.size());
    const Der::Element* outer = top.next();
    if (!outer || outer->tag != TAG_SEQUENCE)
        return false;
    if (std::strcmp(label, "RSA PUBLIC KEY") == 0)
        return parse_pkcs1_public(outer->content, outer->length, n, n_length, e, e_length);
    return parse_spki(outer->content, outer->length, n, n_length, e, e_length);
}

bool Pem::parse_rsa_private_key(const char* der, int der_length, char* n, int& n_length, char* d,
                                int& d_length)
{
    Der::Iterator top(der, der_length);
    Der::Iterator seq;
    if (!enter(top.next(), TAG_SEQUENCE, seq))
        return false;
    const Der::Element* version = seq.next();
    if (!version || version->tag != TAG_INTEGER || version->length != 1 ||
        version->content[0] != 0)
        return false;
    int e_length;
    if (!put_integer(seq.next(), n, n_length) || !put_integer(seq.next(), nullptr, e_length) ||
        !put_integer(seq.next(), d, d_length))
        return false;
    // prime1, prime2, exponent1, exponent2, coefficient: present, unused.
    for (int i = 0; i < 5; i++) {
        const Der::Element* element = seq.next();
        if (!element || element->tag != TAG_INTEGER)
            return false;
    }
    return true;
}

bool Pem::parse_rsa_private_key(const char* text, char* n, int& n_length, char* d, int& d_length,
                                const char* password)
{
    std::vector<unsigned char> der;
    if (!read_pem(text, "RSA PRIVATE KEY", password, der))
        return false;
    // An empty body has no storage (data() may be null): nothing to parse
    // and nothing to wipe.
    if (der.empty())
        return false;
    bool ok = parse_rsa_private_key((const char*)der.data(), (int)der.size(), n, n_length, d,
                                    d_length);
    std::memset(der.data(), 0, der.size());
    return ok;
}

bool Pem::parse_certificate(const char* text, unsigned long& not_before, unsigned long& not_after,
                            char* n, int& n_length, char* e, int& e_length, int& algorithm,
                            char* signature, int& signature_length)
{
    std::vector<unsigned char> der;
    if (!read_pem(text, "CERTIFICATE", nullptr, der))
        return false;
    // Certificate ::= SEQUENCE { tbsCertificate, signatureAlgorithm, signature }
    Der::Iterator top(der.data(), (int)der.size());
    Der::Iterator certificate, tbs, validity, algorithm_seq;
    if (!enter(top.next(), TAG_SEQUENCE, certificate))
        return false;
    if (!enter(certificate.next(), TAG_SEQUENCE, tbs))
        return false;

    // version (optional), serial, signature, issuer, validity, subject, key
    const Der::Element* element = tbs.next();
    if (element && element->tag == TAG_VERSION)
        element = tbs.next();
    if (!element || element->tag != TAG_INTEGER)
        return false;
    for (int i = 0; i < 2; i++) {
        element = tbs.next();
        if (!element || element->tag != TAG_SEQUENCE)
            return false;
    }
    if (!enter(tbs.next(), TAG_SEQUENCE, validity))
        return false;
    if (!parse_time(validity.next(), not_before) || !parse_time(validity.next(), not_after))
        return false;
    element = tbs.next();
    if (!element || element->tag != TAG_SEQUENCE)
        return false;
    element = tbs.next();
    if (!element || element->tag != TAG_SEQUENCE ||
        !parse_spki(element->content, element->length, n, n_length, e, e_length))
        return false;

    if (!enter(certificate.next(), TAG_SEQUENCE, algorithm_seq))
        return false;
    const Der::Element* oid = algorithm_seq.next();
    if (!oid || oid->tag != TAG_OID)
        return false;
    std::vector<char> oid_text(4 * oid->length + 8);
    if (parse_oid((const char*)oid->content, oid->length, oid_text.data()) < 0)
        return false;
    algorithm = get_algorithm_id(oid_text.data());

    const Der::Element* sig = certificate.next();
    if (!sig || sig->tag != TAG_BIT_STRING)
        return false;
    if (signature)
        std::memcpy(signature, sig->content, sig->length);
    signature_length = sig->length;
    return true;
}

int Pem::parse_oid(const char* der, int length, char* text)
{
    const unsigned char* in = reinterpret_cast<const unsigned char*>(der);
    if (!in || length < 1 || (in[0] & 0x80))
        return -1;
    int k = std::sprintf(text, "%hhu.%hhu", (unsigned char)(in[0] / 40),
                         (unsigned char)(in[0] % 40));
    uint64_t arc = 0;
    int groups = 0;
    for (int i = 1; i < length; i++) {
        // Base 128, high group first; the high bit marks a group that goes on.
        arc = (arc << 7) | (in[i] & 0x7F);
        if (++groups > 5 || arc > 0xFFFFFFFFULL)
            return -1;
        if (!(in[i] & 0x80)) {
            k += std::sprintf(text + k, ".%u", (unsigned int)arc);
            arc = 0;
            groups = 0;
        }
    }
    if (groups)
        return -1;  // the last arc stops in the middle
    return k;
}

int Pem::get_algorithm_id(const char* oid)
{
    if (!oid)
        return -1;
    if (std::strcmp(oid, "1.2.840.113549.1.1.11") == 0)
        return 668;
    if (std::strcmp(oid, "1.2.840.113549.1.1.1") == 0)
        return 6;
    return -1;
}

}  // namespace Cipher

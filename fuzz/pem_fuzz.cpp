// Key and certificate files: PEM texts (each label, with and without a
// password) and raw DER, into buffers as large as the input can fill.
#include <cstdint>
#include <string>
#include <vector>

#include "cipher/pem.h"

using Cipher::Pem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<char> a(size + 64), b(size + 64), c(size + 64);
    int al = 0, bl = 0, cl = 0, algorithm = 0;
    unsigned long from = 0, to = 0;
    Pem::parse_rsa_public_key(text.c_str(), a.data(), al, b.data(), bl);
    Pem::parse_rsa_private_key(text.c_str(), a.data(), al, b.data(), bl, nullptr);
    Pem::parse_rsa_private_key(text.c_str(), a.data(), al, b.data(), bl, "secret");
    Pem::parse_certificate(text.c_str(), from, to, a.data(), al, b.data(), bl, algorithm, c.data(), cl);
    Pem::parse_rsa_public_key(text.data(), int(size), a.data(), al, b.data(), bl);
    Pem::parse_rsa_private_key(text.data(), int(size), a.data(), al, b.data(), bl);
    std::vector<char> oid(4 * size + 8);
    Pem::parse_oid(text.data(), int(size), oid.data());
    return 0;
}

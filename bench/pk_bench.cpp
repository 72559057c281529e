// Public-key operations side by side with OpenSSL on the same keys: SM2 key
// generation, SM2 decryption of an 8-byte message, and RSA-1024 OAEP
// encryption. After the runs, each pair is printed as a throughput ratio
// (ours / OpenSSL, by CPU time).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cipher/rsa.h"
#include "cipher/sm2.h"

#ifdef QEL_HAVE_OPENSSL
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#endif

namespace {

const char* const PRIVATE_KEY = "3945208F7B2144B13F36E38AC6D39F95889393692860B51A42FB81EF4DF7C5B8";
const unsigned char MESSAGE[8] = {'q', 'e', 'l', '-', 'b', 'e', 'n', 'c'};

void BM_Sm2GenKeys_Ours(benchmark::State& state)
{
    Cipher::Sm2 sm2(false);
    for (auto _ : state)
        sm2.gen_keys();
}
BENCHMARK(BM_Sm2GenKeys_Ours);

void BM_Sm2Decode8_Ours(benchmark::State& state)
{
    Cipher::Sm2 sm2(false);
    sm2.set_private_key(PRIVATE_KEY);
    sm2.gen_k();
    unsigned char cipher[128], plain[16];
    int length, plain_length;
    sm2.encode(cipher, length, MESSAGE, 8);
    for (auto _ : state) {
        if (!sm2.decode(plain, plain_length, cipher, length))
            state.SkipWithError("decode failed");
    }
}
BENCHMARK(BM_Sm2Decode8_Ours);

#ifdef QEL_HAVE_OPENSSL
void BM_Sm2GenKeys_OpenSSL(benchmark::State& state)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
    EVP_PKEY_keygen_init(ctx);
    for (auto _ : state) {
        EVP_PKEY* key = nullptr;
        EVP_PKEY_keygen(ctx, &key);
        EVP_PKEY_free(key);
    }
    EVP_PKEY_CTX_free(ctx);
}
BENCHMARK(BM_Sm2GenKeys_OpenSSL);

void der_put(std::vector<unsigned char>& out, unsigned char tag, const unsigned char* data, size_t n)
{
    out.push_back(tag);
    if (n >= 128)
        out.push_back(0x81);
    out.push_back((unsigned char)n);
    out.insert(out.end(), data, data + n);
}

void der_integer(std::vector<unsigned char>& out, const unsigned char* be)
{
    std::vector<unsigned char> v;
    int i = 0;
    while (i < 31 && be[i] == 0)
        i++;
    if (be[i] & 0x80)
        v.push_back(0);
    v.insert(v.end(), be + i, be + 32);
    der_put(out, 0x02, v.data(), v.size());
}

void BM_Sm2Decode8_OpenSSL(benchmark::State& state)
{
    Cipher::Sm2 sm2(false);
    sm2.set_private_key(PRIVATE_KEY);
    char x[80], y[80];
    sm2.get_public_key(x, y);
    sm2.gen_k();
    unsigned char c123[128];
    int length;
    sm2.encode(c123, length, MESSAGE, 8);
    // The same ciphertext in OpenSSL's form: SEQUENCE { x1, y1, C3, C2 }.
    std::vector<unsigned char> body, der;
    der_integer(body, c123 + 1);
    der_integer(body, c123 + 33);
    der_put(body, 0x04, c123 + 65 + 8, 32);
    der_put(body, 0x04, c123 + 65, 8);
    der_put(der, 0x30, body.data(), body.size());

    BIGNUM* d = nullptr;
    BN_hex2bn(&d, PRIVATE_KEY);
    std::string pub_hex = std::string("04") + x + y;
    std::vector<unsigned char> pub(65);
    for (int i = 0; i < 65; i++)
        pub[i] = (unsigned char)std::stoi(pub_hex.substr(2 * i, 2), nullptr, 16);
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_PRIV_KEY, d);
    OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, pub.data(), pub.size());
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX* make = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(make);
    EVP_PKEY_fromdata(make, &key, EVP_PKEY_KEYPAIR, params);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    EVP_PKEY_decrypt_init(ctx);
    for (auto _ : state) {
        unsigned char plain[64];
        size_t plain_length = sizeof(plain);
        if (EVP_PKEY_decrypt(ctx, plain, &plain_length, der.data(), der.size()) != 1)
            state.SkipWithError("decrypt failed");
    }
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(make);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_free(d);
}
BENCHMARK(BM_Sm2Decode8_OpenSSL);

EVP_PKEY* rsa_key()
{
    static EVP_PKEY* key = EVP_RSA_gen(1024);
    return key;
}

std::vector<char> rsa_param(const char* name)
{
    BIGNUM* v = nullptr;
    EVP_PKEY_get_bn_param(rsa_key(), name, &v);
    std::vector<char> out(BN_num_bytes(v));
    BN_bn2bin(v, (unsigned char*)out.data());
    BN_free(v);
    return out;
}

void BM_RsaOaep1024_Ours(benchmark::State& state)
{
    std::vector<char> n = rsa_param(OSSL_PKEY_PARAM_RSA_N), e = rsa_param(OSSL_PKEY_PARAM_RSA_E);
    Cipher::Rsa rsa;
    rsa.set_keys(n.data(), (int)n.size(), e.data(), (int)e.size(), nullptr, 0);
    char message[64] = "terminal information";
    char out[128];
    int length;
    for (auto _ : state)
        rsa.encode_oaep(out, length, message, sizeof(message));
}
BENCHMARK(BM_RsaOaep1024_Ours);

void BM_RsaOaep1024_OpenSSL(benchmark::State& state)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(rsa_key(), nullptr);
    EVP_PKEY_encrypt_init(ctx);
    EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING);
    unsigned char message[64] = "terminal information";
    unsigned char out[128];
    for (auto _ : state) {
        size_t length = sizeof(out);
        EVP_PKEY_encrypt(ctx, out, &length, message, sizeof(message));
    }
    EVP_PKEY_CTX_free(ctx);
}
BENCHMARK(BM_RsaOaep1024_OpenSSL);
#endif

// Prints the usual table, then ours / OpenSSL throughput for each pair.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            times[run.benchmark_name()] = run.GetAdjustedCPUTime();  // CPU: the machine is shared
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (auto& entry : times) {
            const std::string& name = entry.first;
            size_t at = name.find("_Ours");
            if (at == std::string::npos || name.find("_stddev") != std::string::npos ||
                name.find("_cv") != std::string::npos)
                continue;
            std::string peer = name.substr(0, at) + "_OpenSSL" + name.substr(at + 5);
            auto it = times.find(peer);
            if (it != times.end() && entry.second > 0)
                std::printf("ratio %-28s ours/OpenSSL throughput = %.3f\n",
                            (name.substr(0, at) + name.substr(at + 5)).c_str(),
                            it->second / entry.second);
        }
    }

private:
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

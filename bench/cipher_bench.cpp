// Throughput of the block ciphers and hashes on 4 KiB buffers, each beside
// OpenSSL doing the same work, so one run gives the ratio of the two.
// Counter mode restarts from the IV for every buffer, as the channel does
// for every frame.
#include "cipher/aes.h"
#include "cipher/sha1.h"
#include "cipher/sm3.h"
#include "cipher/sm4.h"

#include <benchmark/benchmark.h>

#include <vector>

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

const int BUFFER_SIZE = 4096;
const unsigned char KEY[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                               0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
const unsigned char IV[16] = {'q', '7', 'm', '2', '.', 'x', 'k', 'r',
                              'v', '.', 'z', 'p', 'l', '.', 't', 'b'};

std::vector<unsigned char> input() {
    std::vector<unsigned char> v(BUFFER_SIZE);
    for (int i = 0; i < BUFFER_SIZE; ++i)
        v[size_t(i)] = (unsigned char)(i * 31 + 7);
    return v;
}

template <class C>
void ours_ctr(benchmark::State& state) {
    C cipher(KEY, 16);
    std::vector<unsigned char> in = input(), out(BUFFER_SIZE);
    int length = 0;
    for (auto _ : state) {
        cipher.encode_ctr(out.data(), length, in.data(), BUFFER_SIZE, IV, 16);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BUFFER_SIZE);
}

// Sm4 takes no key size; this adapter gives it the Aes constructor form.
struct Sm4Key16 : Cipher::Sm4 {
    Sm4Key16(const unsigned char* key, int) : Cipher::Sm4(key) {}
};

template <class H>
void ours_hash(benchmark::State& state) {
    std::vector<unsigned char> in = input();
    H h;
    for (auto _ : state) {
        h.reset();
        h.update(in.data(), BUFFER_SIZE);
        h.final();
        benchmark::DoNotOptimize(h.digest());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BUFFER_SIZE);
}

// The table implementation that CPUs without the AES instructions run.
struct AesTables : Cipher::Aes {
    AesTables(const unsigned char* key, int size) : Cipher::Aes(key, size, false) {}
};

void BM_Ours_Aes128Ctr(benchmark::State& state) { ours_ctr<Cipher::Aes>(state); }
void BM_Ours_Aes128CtrTables(benchmark::State& state) { ours_ctr<AesTables>(state); }
void BM_Ours_Sm4Ctr(benchmark::State& state) { ours_ctr<Sm4Key16>(state); }
void BM_Ours_Sm3(benchmark::State& state) { ours_hash<Cipher::Sm3>(state); }
void BM_Ours_Sha1(benchmark::State& state) { ours_hash<Cipher::Sha1>(state); }

BENCHMARK(BM_Ours_Aes128Ctr);
BENCHMARK(BM_Ours_Aes128CtrTables);
BENCHMARK(BM_Ours_Sm4Ctr);
BENCHMARK(BM_Ours_Sm3);
BENCHMARK(BM_Ours_Sha1);

#ifdef QEL_HAVE_OPENSSL
void openssl_ctr(benchmark::State& state, const char* name) {
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, name, nullptr);
    if (!cipher) {
        state.SkipWithError("cipher not in this OpenSSL");
        return;
    }
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, cipher, nullptr, KEY, IV);
    std::vector<unsigned char> in = input(), out(BUFFER_SIZE);
    int length = 0;
    for (auto _ : state) {
        EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, IV);
        EVP_EncryptUpdate(ctx, out.data(), &length, in.data(), BUFFER_SIZE);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BUFFER_SIZE);
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
}

void openssl_hash(benchmark::State& state, const char* name) {
    EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
    if (!md) {
        state.SkipWithError("digest not in this OpenSSL");
        return;
    }
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    std::vector<unsigned char> in = input();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    for (auto _ : state) {
        EVP_DigestInit_ex(ctx, md, nullptr);
        EVP_DigestUpdate(ctx, in.data(), BUFFER_SIZE);
        EVP_DigestFinal_ex(ctx, digest, &n);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BUFFER_SIZE);
    EVP_MD_CTX_free(ctx);
    EVP_MD_free(md);
}

void BM_OpenSsl_Aes128Ctr(benchmark::State& state) { openssl_ctr(state, "AES-128-CTR"); }
void BM_OpenSsl_Sm4Ctr(benchmark::State& state) { openssl_ctr(state, "SM4-CTR"); }
void BM_OpenSsl_Sm3(benchmark::State& state) { openssl_hash(state, "SM3"); }
void BM_OpenSsl_Sha1(benchmark::State& state) { openssl_hash(state, "SHA1"); }

BENCHMARK(BM_OpenSsl_Aes128Ctr);
BENCHMARK(BM_OpenSsl_Sm4Ctr);
BENCHMARK(BM_OpenSsl_Sm3);
BENCHMARK(BM_OpenSsl_Sha1);
#endif

}  // namespace

BENCHMARK_MAIN();

// Throughput of the wire encodings and checksums, each beside a well-known
// implementation of the same work run in the same process (zlib's crc32,
// OpenSSL's MD5 and base-64), so that their ratio holds however busy the
// machine is. Single-threaded.
#include <stdlib.h>

#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "transport/CRC32.h"
#include "transport/MD5.h"
#include "transport/yenc.h"

namespace {

// Uniform random bytes: yEnc escapes about 6 in 256 of them.
std::vector<unsigned char> Payload(size_t n) {
    std::mt19937 random(12345);
    std::vector<unsigned char> bytes(n);
    for (unsigned char& b : bytes) {
        b = static_cast<unsigned char>(random());
    }
    return bytes;
}

// Every benchmark reports bytes per second of raw (unencoded) payload.
void Count(benchmark::State& state, size_t n) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

void BM_Encode64(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    for (auto _ : state) {
        char* text = Encode64(payload.data(), int(payload.size()));
        benchmark::DoNotOptimize(text);
        free(text);
    }
    Count(state, payload.size());
}

// The same contract as Encode64: a fresh block the caller frees.
void BM_Ref_EVP_EncodeBlock(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    for (auto _ : state) {
        auto* text = static_cast<unsigned char*>(malloc(4 * ((payload.size() + 2) / 3) + 1));
        benchmark::DoNotOptimize(EVP_EncodeBlock(text, payload.data(), int(payload.size())));
        free(text);
    }
    Count(state, payload.size());
}

void BM_Decode64(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    char* text = Encode64(payload.data(), int(payload.size()));
    for (auto _ : state) {
        int len = 0;
        unsigned char* bytes = Decode64(text, &len);
        benchmark::DoNotOptimize(bytes);
        free(bytes);
    }
    free(text);
    Count(state, payload.size());
}

void BM_Ref_EVP_DecodeBlock(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    std::vector<unsigned char> text(4 * ((payload.size() + 2) / 3) + 1);
    const int textLength = EVP_EncodeBlock(text.data(), payload.data(), int(payload.size()));
    for (auto _ : state) {
        auto* bytes = static_cast<unsigned char*>(malloc(size_t(textLength) * 3 / 4));
        benchmark::DoNotOptimize(EVP_DecodeBlock(bytes, text.data(), textLength));
        free(bytes);
    }
    Count(state, payload.size());
}

void BM_yEncode(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    for (auto _ : state) {
        char* text = nullptr;
        benchmark::DoNotOptimize(yEncode(payload.data(), int(payload.size()), &text));
        free(text);
    }
    Count(state, payload.size());
}

void BM_yDecode(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    char* text = nullptr;
    const int length = yEncode(payload.data(), int(payload.size()), &text);
    for (auto _ : state) {
        unsigned char* bytes = nullptr;
        benchmark::DoNotOptimize(yDecode(text, length, &bytes));
        free(bytes);
    }
    free(text);
    Count(state, payload.size());
}

void BM_CRC32_Update(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(CRC32_Update(0xFFFFFFFF, payload.data(), int(payload.size())));
    }
    Count(state, payload.size());
}

void BM_Ref_zlib_crc32(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc32(0, payload.data(), uInt(payload.size())));
    }
    Count(state, payload.size());
}

void BM_MD5(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    unsigned char digest[16];
    for (auto _ : state) {
        vel::MD5Digest(payload.data(), payload.size(), digest);
        benchmark::DoNotOptimize(digest);
    }
    Count(state, payload.size());
}

// One context and one fetched algorithm for the whole run, so that only the
// digest itself is timed, as for ours.
void BM_Ref_OpenSSL_MD5(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    EVP_MD* md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (md5 == nullptr || context == nullptr) {
        state.SkipWithError("OpenSSL has no MD5");
    }
    for (auto _ : state) {
        EVP_DigestInit_ex(context, md5, nullptr);
        EVP_DigestUpdate(context, payload.data(), payload.size());
        EVP_DigestFinal_ex(context, digest, &length);
        benchmark::DoNotOptimize(digest);
    }
    EVP_MD_CTX_free(context);
    EVP_MD_free(md5);
    Count(state, payload.size());
}

// 64 bytes is a short key or record; 3 KiB about the largest data frame a
// message below 4096 bytes carries; 1 MiB for the sustained rate.
#define ND_SIZES Arg(64)->Arg(3 << 10)->Arg(1 << 20)

BENCHMARK(BM_Encode64)->ND_SIZES;
BENCHMARK(BM_Ref_EVP_EncodeBlock)->ND_SIZES;
BENCHMARK(BM_Decode64)->ND_SIZES;
BENCHMARK(BM_Ref_EVP_DecodeBlock)->ND_SIZES;
BENCHMARK(BM_yEncode)->ND_SIZES;
BENCHMARK(BM_yDecode)->ND_SIZES;
BENCHMARK(BM_CRC32_Update)->ND_SIZES;
BENCHMARK(BM_Ref_zlib_crc32)->ND_SIZES;
BENCHMARK(BM_MD5)->ND_SIZES;
BENCHMARK(BM_Ref_OpenSSL_MD5)->ND_SIZES;

} // namespace

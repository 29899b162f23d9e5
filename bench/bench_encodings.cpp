// Throughput of the wire encodings and checksums. Single-threaded.
#include <stdlib.h>

#include <random>
#include <vector>

#include <benchmark/benchmark.h>

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

// Every benchmark reports MB/s of raw (unencoded) payload.
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

void BM_MD5(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    unsigned char digest[16];
    for (auto _ : state) {
        vel::MD5Digest(payload.data(), payload.size(), digest);
        benchmark::DoNotOptimize(digest);
    }
    Count(state, payload.size());
}

// 64 bytes is a short key or record; 3 KiB about the largest data frame a
// message below 4096 bytes carries; 1 MiB for the sustained rate.
#define ND_SIZES Arg(64)->Arg(3 << 10)->Arg(1 << 20)

BENCHMARK(BM_Encode64)->ND_SIZES;
BENCHMARK(BM_Decode64)->ND_SIZES;
BENCHMARK(BM_yEncode)->ND_SIZES;
BENCHMARK(BM_yDecode)->ND_SIZES;
BENCHMARK(BM_CRC32_Update)->ND_SIZES;
BENCHMARK(BM_MD5)->ND_SIZES;

} // namespace

BENCHMARK_MAIN();

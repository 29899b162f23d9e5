// Throughput of the wire encodings and checksums, each beside a well-known
// implementation of the same work run in the same process (zlib's crc32,
// OpenSSL's MD5 and base-64), so that their ratio holds however busy the
// machine is. Single-threaded.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
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

// Each of ours first checks that it computes what its reference computes on
// this payload, so that the ratio compares the same work.
bool Verified(benchmark::State& state, bool same, const char* what) {
    if (!same) {
        state.SkipWithError(what);
    }
    return same;
}

// Every benchmark reports bytes per second of raw (unencoded) payload.
void Count(benchmark::State& state, size_t n) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

// Standard base-64 of the payload's whole groups, in this wire's alphabet.
std::string StandardBase64InOurAlphabet(const std::vector<unsigned char>& payload) {
    const size_t whole = payload.size() / 3 * 3;
    std::string text(4 * whole / 3 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), payload.data(), int(whole));
    text.pop_back();
    std::replace(text.begin(), text.end(), '+', '(');
    std::replace(text.begin(), text.end(), '/', ')');
    return text;
}

void BM_Encode64(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    char* ours = Encode64(payload.data(), int(payload.size()));
    const std::string expected = StandardBase64InOurAlphabet(payload);
    const bool same = strncmp(ours, expected.c_str(), expected.size()) == 0;
    free(ours);
    if (!Verified(state, same, "Encode64 differs from EVP_EncodeBlock")) {
        return;
    }
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
    int decodedLength = 0;
    unsigned char* decoded = Decode64(text, &decodedLength);
    const bool same = size_t(decodedLength) >= payload.size() &&
                      memcmp(decoded, payload.data(), payload.size()) == 0;
    free(decoded);
    if (!Verified(state, same, "Decode64 does not give back the payload")) {
        free(text);
        return;
    }
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

// yEnc escapes a few bytes in a hundred, at random places: on one payload
// timed again and again the branch predictor learns where, which a stream of
// distinct frames never allows. So the yEnc benchmarks walk through 1 MiB of
// distinct frames of the given size.
constexpr size_t kFramePool = 1 << 20;

void BM_yEncode(benchmark::State& state) {
    const size_t n = size_t(state.range(0));
    const auto pool = Payload(kFramePool);
    size_t at = 0;
    for (auto _ : state) {
        char* text = nullptr;
        benchmark::DoNotOptimize(yEncode(&pool[at], int(n), &text));
        free(text);
        at = at + 2 * n <= pool.size() ? at + n : 0;
    }
    Count(state, n);
}

void BM_yDecode(benchmark::State& state) {
    const size_t n = size_t(state.range(0));
    const auto pool = Payload(kFramePool);
    std::vector<std::string> frames;
    for (size_t at = 0; at + n <= pool.size(); at += n) {
        char* text = nullptr;
        const int length = yEncode(&pool[at], int(n), &text);
        unsigned char* decoded = nullptr;
        const bool same =
            yDecode(text, length, &decoded) == int(n) && memcmp(decoded, &pool[at], n) == 0;
        frames.emplace_back(text, size_t(length));
        free(decoded);
        free(text);
        if (!Verified(state, same, "yDecode does not give back the payload")) {
            return;
        }
    }
    size_t next = 0;
    for (auto _ : state) {
        const std::string& frame = frames[next];
        unsigned char* bytes = nullptr;
        benchmark::DoNotOptimize(yDecode(frame.c_str(), int(frame.size()), &bytes));
        free(bytes);
        next = next + 1 < frames.size() ? next + 1 : 0;
    }
    Count(state, n);
}

void BM_CRC32_Update(benchmark::State& state) {
    const auto payload = Payload(size_t(state.range(0)));
    // Every length up to 64 at every offset up to 16, and the whole payload.
    bool same = (CRC32_Update(0xFFFFFFFF, payload.data(), int(payload.size())) ^ 0xFFFFFFFF) ==
                crc32(0, payload.data(), uInt(payload.size()));
    for (size_t offset = 0; offset < 16 && offset < payload.size(); ++offset) {
        for (size_t n = 0; n <= 64 && offset + n <= payload.size(); ++n) {
            same = same && (CRC32_Update(0xFFFFFFFF, &payload[offset], int(n)) ^ 0xFFFFFFFF) ==
                               crc32(0, &payload[offset], uInt(n));
        }
    }
    if (!Verified(state, same, "CRC32_Update differs from zlib's crc32")) {
        return;
    }
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
    unsigned char expected[EVP_MAX_MD_SIZE];
    vel::MD5Digest(payload.data(), payload.size(), digest);
    const bool same =
        EVP_Digest(payload.data(), payload.size(), expected, nullptr, EVP_md5(), nullptr) == 1 &&
        memcmp(digest, expected, sizeof digest) == 0;
    if (!Verified(state, same, "MD5 differs from OpenSSL's")) {
        return;
    }
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

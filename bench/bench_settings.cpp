// The settings file's line checksum and its reader over a typical file, as the
// daemon reads it once at start-up. Single-threaded.
#include <sstream>
#include <string>

#include <benchmark/benchmark.h>

#include "config/Preferences.h"
#include "config/SettingsReader.h"

namespace {

// What an installation's config.dat holds: the keys the daemon reads, a proxy
// and gateway list for the transport, comments and blank lines.
constexpr const char* kTypicalConfig = "; Notification client settings\n"
                                       "; written by the installer\n"
                                       "\n"
                                       "[gateway]\n"
                                       "gatewayip=10.20.30.40\n"
                                       "gatewayport=443\n"
                                       "gatewaykey=DNEBFCHAGDKAJBLC\n"
                                       "department=Customer Support\n"
                                       "\n"
                                       "[agent]\n"
                                       "UpdateInterval=60\n"
                                       "\n"
                                       "[UI]\n"
                                       "FullScreen=0\n"
                                       "FullScreenTimeout=30\n"
                                       "LargeLogoPath=/usr/sxa/gui/message/logo-large.png\n"
                                       "\n"
                                       "[HTTP]\n"
                                       "Gateway_Name_1=primary\n"
                                       "Gateway_1=10.20.30.40:443\n"
                                       "Gateway_UseWebProxy_1=0\n"
                                       "Gateway_Name_2=fallback\n"
                                       "Gateway_2=10.20.31.40:443\n"
                                       "Gateway_UseWebProxy_2=1\n"
                                       "Gateway_WebProxy_2=proxy.example.internal:8080\n"
                                       "*TcpNoDelay=1\n"
                                       "\n"
                                       "[client247]\n"
                                       "CHATID=desk-0042\n"
                                       "A1=Building 3\n"
                                       "A2=Floor 2\n";

void BM_nc_checksum(benchmark::State& state) {
    std::string line = "LargeLogoPath=/usr/sxa/gui/message/logo-large.png";
    line.resize(size_t(state.range(0)), 'x');
    line += '\0'; // an odd length's last word takes the terminator
    unsigned long checksum = 0;
    for (auto _ : state) {
        checksum = nc_checksum(reinterpret_cast<unsigned char*>(&line[0]),
                               short((state.range(0) + 1) / 2), checksum);
        benchmark::DoNotOptimize(checksum);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

// Checksum only (no store), then checksum and store: the difference is the
// cost of the store's maps.
void BM_ReadLines(benchmark::State& state) {
    const bool fillStore = state.range(0) != 0;
    const std::string text = kTypicalConfig;
    for (auto _ : state) {
        std::istringstream in(text);
        unsigned long checksum = 0;
        vel::Preferences prefs;
        benchmark::DoNotOptimize(vel::ReadLines(in, checksum, fillStore ? &prefs : nullptr, 0));
        benchmark::DoNotOptimize(checksum);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
    state.SetLabel(fillStore ? "checksum and store" : "checksum only");
}

// A short key line, and the longest line the reader takes.
BENCHMARK(BM_nc_checksum)->Arg(21)->Arg(1024);
BENCHMARK(BM_ReadLines)->Arg(0)->Arg(1);

} // namespace

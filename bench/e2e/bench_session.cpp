// bench_session: the desktop lookup of one notification, the X server probe
// with the login records (SessionDiscovery absent) beside logind's session
// and its checked environment (SessionDiscovery=1), in turns, then each with
// the display program's fork and exec. Runs as root in a booted system with a
// logind session on :0 whose X server was started as "/usr/bin/X :0 -auth
// FILE" (bench/e2e/session.sh sets that up). Single-threaded.
//
//   bench_session [RUNS]   (default 200)
//
// Human-readable lines, and every figure once more as "RESULT <name> <value>
// <unit>".
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "host/ForkProcess.h"
#include "host/MachineDetails.h"
#include "host/SessionDiscovery.h"

namespace {

constexpr int kWarmUp = 5;
constexpr const char* kProgramDir = "/bin";
constexpr const char* kProgram = "true";

double NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

double Percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    size_t rank = size_t(p / 100.0 * double(values.size()) + 0.999999);
    rank = std::min(std::max(rank, size_t(1)), values.size());
    return values.empty() ? 0 : values[rank - 1];
}

void Report(const std::string& name, const std::string& what, const std::vector<double>& ms) {
    printf("   %-52s n=%zu  p50 %6.2f  p99 %6.2f  max %6.2f ms\n", what.c_str(), ms.size(),
           Percentile(ms, 50), Percentile(ms, 99), Percentile(ms, 100));
    printf("RESULT %s.p50 %.3f ms\nRESULT %s.p99 %.3f ms\n", name.c_str(), Percentile(ms, 50),
           name.c_str(), Percentile(ms, 99));
}

// Today's lookup: the X server's authority by its command line, the user
// from the login records.
bool Probe(bool start) {
    std::string authority, user;
    char entry[] = "MESSAGE=bench";
    char* entries[] = {entry, nullptr};
    const pid_t child = start ? vel::ForkGuiProcess(kProgramDir, kProgram, entries) : 0;
    if (!start) {
        vel::GetXAuthority(authority);
    }
    vel::GetMachineUserName(user);
    if (child > 0) {
        waitpid(child, nullptr, 0);
    }
    return start ? child > 0 : !authority.empty() && !user.empty();
}

// Discovery's lookup: logind's session, its checked environment, the
// display program's whole environment built.
bool Discover(bool start) {
    vel::DesktopSession session;
    std::string why;
    if (!vel::DiscoverDesktopSession(session, why)) {
        fprintf(stderr, "bench_session: %s\n", why.c_str());
        return false;
    }
    std::vector<std::string> all = vel::BuildSessionLaunchEnvironment(
        environ, session.environment, {"MESSAGE=bench"}, session.user);
    if (!start) {
        return true;
    }
    std::vector<char*> pointers;
    for (std::string& entry : all) {
        pointers.push_back(&entry[0]);
    }
    pointers.push_back(nullptr);
    const pid_t child = vel::ForkGuiProcessWithEnvironment(kProgramDir, kProgram, pointers.data());
    if (child > 0) {
        waitpid(child, nullptr, 0);
    }
    return child > 0;
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 200;
    const struct {
        const char* name;
        const char* what;
        std::function<bool()> step;
    } steps[] = {
        {"lookup.probe", "X server probe + login records", [] { return Probe(false); }},
        {"lookup.discovery", "logind session + checked environment",
         [] { return Discover(false); }},
        {"start.probe", "probe, fork and exec, login records", [] { return Probe(true); }},
        {"start.discovery", "discovery, fork and exec", [] { return Discover(true); }},
    };
    std::vector<std::vector<double>> times(sizeof steps / sizeof steps[0]);
    for (int run = 0; run < runs + kWarmUp; ++run) {
        for (size_t i = 0; i < times.size(); ++i) {
            const double start = NowMs();
            if (!steps[i].step()) {
                fprintf(stderr, "bench_session: %s failed\n", steps[i].name);
                return 1;
            }
            if (run >= kWarmUp) {
                times[i].push_back(NowMs() - start);
            }
        }
    }
    printf("Desktop lookup of one notification, %d runs each, in turns\n", runs);
    for (size_t i = 0; i < times.size(); ++i) {
        Report(steps[i].name, steps[i].what, times[i]);
    }
    return 0;
}

// bench_session: a notification's way to the desktop in a booted system
// (bench/e2e/session.sh sets it up: a logind session for "alice" on :0 whose
// X server was started as "/usr/bin/X :0 -auth FILE", with a login record,
// so both ways find her). Runs as root; single-threaded apart from the
// gateway's IO thread.
//
//   bench_session lookup [RUNS]  the lookup alone: the X server probe with the
//                                login records (SessionDiscovery absent)
//                                beside logind's session and its checked
//                                environment (SessionDiscovery=1), in turns,
//                                then each with a fork and exec
//   bench_session path [RUNS]    the installed daemon under systemd, in
//                                blocks that alternate the two modes: MESSAGE
//                                written -> display program runs and ->
//                                "CMD=MESSAGERECEIVED" at the gateway
//
// Human-readable lines, and every figure once more as "RESULT <name> <value>
// <unit>".
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Desk.h"
#include "E2E.h"
#include "Stats.h"
#include "host/ForkProcess.h"
#include "host/MachineDetails.h"
#include "host/SessionDiscovery.h"

namespace {

constexpr int kWarmUp = 5;
constexpr int kBlock = 50;
constexpr int kFirstId = 5000;
constexpr int kRegisterTimeoutMs = 30000;
// Installed over the package's display program (the bed is thrown away).
constexpr const char* kDisplayProgram = "/root/bench_display";
constexpr const char* kProgramDir = "/bin";
constexpr const char* kProgram = "true";

double NowMs() {
    return double(bench::NowNs()) / 1e6;
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

int Lookup(int runs) {
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
        bench::ReportDistribution(steps[i].name, steps[i].what, times[i]);
    }
    return 0;
}

// The daemon as the package runs it, restarted by systemd with the mode's
// settings; true once it has registered and asked for the customisation file.
bool RestartIn(bench::Desk& desk, int port, bool discovery) {
    desk.WriteSettings(port, discovery ? "SessionDiscovery=1\n" : "");
    desk.ForgetEvents();
    const long long since = bench::NowNs();
    const pid_t systemctl =
        e2e::Spawn("/bin/systemctl", {"systemctl", "restart", "notifydaemon.service"});
    int status = 0;
    if (systemctl <= 0 || waitpid(systemctl, &status, 0) != systemctl || status != 0) {
        fprintf(stderr, "bench_session: systemctl restart failed\n");
        return false;
    }
    return desk.WaitForEvent("GETFILEINFO", -1, since, kRegisterTimeoutMs) != 0;
}

int Path(int runs) {
    bench::Desk desk({"", kDisplayProgram, "", ""});
    const int port = desk.StartGateway();
    if (port <= 0 || !desk.ListenForDisplays()) {
        fprintf(stderr, "bench_session: no gateway or display socket\n");
        return 1;
    }
    const char* modes[] = {"today", "discovery"};
    std::vector<double> display[2], received[2];
    int id = kFirstId;
    // Blocks in turns, so that both modes see the same machine.
    for (int done = 0; done < runs;) {
        const int block = std::min(kBlock, runs - done);
        for (int mode = 0; mode < 2; ++mode) {
            if (!RestartIn(desk, port, mode == 1)) {
                fprintf(stderr, "bench_session: the daemon did not register (%s)\n", modes[mode]);
                return 1;
            }
            for (int i = 0; i < kWarmUp + block; ++i) {
                bench::Trip trip;
                if (!desk.Notify(id++, trip)) {
                    return 1;
                }
                if (i >= kWarmUp) {
                    display[mode].push_back(trip.display);
                    received[mode].push_back(trip.received);
                }
            }
        }
        done += block;
    }
    printf("A notification's path through the daemon under systemd, %d each, blocks of %d\n", runs,
           kBlock);
    for (int mode = 0; mode < 2; ++mode) {
        bench::ReportDistribution(std::string("path.") + modes[mode] + ".display",
                                  std::string(modes[mode]) + ": MESSAGE -> display program runs",
                                  display[mode]);
        bench::ReportDistribution(std::string("path.") + modes[mode] + ".received",
                                  std::string(modes[mode]) + ": MESSAGE -> MESSAGERECEIVED",
                                  received[mode]);
    }
    const double ratio =
        bench::Percentile(display[0], 50) / std::max(bench::Percentile(display[1], 50), 1e-3);
    printf("   discovery is %.1fx faster to the display program at p50\n", ratio);
    bench::Result("path.display.speedup_p50", ratio, "x");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string phase = argc > 1 ? argv[1] : "";
    const int runs = argc > 2 ? std::max(1, atoi(argv[2])) : 200;
    if (phase == "lookup") {
        return Lookup(runs);
    }
    if (phase == "path") {
        return Path(runs);
    }
    fprintf(stderr, "usage: bench_session lookup|path [RUNS]\n");
    return 2;
}

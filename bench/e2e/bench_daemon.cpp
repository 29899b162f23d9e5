// bench_daemon: end-to-end benchmarks of the real daemon against the
// development gateway on loopback. Runs as root inside tests/support/sandbox
// (scripts/bench.sh starts it there); single-threaded apart from the
// gateway's IO thread. One phase per run:
//
//   bench_daemon latency [COUNT [BURST]]  start-up with real timing, COUNT
//                                         notifications one at a time, a burst
//                                         of BURST, and the notification path's
//                                         steps timed one by one
//   bench_daemon startup [RUNS]           start-up with the test timing seam
//   bench_daemon idle [SECONDS]           footprint connected, then with the
//                                         gateway gone (reconnecting)
//   bench_daemon unreachable [SECONDS]    footprint while start-up retries
//
// Human-readable lines, and every figure once more as
// "RESULT <name> <value> <unit>" for the summary.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "BenchPaths.h"
#include "Desk.h"
#include "Footprint.h"
#include "Stats.h"
#include "host/ForkProcess.h"
#include "host/MachineDetails.h"
#include "host/PipeSubprocess.h"

namespace bench {
namespace {

constexpr int kReplyTimeoutMs = kDeskReplyTimeoutMs;
constexpr int kRealStartTimeoutMs = 30000;
constexpr int kWarmUp = 5;
constexpr int kFirstId = 1000;
constexpr int kFirstBurstId = 100000;
constexpr int kSettleMs = 2000;

Programs BuiltPrograms() {
    return {ND_STUB_PATH, ND_BENCH_DISPLAY_PATH, ND_REAL_DAEMON_PATH, ND_FAST_DAEMON_PATH};
}

// The gateway up, the settings written, the daemon started; false on failure.
bool StartConnected(Desk& desk, const std::string& binary) {
    const int port = desk.StartGateway();
    if (port <= 0) {
        fprintf(stderr, "bench: the gateway did not start\n");
        return false;
    }
    desk.WriteSettings(port);
    if (desk.StartDaemon(binary) <= 0) {
        fprintf(stderr, "bench: the daemon did not start\n");
        return false;
    }
    return true;
}

// Spawn to TCP connection, registration and the first customisation check
// (sent once "Started up successfully." is logged); false on a time-out.
bool ReportStartUp(Desk& desk, const std::string& name, int timeoutMs, bool print = true) {
    const long long spawn = desk.SpawnNs();
    const long long open = desk.WaitForEvent("OPEN", -1, spawn, timeoutMs);
    const long long started = desk.WaitForEvent("GETFILEINFO", -1, spawn, timeoutMs);
    const long long connected = desk.AcceptNs();
    if (connected == 0 || open == 0 || started == 0) {
        fprintf(stderr, "bench: no registration within %d ms\n", timeoutMs);
        return false;
    }
    if (print) {
        printf(
            "   spawn -> TCP connect %.1f ms, -> CMD=OPEN %.1f ms, -> first GETFILEINFO %.1f ms\n",
            Ms(connected - spawn), Ms(open - spawn), Ms(started - spawn));
    }
    Result(name + ".connect", Ms(connected - spawn), "ms");
    Result(name + ".registration", Ms(open - spawn), "ms");
    Result(name + ".started", Ms(started - spawn), "ms");
    return true;
}

bool Latency(Desk& desk, int count) {
    printf("\n== Latency: %d notifications, one at a time (each waits for its acknowledgement)\n",
           count);
    Trip trip;
    for (int i = 0; i < kWarmUp; ++i) {
        if (!desk.Notify(kFirstId - kWarmUp + i, trip)) {
            return false;
        }
    }
    std::vector<double> display, received, acked;
    const CpuTotals cpuBefore = ReadCpuTotals(desk.DaemonPid());
    for (int i = 0; i < count; ++i) {
        if (!desk.Notify(kFirstId + i, trip)) {
            return false;
        }
        display.push_back(trip.display);
        received.push_back(trip.received);
        acked.push_back(trip.acked);
        if (i % 50 == 49) {
            desk.ForgetEvents(); // keeps the searches short
        }
    }
    // The daemon's own threads only: the transport ignores SIGCHLD, so the
    // kernel reaps the processes it starts and their time is counted nowhere
    // (the steps below measure it).
    const CpuTotals cpuAfter = ReadCpuTotals(desk.DaemonPid());
    const double selfMs = (cpuAfter.selfMs - cpuBefore.selfMs) / count;
    printf("   CPU per notification in the daemon's own threads: %.2f ms\n", selfMs);
    Result("latency.cpu_daemon", selfMs, "ms");
    ReportDistribution("latency.display", "MESSAGE written -> display program runs", display);
    ReportDistribution("latency.received", "MESSAGE written -> MESSAGERECEIVED arrives", received);
    ReportDistribution("latency.acknowledged", "MESSAGE written -> MESSAGEACK arrives", acked);
    return true;
}

bool Burst(Desk& desk, int count) {
    printf("\n== Burst: %d distinct notifications written back to back\n", count);
    desk.ForgetEvents();
    desk.ForgetDisplays();
    const long long first = NowNs();
    for (int i = 0; i < count; ++i) {
        if (!desk.Gateway().SendNotification(kFirstBurstId + i, "Burst " + std::to_string(i),
                                             "30|Burst", "1")) {
            return false;
        }
    }
    const long long written = NowNs();
    long long lastReceipt = 0, lastDisplay = 0;
    for (int i = 0; i < count; ++i) {
        const long long r =
            desk.WaitForEvent("MESSAGERECEIVED", kFirstBurstId + i, first, kReplyTimeoutMs);
        const long long d = desk.WaitForDisplay(kFirstBurstId + i, kReplyTimeoutMs);
        if (r == 0 || d == 0) {
            fprintf(stderr, "bench: burst notification %d lost\n", i);
            return false;
        }
        lastReceipt = std::max(lastReceipt, r);
        lastDisplay = std::max(lastDisplay, d);
    }
    const double seconds = double(lastReceipt - first) / 1e9;
    printf(
        "   written in %.2f ms; all receipts after %.1f ms, all display programs after %.1f ms\n",
        Ms(written - first), Ms(lastReceipt - first), Ms(lastDisplay - first));
    printf("   throughput %.1f notifications/s (%.2f ms each)\n", count / seconds,
           1000 * seconds / count);
    Result("burst.count", count, "notifications");
    Result("burst.throughput", count / seconds, "1/s");
    Result("burst.per_notification", 1000 * seconds / count, "ms");
    // The acknowledgements are still coming; let them land before the next step.
    desk.WaitForEvent("MESSAGEACK", kFirstBurstId + count - 1, first, kReplyTimeoutMs);
    return true;
}

// Runs one step `runs` times: the wall time of each run, and the CPU time
// this process and the processes it started spent per run (each run has
// reaped its children before the count is read).
void Step(const std::string& name, const std::string& what, int runs,
          const std::function<double()>& once) {
    std::vector<double> wall;
    const CpuTotals before = ReadCpuTotals(getpid());
    for (int i = 0; i < runs; ++i) {
        const double ms = once();
        if (ms >= 0) {
            wall.push_back(ms);
        }
    }
    const CpuTotals after = ReadCpuTotals(getpid());
    const double cpu =
        (after.selfMs + after.childrenMs - before.selfMs - before.childrenMs) / double(runs);
    ReportDistribution(name, what, wall);
    printf("   %-44s CPU %.2f ms per run, this process and its children\n", "", cpu);
    Result(name + ".cpu", cpu, "ms");
}

// Milliseconds from `start` until the display program of message 1 reports
// its start, once it has ended; -1 if it did not run.
double UntilDisplayRuns(Desk& desk, pid_t child, long long start) {
    const long long shown = child > 0 ? desk.WaitForDisplay(1, kReplyTimeoutMs) : 0;
    if (child > 0) {
        waitpid(child, nullptr, 0);
    }
    return shown != 0 ? Ms(shown - start) : -1;
}

// The notification path's expensive steps, each run here in the same sandbox
// as the daemon runs them, one at a time.
void Steps(Desk& desk, int runs) {
    printf("\n== The notification path's steps, timed one by one (%d runs each)\n", runs);
    char idEntry[] = "MESSAGE_ID=1";
    const auto timed = [](const std::function<void()>& f) {
        const long long t = NowNs();
        f();
        return Ms(NowNs() - t);
    };
    std::string text;
    // The X server probe, and its parts: the shell alone, the shell and ps.
    Step("step.popen_shell", "popen of \"true\" (the shell alone)", runs,
         [&] { return timed([&] { vel::ReadCommandOutput("true", text); }); });
    Step("step.popen_ps", "popen of \"ps wax -o cmd\"", runs,
         [&] { return timed([&] { vel::ReadCommandOutput("ps wax -o cmd", text); }); });
    Step("step.xauthority", "GetXAuthority (ps | egrep | grep)", runs,
         [&] { return timed([&] { vel::GetXAuthority(text); }); });
    Step("step.forkguiprocess", "ForkGuiProcess -> display program runs", runs, [&] {
        desk.ForgetDisplays();
        char* entries[] = {idEntry, nullptr};
        const long long t = NowNs();
        const pid_t child = vel::ForkGuiProcess("/usr/sxa/gui/message", "notifymessage", entries);
        return UntilDisplayRuns(desk, child, t);
    });
    Step("step.forkexec", "plain fork + exec -> display program runs", runs, [&] {
        desk.ForgetDisplays();
        const long long t = NowNs();
        const pid_t child = fork();
        if (child == 0) {
            char path[] = "/usr/sxa/gui/message/notifymessage";
            char* argv[] = {path, nullptr};
            char* env[] = {idEntry, nullptr};
            execve(path, argv, env);
            _exit(127);
        }
        return UntilDisplayRuns(desk, child, t);
    });
    Step("step.username", "GetMachineUserName, alice on :0", runs,
         [&] { return timed([&] { vel::GetMachineUserName(text); }); });
    // Nobody logged in on the console: the display-manager probes run.
    truncate("/run/utmp", 0);
    Step("step.username_nologin", "GetMachineUserName, nobody logged in", std::max(1, runs / 5),
         [&] { return timed([&] { vel::GetMachineUserName(text); }); });
}

int RunLatency(int count, int burst) {
    Desk desk(BuiltPrograms());
    if (!desk.SetUpDesktop()) {
        fprintf(stderr, "bench: desktop set-up failed\n");
        return 1;
    }
    printf("\n== Start-up, shipped daemon with real timing (the transport waits 10 s after "
           "connecting)\n");
    if (!StartConnected(desk, BuiltPrograms().realDaemon) ||
        !ReportStartUp(desk, "startup.real", kRealStartTimeoutMs)) {
        return 1;
    }
    if (!Latency(desk, count) || !Burst(desk, burst)) {
        return 1;
    }
    const ProcessSample after = Sample(desk.DaemonPid());
    printf("\n== Memory after %d notifications: VmRSS %lld kB, VmHWM %lld kB\n",
           count + burst + kWarmUp, after.rssKb, after.hwmKb);
    Result("busy.vmrss", double(after.rssKb), "kB");
    Result("busy.vmhwm", double(after.hwmKb), "kB");
    desk.StopDaemon();
    Steps(desk, 50);
    return 0;
}

int RunStartUp(int runs) {
    Desk desk(BuiltPrograms());
    if (!desk.SetUpDesktop()) {
        return 1;
    }
    printf("\n== Start-up with the test timing seam (transport waits 20 ms after connecting, "
           "not 10 s), %d runs\n",
           runs);
    std::vector<double> connect, registration, started;
    for (int i = 0; i < runs; ++i) {
        if (!StartConnected(desk, BuiltPrograms().fastDaemon)) {
            return 1;
        }
        const long long spawn = desk.SpawnNs();
        const long long o = desk.WaitForEvent("OPEN", -1, spawn, kReplyTimeoutMs);
        const long long s = desk.WaitForEvent("GETFILEINFO", -1, spawn, kReplyTimeoutMs);
        const long long c = desk.AcceptNs();
        if (c == 0 || o == 0 || s == 0) {
            fprintf(stderr, "bench: start-up %d did not complete\n", i);
            return 1;
        }
        connect.push_back(Ms(c - spawn));
        registration.push_back(Ms(o - spawn));
        started.push_back(Ms(s - spawn));
        desk.StopDaemon();
        desk.StopGateway();
        desk.ForgetEvents();
    }
    ReportDistribution("startup.seam.connect", "spawn -> TCP connect", connect);
    ReportDistribution("startup.seam.registration", "spawn -> CMD=OPEN", registration);
    ReportDistribution("startup.seam.started", "spawn -> first GETFILEINFO", started);
    return 0;
}

int RunIdle(int seconds) {
    Desk desk(BuiltPrograms());
    if (!desk.SetUpDesktop() || !StartConnected(desk, BuiltPrograms().realDaemon) ||
        !ReportStartUp(desk, "idle.startup", kRealStartTimeoutMs, false)) {
        return 1;
    }
    const pid_t pid = desk.DaemonPid();
    SleepMs(kSettleMs);
    ProcessSample from = Sample(pid);
    PerfCounts perf = IdleWindow(pid, seconds);
    ProcessSample to = Sample(pid);
    ReportFootprint("Idle, connected", "idle.connected", from, to, perf);
    const int polls = desk.CountEvents("POLL", from.ns, to.ns);
    printf("   POLLs in the window: %d\n", polls);
    Result("idle.connected.polls", polls, "requests");

    desk.StopGateway(); // the link drops; the read loop reconnects every ~6 s
    SleepMs(kSettleMs);
    from = Sample(pid);
    perf = IdleWindow(pid, seconds);
    to = Sample(pid);
    ReportFootprint("Idle, gateway gone, reconnecting", "idle.disconnected", from, to, perf);
    return 0;
}

int RunUnreachable(int seconds) {
    Desk desk(BuiltPrograms());
    if (!desk.SetUpDesktop()) {
        return 1;
    }
    // A port that was free a moment ago and that nobody listens on now.
    const int port = desk.StartGateway();
    desk.StopGateway();
    desk.WriteSettings(port);
    const pid_t pid = desk.StartDaemon(BuiltPrograms().realDaemon);
    if (pid <= 0) {
        return 1;
    }
    SleepMs(kSettleMs);
    const ProcessSample from = Sample(pid);
    const PerfCounts perf = IdleWindow(pid, seconds);
    const ProcessSample to = Sample(pid);
    ReportFootprint("Gateway unreachable from the start, start-up retrying", "idle.unreachable",
                    from, to, perf);
    return 0;
}

int Argument(int argc, char** argv, int index, int fallback) {
    return argc > index ? atoi(argv[index]) : fallback;
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    const std::string phase = argc > 1 ? argv[1] : "";
    if (phase == "latency") {
        return bench::RunLatency(bench::Argument(argc, argv, 2, 200),
                                 bench::Argument(argc, argv, 3, 100));
    }
    if (phase == "startup") {
        return bench::RunStartUp(bench::Argument(argc, argv, 2, 5));
    }
    if (phase == "idle") {
        return bench::RunIdle(bench::Argument(argc, argv, 2, 60));
    }
    if (phase == "unreachable") {
        return bench::RunUnreachable(bench::Argument(argc, argv, 2, 60));
    }
    fprintf(stderr, "usage: bench_daemon latency [COUNT [BURST]] | startup [RUNS] | "
                    "idle [SECONDS] | unreachable [SECONDS]\n");
    return 2;
}

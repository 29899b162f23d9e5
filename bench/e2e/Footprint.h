// What a process costs while it idles, read from /proc: memory, CPU time and
// context switches of each of its threads, sampled at the start and the end
// of a window. Main thread of the harness only.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace bench {

struct ThreadCounters {
    long long cpuTicks = 0;    // utime + stime of /proc/<pid>/task/<tid>/stat
    long long runNs = 0;       // first field of .../schedstat
    long long voluntary = 0;   // voluntary_ctxt_switches: each one a sleep and a wake-up
    long long involuntary = 0; // nonvoluntary_ctxt_switches: preempted
    std::string waitsIn;       // wchan: the kernel function it sleeps in
};

struct ProcessSample {
    long long ns = 0;
    long long rssKb = 0;                   // VmRSS
    long long hwmKb = 0;                   // VmHWM
    long long cpuTicks = 0;                // utime + stime of /proc/<pid>/stat
    std::map<int, ThreadCounters> threads; // by tid
};

// What perf counted over the same window, when it is installed.
struct PerfCounts {
    bool counted = false;
    double contextSwitches = 0;
    double taskClockMs = 0;
};

ProcessSample Sample(pid_t pid);

// CPU time of a process itself, and of the children it has waited for
// (fields 14 to 17 of /proc/<pid>/stat), in milliseconds.
struct CpuTotals {
    double selfMs = 0;
    double childrenMs = 0;
};
CpuTotals ReadCpuTotals(pid_t pid);

// Lets the window pass, with perf counting the process meanwhile if it can.
PerfCounts IdleWindow(pid_t pid, int seconds);

// Prints the window between two samples under a title, and its figures as
// "RESULT <prefix>.<name> <value> <unit>" lines.
void ReportFootprint(const std::string& title, const std::string& prefix, const ProcessSample& from,
                     const ProcessSample& to, const PerfCounts& perf);

} // namespace bench

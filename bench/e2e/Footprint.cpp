#include "Footprint.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "Desk.h"
#include "HostTesting.h"

namespace bench {

namespace {

using hosttest::ReadFile;

// The number after "<key>:" in a /proc status file; 0 when absent.
long long StatusField(const std::string& status, const char* key) {
    const std::string label = std::string("\n") + key + ":";
    const size_t at = status.find(label);
    return at == std::string::npos ? 0 : atoll(status.c_str() + at + label.size());
}

// Fields 14 (utime) to 17 (cstime) of a stat line, counted after the ")"
// that ends the command name (which may itself hold blanks).
void StatFields(const std::string& stat, long long (&ticks)[4]) {
    ticks[0] = ticks[1] = ticks[2] = ticks[3] = 0;
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return;
    }
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    for (int i = 3; i <= 17 && fields >> field; ++i) {
        if (i >= 14) {
            ticks[i - 14] = atoll(field.c_str());
        }
    }
}

// utime + stime.
long long StatTicks(const std::string& stat) {
    long long ticks[4];
    StatFields(stat, ticks);
    return ticks[0] + ticks[1];
}

double Ms(long long ticks) {
    return 1000.0 * double(ticks) / double(sysconf(_SC_CLK_TCK));
}

void Result(const std::string& prefix, const char* name, double value, const char* unit) {
    printf("RESULT %s.%s %.3f %s\n", prefix.c_str(), name, value, unit);
}

} // namespace

ProcessSample Sample(pid_t pid) {
    ProcessSample sample;
    sample.ns = NowNs();
    const std::string base = "/proc/" + std::to_string(pid);
    const std::string status = ReadFile(base + "/status");
    sample.rssKb = StatusField(status, "VmRSS");
    sample.hwmKb = StatusField(status, "VmHWM");
    sample.cpuTicks = StatTicks(ReadFile(base + "/stat"));
    DIR* tasks = opendir((base + "/task").c_str());
    if (tasks == nullptr) {
        return sample;
    }
    while (dirent* entry = readdir(tasks)) {
        const int tid = atoi(entry->d_name);
        if (tid <= 0) {
            continue;
        }
        const std::string task = base + "/task/" + entry->d_name;
        const std::string taskStatus = ReadFile(task + "/status");
        ThreadCounters& t = sample.threads[tid];
        t.cpuTicks = StatTicks(ReadFile(task + "/stat"));
        t.runNs = atoll(ReadFile(task + "/schedstat").c_str());
        t.voluntary = StatusField(taskStatus, "voluntary_ctxt_switches");
        t.involuntary = StatusField(taskStatus, "nonvoluntary_ctxt_switches");
        t.waitsIn = ReadFile(task + "/wchan");
    }
    closedir(tasks);
    return sample;
}

CpuTotals ReadCpuTotals(pid_t pid) {
    long long ticks[4];
    StatFields(ReadFile("/proc/" + std::to_string(pid) + "/stat"), ticks);
    return {Ms(ticks[0] + ticks[1]), Ms(ticks[2] + ticks[3])};
}

void ReportFootprint(const std::string& title, const std::string& prefix, const ProcessSample& from,
                     const ProcessSample& to, const PerfCounts& perf) {
    const double seconds = double(to.ns - from.ns) / 1e9;
    long long voluntary = 0, involuntary = 0, runNs = 0;
    printf("\n== %s: %.1f s\n", title.c_str(), seconds);
    printf("   %-8s %-34s %10s %10s %12s\n", "thread", "sleeps in", "wake-ups/s", "preempt/s",
           "CPU us/s");
    for (const auto& [tid, end] : to.threads) {
        const auto it = from.threads.find(tid);
        if (it == from.threads.end()) {
            continue; // came after the window began
        }
        const ThreadCounters& start = it->second;
        voluntary += end.voluntary - start.voluntary;
        involuntary += end.involuntary - start.involuntary;
        runNs += end.runNs - start.runNs;
        printf("   %-8d %-34s %10.2f %10.2f %12.2f\n", tid, end.waitsIn.c_str(),
               double(end.voluntary - start.voluntary) / seconds,
               double(end.involuntary - start.involuntary) / seconds,
               double(end.runNs - start.runNs) / 1e3 / seconds);
    }
    printf("   threads %zu, VmRSS %lld -> %lld kB, VmHWM %lld kB\n", to.threads.size(), from.rssKb,
           to.rssKb, to.hwmKb);
    printf("   CPU %.0f ms by /proc/<pid>/stat ticks, %.3f ms by schedstat\n",
           Ms(to.cpuTicks - from.cpuTicks), double(runNs) / 1e6);
    printf("   wake-ups %.2f/s (voluntary switches), preemptions %.2f/s\n",
           double(voluntary) / seconds, double(involuntary) / seconds);
    Result(prefix, "threads", double(to.threads.size()), "threads");
    Result(prefix, "vmrss", double(to.rssKb), "kB");
    Result(prefix, "vmhwm", double(to.hwmKb), "kB");
    Result(prefix, "cpu_ticks_ms", Ms(to.cpuTicks - from.cpuTicks), "ms");
    Result(prefix, "cpu_schedstat_ms", double(runNs) / 1e6, "ms");
    Result(prefix, "cpu_per_s", double(runNs) / 1e3 / seconds, "us/s");
    Result(prefix, "wakeups_per_s", double(voluntary) / seconds, "1/s");
    Result(prefix, "preemptions_per_s", double(involuntary) / seconds, "1/s");
    Result(prefix, "window", seconds, "s");
    if (perf.counted) {
        printf("   perf stat: %.0f context switches (%.2f/s), task clock %.3f ms\n",
               perf.contextSwitches, perf.contextSwitches / seconds, perf.taskClockMs);
        Result(prefix, "perf_switches_per_s", perf.contextSwitches / seconds, "1/s");
        Result(prefix, "perf_task_clock_ms", perf.taskClockMs, "ms");
    }
}

PerfCounts IdleWindow(pid_t pid, int seconds) {
    PerfCounts counts;
    const std::string out = "/run/nd-bench/perf-" + std::to_string(pid) + ".csv";
    const std::string duration = std::to_string(seconds);
    const std::string target = std::to_string(pid);
    const long long end = NowNs() + seconds * 1000000000LL;
    const pid_t perf = fork();
    if (perf == 0) {
        execlp("perf", "perf", "stat", "-x", ",", "-o", out.c_str(), "-e",
               "context-switches,task-clock", "-p", target.c_str(), "--", "sleep", duration.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (perf <= 0 || waitpid(perf, &status, 0) != perf || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        // No perf: the /proc figures stand alone; the window still has to pass.
        const long long left = end - NowNs();
        SleepMs(left > 0 ? int(left / 1000000) : 0);
        return counts;
    }
    // "<value>,<unit>,<event>,..." per counter.
    std::istringstream lines(ReadFile(out));
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, ',');) {
            fields.push_back(field);
        }
        if (fields.size() < 3) {
            continue;
        }
        const double value = atof(fields[0].c_str());
        if (fields[2] == "context-switches") {
            counts.contextSwitches = value;
            counts.counted = true;
        } else if (fields[2] == "task-clock") {
            counts.taskClockMs = value;
        }
    }
    return counts;
}

} // namespace bench

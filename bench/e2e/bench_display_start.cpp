// bench_display_start: how long a display program takes from its start until
// its window is mapped, and how much memory it holds while shown, under Xvfb.
// Runs as root inside tests/support/sandbox (scripts/bench.sh starts it
// there); single-threaded. Each program is started as the daemon starts it:
// as root, with DISPLAY and an X authority file owned by the desktop user,
// the acknowledgement channel at descriptor 60. Programs are measured in
// turns (A, B, A, B, ...) so that the machine's load hits them alike.
//
//   bench_display_start RUNS NAME=PROGRAM [NAME=PROGRAM ...]
//
// Human-readable lines, and every figure once more as
// "RESULT display.<name>.<figure> <value> <unit>".
#include <X11/Xlib.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr const char* kDir = "/run/nd-bench-display";
constexpr const char* kAuthority = "/run/nd-bench-display/A:0";
constexpr const char* kUser = "nobody";
constexpr int kMapTimeoutMs = 10000;
constexpr int kSettleMs = 500;
constexpr const char* kMessage =
    "The network will be down for maintenance tonight. Please save your work and log off "
    "before 18:00. Unsaved work may be lost.";

long long NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

pid_t Start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            int channel) {
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    if (channel >= 0) {
        dup2(channel, 60);
    }
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    std::vector<char*> args, vars;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    for (const std::string& e : env) {
        vars.push_back(const_cast<char*>(e.c_str()));
    }
    args.push_back(nullptr);
    vars.push_back(nullptr);
    execve(args[0], args.data(), vars.data());
    _exit(127);
}

void Stop(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long long RssKb(pid_t pid) {
    FILE* status = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long long kb = -1;
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        if (sscanf(line, "VmRSS: %lld kB", &kb) == 1) {
            break;
        }
    }
    if (status != nullptr) {
        fclose(status);
    }
    return kb;
}

// Waits for the next top-level window to be mapped; its time, or 0.
long long WaitForMap(Display* display, long long deadlineNs) {
    for (;;) {
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (event.type == MapNotify && event.xmap.event == DefaultRootWindow(display)) {
                return NowNs();
            }
        }
        const long long left = deadlineNs - NowNs();
        if (left <= 0) {
            return 0;
        }
        pollfd ready{ConnectionNumber(display), POLLIN, 0};
        poll(&ready, 1, int(left / 1000000) + 1);
    }
}

double Percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t rank = size_t(p / 100.0 * double(values.size()) + 0.999999);
    rank = std::max<size_t>(1, std::min(rank, values.size()));
    return values[rank - 1];
}

bool SetUpDesktop(pid_t& server) {
    // A private /tmp: the X server's lock and socket must not meet another
    // sandbox's display :0 (only /run is private already).
    if (mount("nd-bench-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        fprintf(stderr, "cannot mount a private /tmp: %s\n", strerror(errno));
        return false;
    }
    const passwd* user = getpwnam(kUser);
    mkdir(kDir, 0755);
    const std::string cookie = "0123456789abcdef0123456789abcdef";
    const std::string add =
        "xauth -q -f '" + std::string(kAuthority) + "' add :0 . " + cookie + " 2>/dev/null";
    if (user == nullptr || system(add.c_str()) != 0 ||
        chown(kAuthority, user->pw_uid, user->pw_gid) != 0) {
        fprintf(stderr, "cannot write the X authority file\n");
        return false;
    }
    server = Start({"/usr/bin/Xvfb", ":0", "-auth", kAuthority, "-screen", "0", "1280x1024x24",
                    "-nolisten", "tcp", "-noreset"},
                   {"PATH=/usr/bin:/bin"}, -1);
    setenv("XAUTHORITY", kAuthority, 1);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s RUNS NAME=PROGRAM...\n", argv[0]);
        return 2;
    }
    const int runs = std::max(1, atoi(argv[1]));
    std::vector<std::pair<std::string, std::string>> programs;
    for (int i = 2; i < argc; ++i) {
        const std::string entry = argv[i];
        const size_t equals = entry.find('=');
        if (equals == std::string::npos || access(entry.c_str() + equals + 1, X_OK) != 0) {
            fprintf(stderr, "skipping %s: not NAME=PROGRAM or not executable\n", argv[i]);
            continue;
        }
        programs.push_back({entry.substr(0, equals), entry.substr(equals + 1)});
    }
    pid_t server = -1;
    if (programs.empty() || !SetUpDesktop(server)) {
        return 1;
    }
    Display* display = nullptr;
    for (int i = 0; i < 150 && display == nullptr; ++i) {
        usleep(100000);
        display = XOpenDisplay(":0");
    }
    if (display == nullptr) {
        fprintf(stderr, "Xvfb did not start\n");
        Stop(server);
        return 1;
    }
    XSelectInput(display, DefaultRootWindow(display), SubstructureNotifyMask);

    std::map<std::string, std::vector<double>> mapMs, rssMb;
    int failures = 0;
    for (int run = 0; run < runs + 1; ++run) { // the first round warms the caches
        for (const auto& [name, path] : programs) {
            int pair[2];
            socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
            const std::vector<std::string> env = {"PATH=/usr/bin:/bin",
                                                  "DISPLAY=:0.0",
                                                  std::string("XAUTHORITY=") + kAuthority,
                                                  std::string("MESSAGE=") + kMessage,
                                                  "CAPTION=Maintenance tonight",
                                                  "TIMEOUT=30",
                                                  "FLAGS=0",
                                                  "MESSAGE_ID=" + std::to_string(run),
                                                  "WINDOW_ORDER=0",
                                                  "FULLSCREEN=0",
                                                  "FULLSCREEN_TIMEOUT=",
                                                  "LARGE_LOGO_PATH="};
            XSync(display, True); // forget earlier events
            const long long start = NowNs();
            const pid_t pid = Start({path}, env, pair[1]);
            close(pair[1]);
            const long long mapped = WaitForMap(display, start + kMapTimeoutMs * 1000000LL);
            if (mapped == 0) {
                ++failures;
                fprintf(stderr, "%s: no window within %d ms\n", name.c_str(), kMapTimeoutMs);
            } else if (run > 0) {
                mapMs[name].push_back(double(mapped - start) / 1e6);
                usleep(kSettleMs * 1000);
                rssMb[name].push_back(double(RssKb(pid)) / 1024.0);
            }
            Stop(pid);
            close(pair[0]);
        }
    }
    XCloseDisplay(display);
    Stop(server);

    printf("Start to window mapped under Xvfb, %d runs each (ms), and VmRSS while shown (MB)\n",
           runs);
    printf("%-10s %8s %8s %8s %8s\n", "program", "p50", "p90", "min", "RSS p50");
    for (const auto& [name, path] : programs) {
        const std::vector<double>& ms = mapMs[name];
        printf("%-10s %8.1f %8.1f %8.1f %8.1f   %s\n", name.c_str(), Percentile(ms, 50),
               Percentile(ms, 90), ms.empty() ? 0.0 : *std::min_element(ms.begin(), ms.end()),
               Percentile(rssMb[name], 50), path.c_str());
        printf("RESULT display.%s.map.p50 %.1f ms\n", name.c_str(), Percentile(ms, 50));
        printf("RESULT display.%s.map.p90 %.1f ms\n", name.c_str(), Percentile(ms, 90));
        printf("RESULT display.%s.rss.p50 %.1f MB\n", name.c_str(), Percentile(rssMb[name], 50));
    }
    return failures == 0 ? 0 : 1;
}

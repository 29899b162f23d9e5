#include "app/Daemon.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/Log.h"

namespace vel {

namespace {

// Read by the signal handler on any thread, hence atomic (lock-free).
std::atomic<bool> daemonised{false};
static_assert(std::atomic<bool>::is_always_lock_free, "read inside a signal handler");

// One fork step: the parent leaves, the child carries on. When fork fails
// the program simply goes on in the foreground.
void Detatch() {
    pid_t pid = fork();
    if (pid == -1) {
        Log("Couldn't fork! Running in foreground.");
        return;
    }
    if (pid != 0) {
        exit(0);
    }
}

void PointStandardDescriptorsAtDevNull() {
    int null = open("/dev/null", O_RDWR);
    if (null == -1) {
        return;
    }
    for (int fd = 0; fd <= 2; ++fd) {
        dup2(null, fd);
    }
    if (null > 2) {
        close(null);
    }
}

bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

void Daemonise() {
    Detatch();
    setsid();
    signal(SIGHUP, SIG_IGN);
    // Second fork: the daemon must not be a session leader, so it can never
    // acquire a controlling terminal.
    Detatch();
    PointStandardDescriptorsAtDevNull();
    if (chdir("/") != 0) {
        // Nothing depends on the working directory; carry on.
    }
    StartLog();
    InstallSignalHandlers();
    DisableCoreDumps();
    umask(0);
    atexit(UnDaemonise);
    MakePidFile();
    daemonised = true;
}

void InstallSignalHandlers() {
    // SIGKILL cannot be caught; asking anyway is harmless and kept.
    for (int sig : {SIGINT, SIGKILL, SIGTERM}) {
        signal(sig, DaemonSignalHandler);
    }
    signal(SIGPIPE, SIG_IGN);
}

// The signal may land on any thread, possibly one inside vel::Log holding its
// mutex or inside malloc. UnDaemonise and exit() would take that lock (StopLog)
// or run destructors and atexit handlers, and could deadlock or crash. So the
// handler does only async-signal-safe work: empty the pid file with
// open/O_TRUNC/close and leave with _exit(1). Every log line is flushed as it
// is written, so leaving the log stream unclosed loses nothing.
void DaemonSignalHandler(int) {
    int saved = errno;
    if (daemonised) {
        DisposePidFile();
    }
    errno = saved;
    _exit(1);
}

void DaemonChildSignalHandler(int) {
    int saved = errno;
    int status = 0;
    wait(&status);
    errno = saved;
}

void DisableCoreDumps() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_CORE, &limit) != 0) {
        Die("Couldn't get core dump limit.");
    }
    limit.rlim_cur = 0;
    if (setrlimit(RLIMIT_CORE, &limit) != 0) {
        Die("Couldn't set core dump limit.");
    }
}

void MakePidFile() {
    std::string pid;
    PidFromFile(pid);
    if (!pid.empty() && PidIsRunning(pid)) {
        Die(pid + " Another instance is already running.");
    }
    WritePidFile();
}

void WritePidFile() {
    // The mode is given explicitly: the umask is 0 by now, and a pid file
    // anyone could write would let anyone block or fake an instance.
    int fd = open(kPidFilePath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd == -1) {
        Die("Could not create pid file.");
    }
    bool written = WriteAll(fd, std::to_string(getpid()));
    if (close(fd) != 0 || !written) {
        Die("Could not create pid file.");
    }
}

void PidFromFile(std::string& pid) {
    pid = "";
    std::ifstream file(kPidFilePath);
    if (file.is_open()) {
        file >> pid;
    }
}

bool PidIsRunning(std::string& pid) {
    errno = 0;
    char* end = nullptr;
    long value = strtol(pid.c_str(), &end, 10);
    // No number, or none that can be a process id: nothing is running there.
    if (end == pid.c_str() || errno == ERANGE || value <= 0 || value > INT_MAX) {
        return false;
    }
    int other = static_cast<int>(value);
    if (other == getpid()) {
        return false; // our own id, reused from an earlier run
    }
    if (kill(other, 0) != 0) {
        return false;
    }
    return PidFileCmdIsOurs(other);
}

bool PidFileCmdIsOurs(int pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%i/cmdline", pid);
    std::ifstream cmdline(path);
    if (!cmdline.is_open()) {
        return false;
    }
    // Arguments are NUL-separated, so this word is the whole first argument
    // and possibly more; a stale pid now used by another program fails here.
    std::string word;
    cmdline >> word;
    return word.find(kInstallMarker) != std::string::npos;
}

void DisposePidFile() {
    // open/close rather than truncate(): the signal handler calls this, and
    // both are async-signal-safe.
    int fd = open(kPidFilePath, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd != -1) {
        close(fd);
    }
}

void UnDaemonise() {
    if (!daemonised) {
        return;
    }
    DisposePidFile();
    StopLog();
    daemonised = false;
}

void Die(const std::string& message) {
    Log(message);
    exit(1);
}

} // namespace vel

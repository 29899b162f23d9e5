// For tests run as root in tests/support/sandbox, on their main thread: the
// daemon's paths, log and settings, and child processes (bounded waits).
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "HostTesting.h"
#include "transport/gengsk.h"
#include "transport/password.h"

extern char** environ;

namespace e2e {

using Clock = std::chrono::steady_clock;
using hosttest::ExitedWith;
using hosttest::Install;
using hosttest::ReadFile;
using hosttest::WaitForExit;
using hosttest::WriteFile;

constexpr const char* kInstalledDaemon = "/usr/sxa/daemon/notifydaemon";
constexpr const char* kConfigPath = "/usr/sxa/daemon/config.dat";
constexpr const char* kPidPath = "/usr/sxa//daemon/notifydaemon.pid";
constexpr const char* kLogPath = "/var/log/notifydaemon.log";
constexpr const char* kDisplayPath = "/usr/sxa/gui/message/notifymessage";
const std::string kStartLine = "Corvane Notify Client for Linux version 2.02 starting up...";
const std::string kGood = "Configuration is good.";
const std::string kStarted = "Started up successfully.";

inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// `path` with `args` (argv[0] included), `env` (ours when empty) and `fds`
// as target -> source (a negative source closes the target).
inline pid_t Spawn(const std::string& path, const std::vector<std::string>& args,
                   const std::vector<std::string>& env = {}, const std::map<int, int>& fds = {}) {
    std::vector<char*> argv, envp;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    for (const std::string& entry : env) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        for (const auto& [target, source] : fds) {
            if (source < 0 ? close(target) != 0 : dup2(source, target) < 0) {
                _exit(126);
            }
        }
        execve(path.c_str(), argv.data(), env.empty() ? environ : envp.data());
        _exit(127);
    }
    return pid;
}

// The log's lines without their "YYYY-MM-DD HH:MM:SS " prefix (by default).
inline std::vector<std::string> LogMessages(size_t prefix = 20) {
    std::istringstream in(ReadFile(kLogPath));
    std::vector<std::string> messages;
    for (std::string line; std::getline(in, line);) {
        messages.push_back(line.size() >= prefix ? line.substr(prefix) : line);
    }
    return messages;
}

inline size_t CountInLog(const std::string& message) {
    const std::vector<std::string> messages = LogMessages();
    return size_t(std::count(messages.begin(), messages.end(), message));
}

inline std::string StoredKey(const std::string& clear) {
    char stored[128] = {};
    _EncryptPassword(kPasswordSeed, clear.c_str(), stored, sizeof stored);
    return stored;
}

inline std::string WireKey(const std::string& clear) {
    char* gsk = GenWireGsk(clear.c_str());
    const std::string text = gsk != nullptr ? gsk : "";
    free(gsk);
    return text;
}

inline void WriteSettings(int port, const std::string& clearKey, const std::string& more = "") {
    WriteFile(kConfigPath, "[gateway]\ngatewayip=127.0.0.1\ngatewayport=" + std::to_string(port) +
                               "\ngatewaykey=" + StoredKey(clearKey) + "\n" + more);
}

// Runs the installed daemon (the caller is a child subreaper); once the
// launched process and the intermediate child have both exited with 0,
// returns the pid its pid file names anew, else -1.
inline pid_t StartDaemon(const std::map<int, int>& fds = {}) {
    const std::string before = ReadFile(kPidPath);
    if (Spawn(kInstalledDaemon, {kInstalledDaemon}, {}, fds) <= 0) {
        return -1;
    }
    int exited = 0, failed = 0;
    const bool parentsGone = WaitUntil(
        [&] {
            int status = 0;
            while (waitpid(-1, &status, WNOHANG) > 0) {
                ++exited;
                failed += ExitedWith(status, 0) ? 0 : 1;
            }
            return exited >= 2;
        },
        10000);
    if (!parentsGone || failed != 0 ||
        !WaitUntil(
            [&] {
                const std::string now = ReadFile(kPidPath);
                return now != before && atoi(now.c_str()) > 0;
            },
            10000)) {
        return -1;
    }
    return atoi(ReadFile(kPidPath).c_str());
}

// Kills a started daemon by pid and reaps it and whatever else has ended.
inline void StopDaemon(pid_t& daemon) {
    if (daemon > 0 && kill(daemon, SIGKILL) == 0) {
        WaitForExit(daemon, 10);
    }
    daemon = -1;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

} // namespace e2e

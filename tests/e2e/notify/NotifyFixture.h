// The daemon in its sandbox for the notification tests: the fake desktop (a
// login record for ":0", an X server with "-auth", the recording display
// program), a settings file pointing at the development gateway on loopback,
// and the daemon started and stopped by pid. Runs on the test's main thread;
// the gateway has its own IO thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DevGateway.h"

namespace notify_e2e {

using Clock = std::chrono::steady_clock;

constexpr const char* kDesktopUser = "alice";
constexpr const char* kAuthorityPath = "/run/nd-notify/xauth/A:0-e2e";
constexpr const char* kRecordDir = "/run/nd-notify/records";
constexpr const char* kAnswerPath = "/run/nd-notify/answer";
constexpr const char* kDisplayPath = "/usr/sxa/gui/message/notifymessage";
constexpr const char* kLogPath = "/var/log/notifydaemon.log";
constexpr const char* kCustomPath = "/var/cache/notifydaemon/custom.dat";
constexpr const char* kClearKey = "E2EKEY42";

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
// Messages of the log, without their time prefix.
std::vector<std::string> LogMessages();
size_t CountInLog(const std::string& message);
// Polls every 5 ms until done() or the time is up.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs);
// The stored form of a clear gateway key, as the settings file holds it.
std::string StoredKey(const std::string& clear);

// One run of the display program, parsed from its record file.
struct DisplayRun {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string Env(const std::string& name) const;
};
std::vector<DisplayRun> DisplayRuns();
std::vector<DisplayRun> DisplayRunsFor(int messageId);

// Zombie children of a process.
int ZombieChildren(pid_t parent);

struct Settings {
    int port = 0;
    int updateInterval = 60;
};

class NotifyTest : public testing::Test {
protected:
    // Sets up the desktop once: login record, X server, display program.
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override;

    // Starts a gateway on a free port (or the given one).
    devgw::DevGateway& StartGateway(uint16_t port = 0);
    void WriteSettings(const Settings& settings);
    // Starts the daemon binary at the install path; returns its pid once the
    // two fork parents have exited and the pid file names it, else -1.
    pid_t StartDaemon(const std::string& binary);
    // Starts the daemon against the gateway and waits for its registration.
    pid_t StartRegistered(const std::string& binary, int updateInterval = 60, int timeoutMs = 5000);
    void StopDaemon();
    // Waits for the n-th request of a command (any case).
    bool WaitForRequests(const std::string& command, size_t n, int timeoutMs);
    std::vector<devgw::Request> Bodies(const std::string& command);

    std::unique_ptr<devgw::DevGateway> m_gateway;
    pid_t m_daemon = -1;
    Clock::time_point m_daemonStarted;

    static pid_t s_xServer;
};

// Paths of the built programs.
extern const char* const kFastDaemon;
extern const char* const kRealDaemon;

} // namespace notify_e2e

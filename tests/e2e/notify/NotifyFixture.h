// The daemon against the development gateway on a fake desktop: a login on
// ":0", an X server stand-in with "-auth", the recording display program.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "DevGateway.h"
#include "E2E.h"

namespace notify_e2e {

using namespace e2e;

constexpr const char* kAuthorityPath = "/run/nd-notify/xauth/A:0-e2e";
constexpr const char* kRecordDir = "/run/nd-notify/records";
constexpr const char* kAnswerPath = "/run/nd-notify/answer"; // "<flags> <user>": acknowledge
constexpr const char* kCustomPath = "/var/cache/notifydaemon/custom.dat";
constexpr const char* kClearKey = "E2EKEY42";
extern const char* const kFastDaemon;
extern const char* const kRealDaemon;

// One run of the display program, from its record file.
struct DisplayRun {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string Env(const std::string& name) const {
        auto it = env.find(name);
        return it != env.end() ? it->second : "(absent)";
    }
};
// Every run in record order, or only those for one message id.
std::vector<DisplayRun> DisplayRuns(int messageId = -1);
int ZombieChildren(pid_t parent);

class NotifyTest : public testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override { StopDaemon(m_daemon); }

    devgw::DevGateway& StartGateway(uint16_t port = 0);
    void WriteSettings(int port, int updateInterval = 60);
    // A gateway, the settings and the daemon, registered within the time.
    pid_t StartRegistered(const std::string& binary, int updateInterval = 60, int timeoutMs = 5000);
    size_t Count(const std::string& command, int id = -1);
    bool WaitFor(const std::string& command, size_t n, int timeoutMs) {
        return m_gateway->WaitForRequest(command, timeoutMs, nullptr, int(n));
    }
    std::vector<devgw::Request> Bodies(const std::string& command) {
        return m_gateway->RequestsFor(command);
    }

    std::unique_ptr<devgw::DevGateway> m_gateway;
    pid_t m_daemon = -1;
    static pid_t s_xServer;
};

} // namespace notify_e2e

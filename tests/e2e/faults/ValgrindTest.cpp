// The shipped daemon under valgrind's memcheck through one notification's
// round trip (registration, display, receipt, acknowledgement), stopped with
// SIGTERM: no definite leaks and no memory errors. Skipped when the daemon is
// built with a sanitizer (valgrind cannot run those) or valgrind is missing.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

constexpr const char* kValgrind = "/usr/bin/valgrind";
constexpr const char* kInstalledDaemon = "/usr/sxa/daemon/notifydaemon";
constexpr const char* kPidFile = "/usr/sxa//daemon/notifydaemon.pid";
constexpr const char* kReportDir = "/run/nd-valgrind";
// The shipped daemon sleeps 10 s after connecting; valgrind slows it further.
constexpr int kSlowWaitMs = 90000;

class ValgrindTest : public NotifyTest {};

pid_t SpawnUnderValgrind() {
    std::vector<std::string> args = {
        kValgrind,
        "--tool=memcheck",
        "--leak-check=full",
        "--show-leak-kinds=definite",
        "--errors-for-leak-kinds=definite",
        std::string("--log-file=") + kReportDir + "/memcheck.%p",
        kInstalledDaemon,
    };
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        execv(kValgrind, argv.data());
        _exit(127);
    }
    return pid;
}

TEST_F(ValgrindTest, NotificationRoundTripLeavesNoDefiniteLeaks) {
#ifdef ND_DAEMON_INSTRUMENTED
    GTEST_SKIP() << "the daemon is built with a sanitizer";
#endif
    if (access(kValgrind, X_OK) != 0) {
        GTEST_SKIP() << "valgrind is not installed";
    }
    devgw::DevGateway& gateway = StartGateway();
    Settings settings;
    settings.port = gateway.Port();
    WriteSettings(settings);
    unlink(kInstalledDaemon);
    WriteFile(kInstalledDaemon, ReadFile(kRealDaemon));
    chmod(kInstalledDaemon, 0755);
    mkdir(kReportDir, 0755);
    WriteFile(kAnswerPath, "2 alice\n");

    ASSERT_GT(SpawnUnderValgrind(), 0);
    ASSERT_TRUE(WaitUntil([] { return atoi(ReadFile(kPidFile).c_str()) > 0; }, kSlowWaitMs));
    m_daemon = atoi(ReadFile(kPidFile).c_str()); // killed by TearDown should we fail
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", kSlowWaitMs));
    ASSERT_TRUE(gateway.SendNotification(901, "checked by memcheck", "30|Leaks", "1"));
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGEACK", kSlowWaitMs));
    ASSERT_EQ(DisplayRunsFor(901).size(), 1u);

    // SIGTERM ends the daemon with _exit(1); memcheck checks for leaks then.
    const pid_t daemon = m_daemon;
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    int status = 0;
    ASSERT_TRUE(
        WaitUntil([&] { return waitpid(daemon, &status, WNOHANG) == daemon; }, kSlowWaitMs));
    m_daemon = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;

    const std::string report =
        ReadFile(std::string(kReportDir) + "/memcheck." + std::to_string(daemon));
    ASSERT_NE(report.find("ERROR SUMMARY:"), std::string::npos) << report;
    std::smatch lost;
    const bool noneLost =
        report.find("All heap blocks were freed") != std::string::npos ||
        (std::regex_search(report, lost, std::regex("definitely lost: ([0-9,]+) bytes")) &&
         lost[1] == "0");
    EXPECT_TRUE(noneLost) << report;
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
    // The summary, for the record.
    const size_t summary = report.find("HEAP SUMMARY:");
    std::cout << "[memcheck] daemon " << daemon << "\n"
              << (summary != std::string::npos ? report.substr(summary) : report) << "\n";
}

} // namespace
} // namespace notify_e2e

#include "HostTesting.h"
#include "host/ForkProcess.h"
#include "log/Log.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::vector<std::string> kXServer = {"/usr/bin/X", ":0", "-auth", "/var/run/xauth/A:0-abc",
                                           "-nolisten",  "tcp"};
const char* const kProbeName = "notifymessage";

TEST(ForkGuiProcess, WithoutAnXServerStartsNothing) {
    char entry[] = "MESSAGE=hello";
    char* entries[] = {entry, nullptr};
    EXPECT_EQ(vel::ForkGuiProcess("/usr/sxa/gui/message", kProbeName, entries), -1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "no child may be left behind";
}

// How many times `part` occurs in `text`, overlaps included.
int Occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// An X server look-alike runs for every test of this fixture.
class LaunchedProgram : public testing::Test {
protected:
    void SetUp() override {
        hosttest::Install(ND_STUB_PATH, m_dir.Path() + "/" + kProbeName);
        setenv("DISPLAY", ":7", 1);
        setenv("ND_INHERITED", "kept", 1);
    }
    void TearDown() override {
        unsetenv("DISPLAY");
        unsetenv("ND_INHERITED");
    }
    // Occurrences of `line` in what the stand-in display program recorded.
    int Recorded(pid_t child, const std::string& line) {
        return Occurrences("\n" + hosttest::ReadFile(m_dir.Path() + "/display-none-" +
                                                     std::to_string(child) + ".txt"),
                           "\n" + line);
    }

    hosttest::TempDir m_dir;
    hosttest::RunningProcess m_xServer{kXServer, ND_STUB_PATH};
};

TEST_F(LaunchedProgram, AsRootGetsTheXSessionAndTheEntries) {
    std::string record = "ND_RECORD_DIR=" + m_dir.Path();
    std::string message = "MESSAGE=hello world", flags = "FLAGS=5";
    char* entries[] = {&record[0], &message[0], &flags[0], nullptr};
    pid_t child = vel::ForkGuiProcess(m_dir.Path().c_str(), kProbeName, entries);
    ASSERT_GT(child, 0);
    ASSERT_TRUE(hosttest::ExitedWith(hosttest::WaitForExit(child), 0));
    EXPECT_EQ(Recorded(child, "arg:" + m_dir.Path() + "/" + kProbeName + "\n"), 1);
    EXPECT_EQ(Recorded(child, "arg:"), 1);
    for (const char* entry :
         {"XAUTHORITY=/var/run/xauth/A:0-abc\n", "DISPLAY=:0.0\n", "XAUTHLOCALHOSTNAME=localhost\n",
          "MESSAGE=hello world\n", "FLAGS=5\n", "ND_INHERITED=kept\n", "DISPLAY="}) {
        EXPECT_EQ(Recorded(child, std::string("env:") + entry), 1) << entry;
    }
}

// A missing program: the child logs "Error launching child process" and exits
// with 1. Regression: a child forked while another thread holds the log's lock
// must still log its failure and end.
TEST_F(LaunchedProgram, AFailedChildLogsAndExitsWithOneEvenWhileTheLogIsBusy) {
    vel::StartLog();
    ASSERT_TRUE(vel::gLogging);
    const size_t logStart = hosttest::ReadFile(vel::kLogPath).size();
    int savedStderr = dup(STDERR_FILENO);
    int devNull = open("/dev/null", O_WRONLY);
    ASSERT_NE(devNull, -1);
    dup2(devNull, STDERR_FILENO);
    std::atomic<bool> stop{false};
    std::thread chatter([&stop] {
        while (!stop) {
            vel::Log("chatter");
        }
    });
    int stuck = 0;
    for (int i = 0; i < 20; ++i) {
        pid_t child = vel::ForkGuiProcess(m_dir.Path().c_str(), "no-such-program", nullptr);
        stuck += !(child > 0 && hosttest::ExitedWith(hosttest::WaitForExit(child), 1));
    }
    stop = true;
    chatter.join();
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    close(devNull);
    vel::StopLog();
    EXPECT_EQ(stuck, 0);
    EXPECT_EQ(Occurrences(hosttest::ReadFile(vel::kLogPath).substr(logStart),
                          " Error launching child process\n"),
              20);
}

} // namespace

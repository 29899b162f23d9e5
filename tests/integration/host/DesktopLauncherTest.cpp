#include "HostTesting.h"
#include "host/ForkProcess.h"
#include "log/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <regex>
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

// An X server look-alike runs for every test of this fixture.
class LaunchedProgram : public testing::Test {
protected:
    void SetUp() override {
        hosttest::InstallProgram(ND_PROBE_PATH, m_dir.Path(), kProbeName);
        setenv("DISPLAY", ":7", 1);
        setenv("ND_INHERITED", "kept", 1);
    }
    void TearDown() override {
        unsetenv("DISPLAY");
        unsetenv("ND_INHERITED");
    }
    // Occurrences of `line` in what the probe recorded.
    int Recorded(const std::string& line) {
        const std::string text = "\n" + hosttest::ReadFile(m_dir.Path() + "/record");
        int count = 0;
        for (size_t at = text.find("\n" + line); at != std::string::npos;
             at = text.find("\n" + line, at + 1)) {
            ++count;
        }
        return count;
    }

    hosttest::TempDir m_dir;
    hosttest::RunningProcess m_xServer{kXServer, ND_PROBE_PATH};
};

TEST_F(LaunchedProgram, GetXAuthorityReadsTheAuthOption) {
    std::string path = "stale";
    vel::GetXAuthority(path);
    EXPECT_EQ(path, "/var/run/xauth/A:0-abc");
}

TEST_F(LaunchedProgram, AsRootGetsTheXSessionAndTheEntries) {
    std::string record = "ND_PROBE_RECORD=" + m_dir.Path() + "/record";
    std::string message = "MESSAGE=hello world", flags = "FLAGS=5";
    char* entries[] = {&record[0], &message[0], &flags[0], nullptr};
    pid_t child = vel::ForkGuiProcess(m_dir.Path().c_str(), kProbeName, entries);
    ASSERT_GT(child, 0);
    ASSERT_TRUE(hosttest::ExitedWith(hosttest::WaitForExit(child), 0));
    EXPECT_EQ(Recorded("arg:" + m_dir.Path() + "/" + kProbeName + "\n"), 1);
    EXPECT_EQ(Recorded("arg:"), 1);
    for (const char* entry :
         {"XAUTHORITY=/var/run/xauth/A:0-abc\n", "DISPLAY=:0.0\n", "XAUTHLOCALHOSTNAME=localhost\n",
          "MESSAGE=hello world\n", "FLAGS=5\n", "ND_INHERITED=kept\n", "DISPLAY="}) {
        EXPECT_EQ(Recorded(std::string("env:") + entry), 1) << entry;
    }
}

TEST_F(LaunchedProgram, AMissingProgramLogsAndExitsWithOne) {
    vel::StartLog();
    ASSERT_TRUE(vel::gLogging);
    testing::internal::CaptureStderr();
    pid_t child = vel::ForkGuiProcess(m_dir.Path().c_str(), "no-such-program", nullptr);
    ASSERT_GT(child, 0);
    const int status = hosttest::WaitForExit(child);
    std::string err = testing::internal::GetCapturedStderr();
    vel::StopLog();
    EXPECT_TRUE(hosttest::ExitedWith(status, 1)) << status;
    // Only the child's line is checked: the X server probe's shell tools
    // share this stderr.
    const std::regex line(
        R"((^|\n)(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} Error launching child process\n))");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(err, found, line)) << err;
    const std::string log = hosttest::ReadFile(vel::kLogPath), logged = found[2].str();
    ASSERT_GE(log.size(), logged.size());
    EXPECT_EQ(log.substr(log.size() - logged.size()), logged);
}

// Regression: a child forked while another thread holds the log's lock must
// still log its failure and end.
TEST_F(LaunchedProgram, AFailedChildCannotDeadlockOnTheLog) {
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
    EXPECT_EQ(stuck, 0);
}

} // namespace

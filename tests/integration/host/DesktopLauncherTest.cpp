#include "HostTesting.h"
#include "host/ForkProcess.h"
#include "log/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using hosttest::RunningProcess;

const std::vector<std::string> kXServer = {"/usr/bin/X", ":0", "-auth", "/var/run/xauth/A:0-abc",
                                           "-nolisten",  "tcp"};
const char* const kProbeName = "notifymessage";
const char* const kProbePath = ND_PROBE_PATH;

TEST(GetXAuthority, ReadsTheAuthOptionOfTheRunningXServer) {
    const std::pair<std::vector<std::vector<std::string>>, const char*> cases[] = {
        {{kXServer}, "/var/run/xauth/A:0-abc"},
        {{{"/usr/lib/xorg/Xorg", "-core", ":0", "-auth", "/run/gdm/database"}},
         "/run/gdm/database"},
        {{{"X", ":0", "-auth", "/relative/start"}}, ""},
        {{{"/usr/bin/Xvfb", ":0", "-auth", "/other/server"}}, ""},
        {{{"/usr/bin/X", ":0", "-nolisten", "tcp"}}, ""},
        {{}, ""},
    };
    for (const auto& [processes, expected] : cases) {
        std::vector<std::unique_ptr<RunningProcess>> running;
        for (const std::vector<std::string>& argv : processes) {
            running.push_back(std::make_unique<RunningProcess>(argv, kProbePath));
        }
        std::string path = "stale";
        vel::GetXAuthority(path);
        EXPECT_EQ(path, expected);
    }
}

TEST(ForkGuiProcess, WithoutAnXServerStartsNothing) {
    char entry[] = "MESSAGE=hello";
    char* entries[] = {entry, nullptr};
    EXPECT_EQ(vel::ForkGuiProcess("/usr/sxa/gui/message", kProbeName, entries), -1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "no child may be left behind";
}

struct Recording {
    std::vector<std::string> args;
    std::vector<std::string> env;
    bool Has(const std::string& entry) const {
        return std::find(env.begin(), env.end(), entry) != env.end();
    }
    int CountOf(const std::string& name) const {
        return static_cast<int>(std::count_if(env.begin(), env.end(), [&](const std::string& e) {
            return e.compare(0, name.size() + 1, name + "=") == 0;
        }));
    }
};

Recording ReadRecording(const std::string& path) {
    Recording recording;
    std::istringstream lines(hosttest::ReadFile(path));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 4, "arg:") == 0) {
            recording.args.push_back(line.substr(4));
        } else if (line.compare(0, 4, "env:") == 0) {
            recording.env.push_back(line.substr(4));
        }
    }
    return recording;
}

class LaunchedProgram : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(chmod(m_dir.Path().c_str(), 0777), 0); // the non-root child records here too
        hosttest::InstallProgram(kProbePath, m_dir.Path(), kProbeName);
        m_recordEntry = "ND_PROBE_RECORD=" + RecordPath();
        setenv("DISPLAY", ":7", 1);
        setenv("ND_INHERITED", "kept", 1);
    }
    void TearDown() override {
        unsetenv("DISPLAY");
        unsetenv("ND_INHERITED");
    }
    std::string RecordPath() const { return m_dir.Path() + "/record"; }

    // Launches the probe with `extra` entries after the record entry, waits
    // for it and returns what it saw.
    Recording Launch(const std::string& directory, std::vector<std::string> extra) {
        std::vector<char*> entries = {&m_recordEntry[0]};
        for (std::string& entry : extra) {
            entries.push_back(&entry[0]);
        }
        entries.push_back(nullptr);
        pid_t child = vel::ForkGuiProcess(directory.c_str(), kProbeName, entries.data());
        EXPECT_GT(child, 0);
        EXPECT_TRUE(hosttest::ExitedWith(hosttest::WaitForExit(child), 0));
        return ReadRecording(RecordPath());
    }

    hosttest::TempDir m_dir;
    RunningProcess m_xServer{kXServer, kProbePath};
    std::string m_recordEntry;
};

TEST_F(LaunchedProgram, AsRootGetsTheXSessionAndTheEntries) {
    Recording seen = Launch(m_dir.Path(), {"MESSAGE=hello world", "CAPTION=Notice", "FLAGS=5"});
    EXPECT_EQ(seen.args, std::vector<std::string>{m_dir.Path() + "/" + kProbeName});
    for (const char* entry :
         {"XAUTHORITY=/var/run/xauth/A:0-abc", "DISPLAY=:0.0", "XAUTHLOCALHOSTNAME=localhost",
          "MESSAGE=hello world", "CAPTION=Notice", "FLAGS=5", "ND_INHERITED=kept"}) {
        EXPECT_TRUE(seen.Has(entry)) << entry;
    }
    EXPECT_EQ(seen.CountOf("DISPLAY"), 1);
}

TEST_F(LaunchedProgram, EntriesComeAfterTheXVariablesAndTheSlashIsAlwaysAdded) {
    Recording seen = Launch(m_dir.Path() + "/", {"DISPLAY=:9"});
    EXPECT_EQ(seen.args, std::vector<std::string>{m_dir.Path() + "//" + kProbeName});
    EXPECT_TRUE(seen.Has("DISPLAY=:9"));
    EXPECT_EQ(seen.CountOf("DISPLAY"), 1);
}

TEST_F(LaunchedProgram, NotAsRootKeepsTheEnvironmentAndAddsTheEntries) {
    pid_t helper = fork();
    ASSERT_NE(helper, -1);
    if (helper == 0) {
        // Only the effective id decides; the launcher's child inherits it.
        if (seteuid(65534) != 0) {
            _exit(3);
        }
        std::string message = "MESSAGE=hello";
        char* entries[] = {&m_recordEntry[0], &message[0], nullptr};
        pid_t child = vel::ForkGuiProcess(m_dir.Path().c_str(), kProbeName, entries);
        _exit(child > 0 && hosttest::ExitedWith(hosttest::WaitForExit(child), 0) ? 0 : 4);
    }
    ASSERT_TRUE(hosttest::ExitedWith(hosttest::WaitForExit(helper, 20), 0));
    Recording seen = ReadRecording(RecordPath());
    EXPECT_TRUE(seen.Has("MESSAGE=hello"));
    EXPECT_TRUE(seen.Has("DISPLAY=:7"));
    EXPECT_EQ(seen.CountOf("XAUTHORITY"), 0);
    EXPECT_EQ(seen.CountOf("XAUTHLOCALHOSTNAME"), 0);
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

    // Only the child's line is checked: the shell tools of the X server probe
    // share this stderr.
    const std::regex line(
        R"((^|\n)(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} Error launching child process\n))");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(err, found, line)) << err;
    std::string log = hosttest::ReadFile(vel::kLogPath);
    std::string logged = found[2].str();
    ASSERT_GE(log.size(), logged.size());
    EXPECT_EQ(log.substr(log.size() - logged.size()), logged);
}

// A child forked while another thread holds the log's lock must still log
// its failure and end.
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

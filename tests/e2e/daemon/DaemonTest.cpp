// End-to-end tests of the built daemon: run as root inside the sandbox, where
// /usr/sxa and /var/log are private tmpfs. Single-threaded; the test process
// is a child subreaper, so the detached daemon becomes its child and its real
// exit status can be collected.
#include <gtest/gtest.h>

#include "DevGateway.h"
#include "HostTesting.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr const char* kBuiltDaemon = ND_DAEMON_PATH;
// Run from the install directory, as installed: the single-instance test
// recognises our processes by "/usr/sxa/" in their command line.
constexpr const char* kDaemon = "/usr/sxa/daemon/notifydaemon";
constexpr const char* kConfigPath = "/usr/sxa/daemon/config.dat";
constexpr const char* kPidPath = "/usr/sxa//daemon/notifydaemon.pid";
constexpr const char* kLogPath = "/var/log/notifydaemon.log";

const std::string kStartLine = "Corvane Notify Client for Linux version 2.02 starting up...";
const std::string kGood = "Configuration is good.";
const std::string kStarted = "Started up successfully.";
const std::string kIncomplete = "Configuration not set (or incomplete). Will not start up.";
const std::string kGoodSettings =
    "[gateway]\ngatewayip=127.0.0.1\ngatewayport=443\ngatewaykey=KEY\n";
constexpr size_t kTimePrefixLength = 20; // "YYYY-MM-DD HH:MM:SS "

using Clock = std::chrono::steady_clock;
using hosttest::ExitedWith;
using hosttest::ReadFile;
using hosttest::WaitForExit;
using hosttest::WriteFile;
constexpr auto kDeadline = std::chrono::seconds(10);
constexpr auto kPoll = std::chrono::milliseconds(2);

std::vector<std::string> LogLines() {
    std::istringstream in(ReadFile(kLogPath));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The log's lines without their time prefix.
std::vector<std::string> LogMessages() {
    std::vector<std::string> messages;
    for (const std::string& line : LogLines()) {
        messages.push_back(line.size() >= kTimePrefixLength ? line.substr(kTimePrefixLength)
                                                            : line);
    }
    return messages;
}

size_t CountInLog(const std::string& message) {
    std::vector<std::string> messages = LogMessages();
    return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
}

std::string LocalTimeNow() {
    char text[32] = {0};
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(text, sizeof text, "%F %T", &local);
    return text;
}

struct Launch {
    std::vector<std::string> args;
    std::vector<std::string> extraEnv;
    bool closeStandardDescriptors = false;
};

// Starts the installed daemon with our environment plus the launch's entries.
pid_t Spawn(const Launch& launch) {
    std::vector<char*> argv{const_cast<char*>(kDaemon)};
    for (const std::string& arg : launch.args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        envp.push_back(*entry);
    }
    for (const std::string& entry : launch.extraEnv) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (launch.closeStandardDescriptors) {
            close(0);
            close(1);
            close(2);
        }
        execve(kDaemon, argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

struct Exited {
    pid_t pid;
    int status;
};

// Reaps any children until `count` have exited or the deadline passes.
std::vector<Exited> ReapExits(size_t count) {
    std::vector<Exited> exits;
    auto deadline = Clock::now() + kDeadline;
    while (exits.size() < count && Clock::now() < deadline) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0) {
            exits.push_back({pid, status});
        } else if (pid == -1) {
            break; // no children left: orphans reach us before their parent is reaped
        } else {
            std::this_thread::sleep_for(kPoll);
        }
    }
    return exits;
}

// A signal set from /proc/<pid>/status, such as "SigIgn".
unsigned long long SignalMask(const std::string& status, const std::string& name) {
    size_t at = status.find(name + ":\t");
    return at == std::string::npos ? 0
                                   : strtoull(status.c_str() + at + name.size() + 2, nullptr, 16);
}

unsigned long long SignalBit(int sig) {
    return 1ull << (sig - 1);
}

class DaemonTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        // The gateway of kGoodSettings: start-up completes once it is reached.
        s_gateway = new devgw::DevGateway();
        ASSERT_EQ(s_gateway->Start(443), 443);
        WriteFile(kDaemon, ReadFile(kBuiltDaemon));
        ASSERT_EQ(chmod(kDaemon, 0755), 0);
    }

    static void TearDownTestSuite() {
        delete s_gateway;
        s_gateway = nullptr;
    }

    void SetUp() override {
        unlink(kConfigPath);
        unlink(kPidPath);
        unlink(kLogPath);
    }

    // Kills what the test left running and reaps every child.
    void TearDown() override {
        for (pid_t pid : m_started) {
            kill(pid, SIGKILL);
        }
        auto deadline = Clock::now() + kDeadline;
        while (waitpid(-1, nullptr, WNOHANG) != -1 && Clock::now() < deadline) {
            std::this_thread::sleep_for(kPoll);
        }
    }

    pid_t Track(pid_t pid) {
        m_started.push_back(pid);
        return pid;
    }

    // Runs a daemon that is expected to end on its own and returns its exit
    // status (-1 if not all three processes ended in time). The launched
    // process and the intermediate child exit with 0; the daemon is the
    // youngest of the three, so in the sandbox's fresh pid namespace it has
    // the highest pid.
    int RunToExit(const Launch& launch = {}) {
        Track(Spawn(launch));
        std::vector<Exited> exits = ReapExits(3);
        if (exits.size() != 3) {
            ADD_FAILURE() << "only " << exits.size() << " of 3 processes ended";
            return -1;
        }
        std::sort(exits.begin(), exits.end(),
                  [](const Exited& a, const Exited& b) { return a.pid < b.pid; });
        EXPECT_TRUE(ExitedWith(exits[0].status, 0)) << "launched process";
        EXPECT_TRUE(ExitedWith(exits[1].status, 0)) << "intermediate child";
        return exits[2].status;
    }

    // Starts a daemon that is expected to keep running; returns its pid from
    // the pid file once it has logged its start-up, or -1.
    pid_t StartRunning(const Launch& launch = {}) {
        size_t before = CountInLog(kStarted);
        Track(Spawn(launch));
        std::vector<Exited> exits = ReapExits(2);
        if (exits.size() != 2 || !ExitedWith(exits[0].status, 0) ||
            !ExitedWith(exits[1].status, 0)) {
            ADD_FAILURE() << "the two fork parents did not both exit with 0";
            return -1;
        }
        auto deadline = Clock::now() + kDeadline;
        while (CountInLog(kStarted) == before && Clock::now() < deadline) {
            std::this_thread::sleep_for(kPoll);
        }
        pid_t pid = static_cast<pid_t>(atoi(ReadFile(kPidPath).c_str()));
        if (pid > 0) {
            Track(pid);
        }
        if (CountInLog(kStarted) == before) {
            ADD_FAILURE() << "no \"" << kStarted << "\" in time";
            return -1;
        }
        if (pid <= 0 || kill(pid, 0) != 0) {
            ADD_FAILURE() << "pid file does not name a live process";
            return -1;
        }
        return pid;
    }

    std::vector<pid_t> m_started;
    static devgw::DevGateway* s_gateway;
};

devgw::DevGateway* DaemonTest::s_gateway = nullptr;

// Arguments and environment entries are never read: the settings file is the
// only configuration.
TEST_F(DaemonTest, MissingSettingsFileFailsConfigurationWhateverTheArguments) {
    const std::string elsewhere = "/var/log/other.dat";
    WriteFile(elsewhere, kGoodSettings);
    Launch noisy;
    noisy.args = {"--help", "-c", elsewhere, "--foreground", "stop"};
    noisy.extraEnv = {"NOTIFY_CONFIG=" + elsewhere, "CONFIG=" + elsewhere, "SXA_HOME=/var/log/",
                      "INSTALL_PATH=/var/log/", "HOME=/var/log"};
    for (const Launch& launch : {Launch{}, noisy}) {
        unlink(kLogPath);
        EXPECT_TRUE(ExitedWith(RunToExit(launch), 1));
        EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, "Couldn't load config.dat",
                                                           "Configuration Failed"}));
        struct stat info;
        ASSERT_EQ(stat(kPidPath, &info), 0) << "the pid file is emptied, not removed";
        EXPECT_EQ(info.st_size, 0);
    }
}

// Which settings count as incomplete is the unit tests'; here the refusal.
TEST_F(DaemonTest, IncompleteSettingsAreRefused) {
    for (const char* settings : {"", "[HTTP]\nGatewayAddress=127.0.0.1:443\nGSK=KEY\n"}) {
        SCOPED_TRACE(settings);
        unlink(kLogPath);
        WriteFile(kConfigPath, settings);
        EXPECT_TRUE(ExitedWith(RunToExit(), 1));
        EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, kIncomplete}));
        EXPECT_EQ(ReadFile(kPidPath), "");
    }
}

TEST_F(DaemonTest, GoodSettingsStartADetachedDaemon) {
    WriteFile(kConfigPath, kGoodSettings);
    pid_t pid = StartRunning();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, kGood, kStarted}));
    EXPECT_EQ(ReadFile(kPidPath), std::to_string(pid)) << "decimal, no newline";
    struct stat info;
    ASSERT_EQ(stat(kPidPath, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_NE(getsid(pid), pid) << "not a session leader";
    EXPECT_NE(getsid(pid), getsid(0)) << "in a session of its own";
    char target[256];
    for (int fd = 0; fd <= 2; ++fd) {
        std::string link = proc + "/fd/" + std::to_string(fd);
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        ASSERT_GT(n, 0);
        EXPECT_EQ(std::string(target, static_cast<size_t>(n)), "/dev/null") << "fd " << fd;
    }
    ssize_t n = readlink((proc + "/cwd").c_str(), target, sizeof target - 1);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(target, static_cast<size_t>(n)), "/");
    std::string status = ReadFile(proc + "/status");
    EXPECT_NE(status.find("Umask:\t0000\n"), std::string::npos);
    EXPECT_TRUE(
        std::regex_search(ReadFile(proc + "/limits"), std::regex(R"(Max core file size +0 )")));
    unsigned long long ignored = SignalMask(status, "SigIgn");
    unsigned long long caught = SignalMask(status, "SigCgt");
    for (int sig : {SIGHUP, SIGPIPE}) {
        EXPECT_TRUE(ignored & SignalBit(sig)) << strsignal(sig) << " ignored";
    }
    for (int sig : {SIGINT, SIGTERM}) {
        EXPECT_TRUE(caught & SignalBit(sig)) << strsignal(sig) << " caught";
    }
}

TEST_F(DaemonTest, SecondInstanceIsRefused) {
    WriteFile(kConfigPath, kGoodSettings);
    pid_t first = StartRunning();
    ASSERT_GT(first, 0);
    EXPECT_TRUE(ExitedWith(RunToExit(), 1));
    std::vector<std::string> messages = LogMessages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), std::to_string(first) + " Another instance is already running.");
    EXPECT_EQ(CountInLog(kStartLine), 1u) << "refused before its start line";
    EXPECT_EQ(ReadFile(kPidPath), std::to_string(first)) << "the first one's pid file is kept";
    EXPECT_EQ(kill(first, 0), 0);
}

TEST_F(DaemonTest, StopSignalsEmptyThePidFileAndExitWithOne) {
    WriteFile(kConfigPath, kGoodSettings);
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(sig));
        pid_t pid = StartRunning();
        ASSERT_GT(pid, 0);
        size_t lines = LogLines().size();
        ASSERT_EQ(kill(pid, sig), 0);
        int status = WaitForExit(pid);
        EXPECT_TRUE(ExitedWith(status, 1)) << "status " << status;
        struct stat info;
        ASSERT_EQ(stat(kPidPath, &info), 0);
        EXPECT_EQ(info.st_size, 0);
        EXPECT_EQ(LogLines().size(), lines) << "nothing is logged on the way out";
    }
}

TEST_F(DaemonTest, PidFileNotNamingAnotherInstanceDoesNotBlock) {
    hosttest::RunningProcess sleeper({"sleep", "30"}, "/bin/sleep");
    const pid_t unrelated = sleeper.Pid();
    pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_TRUE(ExitedWith(WaitForExit(gone), 0));
    const std::tuple<const char*, std::string> cases[] = {
        {"empty", ""},
        {"live unrelated process", std::to_string(unrelated)},
        {"process gone", std::to_string(gone)},
    };
    WriteFile(kConfigPath, kGoodSettings);
    for (const auto& [name, content] : cases) {
        SCOPED_TRACE(name);
        WriteFile(kPidPath, content);
        pid_t pid = StartRunning();
        ASSERT_GT(pid, 0);
        EXPECT_EQ(ReadFile(kPidPath), std::to_string(pid));
        kill(pid, SIGTERM);
        EXPECT_TRUE(ExitedWith(WaitForExit(pid), 1));
    }
    EXPECT_EQ(kill(unrelated, 0), 0) << "the unrelated process is left alone";
}

// Start-ups append to the log; every line starts with the local time.
TEST_F(DaemonTest, StartUpsAppendLinesStampedWithTheLocalTime) {
    WriteFile(kLogPath, "earlier line\n");
    // A zone half an hour off any whole-hour zone, so UTC cannot pass for it.
    setenv("TZ", "<+0530>-5:30", 1);
    tzset();
    std::string before = LocalTimeNow();
    EXPECT_TRUE(ExitedWith(RunToExit(), 1));
    WriteFile(kConfigPath, kGoodSettings);
    pid_t pid = StartRunning();
    std::string after = LocalTimeNow();
    unsetenv("TZ");
    tzset();
    ASSERT_GT(pid, 0);
    std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_EQ(CountInLog(kStartLine), 2u);
    for (size_t i = 1; i < lines.size(); ++i) {
        ASSERT_TRUE(
            std::regex_match(lines[i], std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S.*)")))
            << lines[i];
        std::string stamp = lines[i].substr(0, kTimePrefixLength - 1);
        EXPECT_LE(before, stamp);
        EXPECT_LE(stamp, after);
    }
}

TEST_F(DaemonTest, StartsWithTheStandardDescriptorsClosed) {
    WriteFile(kConfigPath, kGoodSettings);
    Launch closed;
    closed.closeStandardDescriptors = true;
    ASSERT_GT(StartRunning(closed), 0);
    EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, kGood, kStarted}));
}

} // namespace

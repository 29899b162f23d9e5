// The built daemon's start-up, detaching, single instance, stop signals and
// log. The test process is a child subreaper, so the detached daemon becomes
// its child and its real exit status can be collected.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "DevGateway.h"
#include "E2E.h"

namespace {

using namespace e2e;

const std::string kIncomplete = "Configuration not set (or incomplete). Will not start up.";

std::string LocalTimeNow() {
    char text[32] = {0};
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(text, sizeof text, "%F %T", &local);
    return text;
}

std::string Link(const std::string& path) {
    char target[256];
    const ssize_t n = readlink(path.c_str(), target, sizeof target);
    return n > 0 ? std::string(target, size_t(n)) : "";
}

class DaemonTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        s_gateway = new devgw::DevGateway(); // where the settings point
        ASSERT_EQ(s_gateway->Start(443), 443);
        Install(ND_DAEMON_PATH, kInstalledDaemon);
    }
    static void TearDownTestSuite() { delete s_gateway; }
    void SetUp() override {
        for (const char* path : {kConfigPath, kPidPath, kLogPath}) {
            unlink(path);
        }
    }
    void TearDown() override { StopDaemon(m_daemon); }

    // The status of a daemon that ends on its own (the youngest of the three
    // processes: the highest pid in the sandbox); its fork parents exit 0.
    int RunToExit(const std::vector<std::string>& args = {kInstalledDaemon},
                  const std::vector<std::string>& env = {}) {
        Spawn(kInstalledDaemon, args, env);
        std::map<pid_t, int> exits;
        WaitUntil(
            [&] {
                int status = 0;
                for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
                    exits[pid] = status;
                }
                return exits.size() >= 3;
            },
            10000);
        if (exits.size() != 3) {
            ADD_FAILURE() << "only " << exits.size() << " of 3 processes ended";
            return -1;
        }
        EXPECT_TRUE(ExitedWith(exits.begin()->second, 0) &&
                    ExitedWith(std::next(exits.begin())->second, 0))
            << "the fork parents";
        return exits.rbegin()->second;
    }

    // A daemon that keeps running: its pid once it has logged its start-up.
    pid_t StartRunning(const std::map<int, int>& fds = {}) {
        const size_t before = CountInLog(kStarted);
        m_daemon = StartDaemon(fds);
        EXPECT_TRUE(WaitUntil([&] { return CountInLog(kStarted) > before; }, 10000));
        EXPECT_TRUE(m_daemon > 0 && kill(m_daemon, 0) == 0) << "the pid file names no daemon";
        return CountInLog(kStarted) > before ? m_daemon : -1;
    }

    pid_t m_daemon = -1;
    static devgw::DevGateway* s_gateway;
};

devgw::DevGateway* DaemonTest::s_gateway = nullptr;

// Arguments and environment are never read: the settings file is the only
// configuration. Whatever fails, the pid file is left empty, not removed.
TEST_F(DaemonTest, ConfigurationFailuresExitWithOne) {
    const std::string elsewhere = "/var/log/other.dat";
    WriteSettings(443, "KEY");
    rename(kConfigPath, elsewhere.c_str());
    std::vector<std::string> noisyEnv = {"NOTIFY_CONFIG=" + elsewhere, "CONFIG=" + elsewhere,
                                         "SXA_HOME=/var/log/", "HOME=/var/log"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        noisyEnv.push_back(*entry);
    }
    const std::vector<std::string> loadFailed = {kStartLine, "Couldn't load config.dat",
                                                 "Configuration Failed"};
    const struct {
        const char* name;
        const char* settings; // nullptr: no file
        std::vector<std::string> args, env, log;
    } cases[] = {
        {"no file", nullptr, {kInstalledDaemon}, {}, loadFailed},
        {"no file, arguments and environment naming another",
         nullptr,
         {kInstalledDaemon, "--help", "-c", elsewhere, "--foreground", "stop"},
         noisyEnv,
         loadFailed},
        {"empty", "", {kInstalledDaemon}, {}, {kStartLine, kIncomplete}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(kLogPath);
        unlink(kConfigPath);
        if (c.settings != nullptr) {
            WriteFile(kConfigPath, c.settings);
        }
        EXPECT_TRUE(ExitedWith(RunToExit(c.args, c.env), 1));
        EXPECT_EQ(LogMessages(), c.log);
        struct stat info;
        ASSERT_EQ(stat(kPidPath, &info), 0);
        EXPECT_EQ(info.st_size, 0);
    }
}

// Started with its standard descriptors closed, as a service manager may;
// its log lines are appended, stamped with the local time.
TEST_F(DaemonTest, GoodSettingsStartADetachedSingleInstance) {
    WriteSettings(443, "KEY");
    WriteFile(kLogPath, "earlier line\n");
    setenv("TZ", "<+0530>-5:30", 1); // half an hour off: UTC cannot pass for it
    tzset();
    const std::string before = LocalTimeNow();
    const pid_t pid = StartRunning({{0, -1}, {1, -1}, {2, -1}});
    const std::string after = LocalTimeNow();
    unsetenv("TZ");
    tzset();
    ASSERT_GT(pid, 0);
    const std::vector<std::string> lines = LogMessages(0);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "earlier line");
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_TRUE(
            std::regex_match(lines[i], std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S.*)")) &&
            before <= lines[i].substr(0, 19) && lines[i].substr(0, 19) <= after)
            << lines[i] << " not between " << before << " and " << after;
    }
    EXPECT_EQ(LogMessages(),
              (std::vector<std::string>{"earlier line", kStartLine, kGood, kStarted}));
    EXPECT_EQ(ReadFile(kPidPath), std::to_string(pid)) << "decimal, no newline";
    struct stat info;
    ASSERT_EQ(stat(kPidPath, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_NE(getsid(pid), pid) << "not a session leader";
    EXPECT_NE(getsid(pid), getsid(0)) << "in a session of its own";
    for (int fd = 0; fd <= 2; ++fd) {
        EXPECT_EQ(Link(proc + "/fd/" + std::to_string(fd)), "/dev/null") << "fd " << fd;
    }
    EXPECT_EQ(Link(proc + "/cwd"), "/");
    const std::string status = ReadFile(proc + "/status");
    EXPECT_NE(status.find("Umask:\t0000\n"), std::string::npos);
    EXPECT_TRUE(
        std::regex_search(ReadFile(proc + "/limits"), std::regex(R"(Max core file size +0 )")));
    auto mask = [&](const std::string& name) {
        const size_t at = status.find(name + ":\t");
        return at == std::string::npos ? 0 : strtoull(&status[at + name.size() + 2], nullptr, 16);
    };
    for (const auto& [set, sig] : {std::pair{"SigIgn", SIGHUP}, std::pair{"SigIgn", SIGPIPE},
                                   std::pair{"SigCgt", SIGINT}, std::pair{"SigCgt", SIGTERM}}) {
        EXPECT_TRUE(mask(set) & (1ull << (sig - 1))) << strsignal(sig) << " in " << set;
    }

    EXPECT_TRUE(ExitedWith(RunToExit(), 1)) << "a second instance";
    EXPECT_EQ(LogMessages().back(), std::to_string(pid) + " Another instance is already running.");
    EXPECT_EQ(CountInLog(kStartLine), 1u) << "refused before its start line";
    EXPECT_EQ(ReadFile(kPidPath), std::to_string(pid)) << "the first one's pid file is kept";
    EXPECT_EQ(kill(pid, 0), 0);
}

// SIGTERM and SIGINT empty the pid file and exit with 1, logging nothing; a
// pid file naming an unrelated live process does not block.
TEST_F(DaemonTest, StopSignalsEmptyThePidFileAndExitWithOne) {
    hosttest::RunningProcess sleeper({"sleep", "30"}, "/bin/sleep");
    WriteSettings(443, "KEY");
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(sig));
        WriteFile(kPidPath, std::to_string(sleeper.Pid()));
        const pid_t pid = StartRunning();
        ASSERT_GT(pid, 0);
        const size_t lines = LogMessages().size();
        ASSERT_EQ(kill(pid, sig), 0);
        EXPECT_TRUE(ExitedWith(WaitForExit(pid), 1));
        m_daemon = -1;
        EXPECT_EQ(ReadFile(kPidPath), "");
        EXPECT_EQ(LogMessages().size(), lines) << "nothing is logged on the way out";
    }
    EXPECT_EQ(kill(sleeper.Pid(), 0), 0) << "the unrelated process is left alone";
}

} // namespace

#include "app/Daemon.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// A sleeping child whose command line starts with argv0; killed by pid.
class Sleeper {
public:
    explicit Sleeper(const std::string& argv0) {
        m_pid = fork();
        if (m_pid == 0) {
            execl("/bin/sleep", argv0.c_str(), "30", static_cast<char*>(nullptr));
            _exit(127);
        }
        // Wait (bounded) until the exec has replaced the command line.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (CommandLine().rfind(argv0, 0) != 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    ~Sleeper() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    std::string CommandLine() const {
        std::ifstream in("/proc/" + std::to_string(m_pid) + "/cmdline");
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    pid_t m_pid;
};

TEST(PidFile, OnlyALiveProcessFromTheInstallDirectoryCounts) {
    Sleeper ours("/usr/sxa/daemon/notifydaemon");
    Sleeper unrelated("sleep");
    ASSERT_GT(ours.m_pid, 0);
    ASSERT_GT(unrelated.m_pid, 0);
    pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);

    const struct {
        std::string pid;
        bool running;
    } cases[] = {
        {std::to_string(ours.m_pid), true},
        {std::to_string(unrelated.m_pid), false},
        {std::to_string(gone), false},
        {std::to_string(getpid()), false}, // our own id, reused
        {"0", false},
        {"-1", false},
        {"abc", false},
        {"99999999999999999999", false},
    };
    for (auto c : cases) {
        EXPECT_EQ(vel::PidIsRunning(c.pid), c.running) << c.pid;
    }
    EXPECT_TRUE(vel::PidFileCmdIsOurs(ours.m_pid));
    EXPECT_FALSE(vel::PidFileCmdIsOurs(unrelated.m_pid));
    EXPECT_FALSE(vel::PidFileCmdIsOurs(gone));
}

} // namespace

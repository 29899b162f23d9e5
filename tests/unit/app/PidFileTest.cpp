#include "app/Daemon.h"

#include "HostTesting.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(PidFile, OnlyALiveProcessFromTheInstallDirectoryCounts) {
    hosttest::RunningProcess ours({"/usr/sxa/daemon/notifydaemon", "30"}, "/bin/sleep");
    hosttest::RunningProcess unrelated({"sleep", "30"}, "/bin/sleep");
    ASSERT_GT(ours.Pid(), 0);
    ASSERT_GT(unrelated.Pid(), 0);
    pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);

    std::pair<std::string, bool> cases[] = {
        {std::to_string(ours.Pid()), true},
        {std::to_string(unrelated.Pid()), false},
        {std::to_string(gone), false},
        {std::to_string(getpid()), false}, // our own id, reused
        {"0", false},
        {"-1", false},
        {"abc", false},
        {"99999999999999999999", false},
    };
    for (auto& [pid, running] : cases) { // not const: PidIsRunning takes a reference
        EXPECT_EQ(vel::PidIsRunning(pid), running) << pid;
    }
}

} // namespace

#include "HostTestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace hosttest {

const char* const kProbePath = ND_PROBE_PATH;

TempDir::TempDir() {
    char pattern[] = "/tmp/nd-host-XXXXXX";
    if (mkdtemp(pattern) != nullptr) {
        m_path = pattern;
    }
    EXPECT_FALSE(m_path.empty());
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) {
        std::filesystem::remove_all(m_path, ignored);
    }
}

std::string InstallProbe(const std::string& directory, const std::string& name) {
    std::string path = directory + "/" + name;
    std::filesystem::copy_file(kProbePath, path, std::filesystem::copy_options::overwrite_existing);
    chmod(path.c_str(), 0755);
    return path;
}

RunningProcess::RunningProcess(std::vector<std::string> argv, const std::string& program) {
    Start(argv, program);
}

void RunningProcess::Start(std::vector<std::string>& argv, const std::string& program) {
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(&arg[0]);
    }
    args.push_back(nullptr);
    // The write end closes on exec: end of file on the read end means the
    // new command line is in place.
    int execed[2];
    ASSERT_EQ(pipe2(execed, O_CLOEXEC), 0);
    m_pid = fork();
    if (m_pid == 0) {
        unsetenv("ND_PROBE_RECORD");
        execv(program.c_str(), args.data());
        _exit(127);
    }
    close(execed[1]);
    ASSERT_NE(m_pid, -1);
    struct pollfd ready = {execed[0], POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 10000), 1) << "probe did not start";
    close(execed[0]);
}

RunningProcess::~RunningProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

int WaitForExit(pid_t child, int seconds) {
    int status = 0;
    for (int tick = 0; tick < seconds * 100; ++tick) {
        pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            return status;
        }
        if (done == -1) {
            return -1;
        }
        usleep(10000);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace hosttest

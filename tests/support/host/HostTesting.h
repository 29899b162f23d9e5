// Files, scratch directories, programs run to their end and child processes for a test's main
// thread: every wait is bounded, every child is killed by its pid.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace hosttest {

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Copies a program to `to` (mode 0755), unlinked first: it may be running.
inline void Install(const std::string& from, const std::string& to) {
    unlink(to.c_str());
    WriteFile(to, ReadFile(from));
    chmod(to.c_str(), 0755);
}

// One login record (utmp) as the C library writes it; fields are cut to fit.
struct Login {
    const char* user;
    const char* line;
    const char* id = "";
    const char* host = "";
    short type = USER_PROCESS;
};

inline std::string LoginRecords(const std::vector<Login>& logins) {
    const auto copy = [](auto& field, const char* text) {
        memcpy(field, text, std::min(strlen(text), sizeof field));
    };
    std::string bytes;
    for (const Login& login : logins) {
        utmp record{};
        record.ut_type = login.type;
        copy(record.ut_user, login.user);
        copy(record.ut_line, login.line);
        copy(record.ut_id, login.id);
        copy(record.ut_host, login.host);
        bytes.append(reinterpret_cast<const char*>(&record), sizeof record);
    }
    return bytes;
}

// A fresh directory under /tmp, removed with its contents.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/nd-test-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            m_path = pattern;
        }
    }
    ~TempDir() {
        std::error_code ignored;
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path, ignored);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

// The child's wait status; -1 if not our child or not ended in `seconds`
// (it is then killed and reaped).
inline int WaitForExit(pid_t child, int seconds = 10) {
    int status = 0;
    for (int tick = 0; tick < seconds * 500; ++tick) {
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done != 0) {
            return done == child ? status : -1;
        }
        usleep(2000);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
}

inline bool ExitedWith(int status, int code) {
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == code;
}

struct Output {
    int status = -1; // wait status, -1 when it did not end in time
    std::string text;
};

// `argv` with standard output captured and, when given, `input` (small enough
// for a pipe's buffer) on standard input; killed after `seconds`.
inline Output Run(const std::vector<std::string>& argv, int seconds = 30,
                  const std::optional<std::string>& input = std::nullopt) {
    Output out;
    int pipe[2], in[2] = {-1, -1};
    if (pipe2(pipe, O_CLOEXEC) != 0 || (input && pipe2(in, O_CLOEXEC) != 0)) {
        return out;
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipe[1], 1);
        if (input) {
            dup2(in[0], 0);
        }
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipe[1]);
    if (input) {
        close(in[0]);
        if (write(in[1], input->data(), input->size()) != ssize_t(input->size())) {
            out.text = "(input not written)";
        }
        close(in[1]);
    }
    const int64_t deadline = int64_t(time(nullptr)) + seconds;
    for (char buffer[4096];;) {
        pollfd readable{pipe[0], POLLIN, 0};
        const int left = int(deadline - int64_t(time(nullptr)));
        if (left <= 0 || poll(&readable, 1, left * 1000) <= 0) {
            break;
        }
        const ssize_t got = read(pipe[0], buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        out.text.append(buffer, size_t(got));
    }
    close(pipe[0]);
    out.status = WaitForExit(child, 5);
    return out;
}

// `program` run with `argv` (argv[0] included), back once it has exec'd (ps
// shows the new command line); killed by pid and reaped on destruction.
class RunningProcess {
public:
    RunningProcess(std::vector<std::string> argv, const std::string& program) {
        std::vector<char*> args;
        for (std::string& arg : argv) {
            args.push_back(&arg[0]);
        }
        args.push_back(nullptr);
        // The write end closes on exec: end of file means the exec happened.
        int execed[2];
        if (pipe2(execed, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            execv(program.c_str(), args.data());
            _exit(127);
        }
        close(execed[1]);
        struct pollfd ready = {execed[0], POLLIN, 0};
        poll(&ready, 1, 10000);
        close(execed[0]);
    }
    ~RunningProcess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

} // namespace hosttest

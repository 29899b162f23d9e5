// Real processes for the host tests, run inside the sandbox on the test's
// main thread: probe programs with chosen command lines, temporary
// directories and bounded waits.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace hosttest {

// The probe program (tests/support/host): records or waits, see its source.
extern const char* const kProbePath;

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

// Copies the probe into `directory` as `name` (mode 0755); returns its path.
std::string InstallProbe(const std::string& directory, const std::string& name);

// A waiting probe run as `program` with exactly `argv` (argv[0] included).
// The constructor returns once the exec has happened, so ps shows the
// command line; the destructor kills it by pid and reaps it.
class RunningProcess {
public:
    explicit RunningProcess(std::vector<std::string> argv, const std::string& program = kProbePath);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

private:
    void Start(std::vector<std::string>& argv, const std::string& program);
    pid_t m_pid = -1;
};

// The child's wait status, or -1 when it had not ended within `seconds`
// (it is then killed and reaped).
int WaitForExit(pid_t child, int seconds);

std::string ReadFile(const std::string& path);

} // namespace hosttest

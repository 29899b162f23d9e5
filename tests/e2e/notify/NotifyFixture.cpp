#include "NotifyFixture.h"

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include "transport/password.h"

namespace notify_e2e {

const char* const kFastDaemon = ND_FAST_DAEMON_PATH;
const char* const kRealDaemon = ND_REAL_DAEMON_PATH;

namespace {

constexpr const char* kStub = ND_STUB_PATH;
constexpr const char* kInstalledDaemon = "/usr/sxa/daemon/notifydaemon";
constexpr const char* kConfigPath = "/usr/sxa/daemon/config.dat";
constexpr const char* kPidPath = "/usr/sxa//daemon/notifydaemon.pid";
constexpr size_t kTimePrefixLength = 20;
constexpr int kForkTimeoutMs = 10000;

void CopyExecutable(const std::string& from, const std::string& to) {
    unlink(to.c_str());
    WriteFile(to, ReadFile(from));
    chmod(to.c_str(), 0755);
}

pid_t Spawn(const std::string& path, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    return pid;
}

// Through the stub, as a desktop log-in would leave it.
bool WriteLoginRecord() {
    const pid_t pid = Spawn(kStub, {kStub, "--login", kDesktopUser});
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

void RemoveFilesIn(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return;
    }
    while (dirent* entry = readdir(d)) {
        if (entry->d_name[0] != '.') {
            unlink((dir + "/" + entry->d_name).c_str());
        }
    }
    closedir(d);
}

} // namespace

pid_t NotifyTest::s_xServer = -1;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::vector<std::string> LogMessages() {
    std::istringstream in(ReadFile(kLogPath));
    std::vector<std::string> messages;
    for (std::string line; std::getline(in, line);) {
        messages.push_back(line.size() >= kTimePrefixLength ? line.substr(kTimePrefixLength)
                                                            : line);
    }
    return messages;
}

size_t CountInLog(const std::string& message) {
    const std::vector<std::string> messages = LogMessages();
    return size_t(std::count(messages.begin(), messages.end(), message));
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string StoredKey(const std::string& clear) {
    char stored[128] = {};
    _EncryptPassword(kPasswordSeed, clear.c_str(), stored, sizeof stored);
    return stored;
}

std::string DisplayRun::Env(const std::string& name) const {
    auto it = env.find(name);
    return it != env.end() ? it->second : "(absent)";
}

std::vector<DisplayRun> DisplayRuns() {
    std::vector<std::string> names;
    if (DIR* d = opendir(kRecordDir)) {
        while (dirent* entry = readdir(d)) {
            const std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
                names.push_back(name);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    std::vector<DisplayRun> runs;
    for (const std::string& name : names) {
        DisplayRun run;
        std::istringstream in(ReadFile(std::string(kRecordDir) + "/" + name));
        for (std::string line; std::getline(in, line);) {
            if (line.compare(0, 4, "arg:") == 0) {
                run.args.push_back(line.substr(4));
            } else if (line.compare(0, 4, "env:") == 0) {
                const size_t eq = line.find('=');
                if (eq != std::string::npos) {
                    run.env[line.substr(4, eq - 4)] = line.substr(eq + 1);
                }
            }
        }
        runs.push_back(run);
    }
    return runs;
}

std::vector<DisplayRun> DisplayRunsFor(int messageId) {
    std::vector<DisplayRun> runs;
    for (const DisplayRun& run : DisplayRuns()) {
        if (run.Env("MESSAGE_ID") == std::to_string(messageId)) {
            runs.push_back(run);
        }
    }
    return runs;
}

int ZombieChildren(pid_t parent) {
    int zombies = 0;
    DIR* d = opendir("/proc");
    if (d == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(d)) {
        if (atoi(entry->d_name) <= 0) {
            continue;
        }
        const std::string stat = ReadFile(std::string("/proc/") + entry->d_name + "/stat");
        const size_t close = stat.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        char state = 0;
        int ppid = 0;
        if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && state == 'Z' &&
            ppid == parent) {
            ++zombies;
        }
    }
    closedir(d);
    return zombies;
}

void NotifyTest::SetUpTestSuite() {
    // Orphans (the detached daemon) become our children, so they can be reaped.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    mkdir("/run/nd-notify", 0755);
    mkdir("/run/nd-notify/xauth", 0755);
    mkdir(kRecordDir, 0777);
    CopyExecutable(kStub, kDisplayPath);
    ASSERT_TRUE(WriteLoginRecord());
    s_xServer = Spawn(kStub, {"/usr/bin/X", ":0", "-auth", kAuthorityPath, "-nolisten", "tcp"});
    ASSERT_GT(s_xServer, 0);
    // Until it has exec'd, ps would show the test's own command line.
    ASSERT_TRUE(WaitUntil(
        [] {
            return ReadFile("/proc/" + std::to_string(s_xServer) + "/cmdline")
                       .compare(0, 10, "/usr/bin/X") == 0;
        },
        5000));
}

void NotifyTest::TearDownTestSuite() {
    if (s_xServer > 0) {
        kill(s_xServer, SIGKILL);
        waitpid(s_xServer, nullptr, 0);
        s_xServer = -1;
    }
}

void NotifyTest::SetUp() {
    unlink(kConfigPath);
    unlink(kPidPath);
    unlink(kLogPath);
    unlink(kAnswerPath);
    unlink(kCustomPath);
    unlink("/var/cache/notifydaemon/sxa-custom.dat");
    RemoveFilesIn(kRecordDir);
}

void NotifyTest::TearDown() {
    StopDaemon();
    m_gateway.reset();
}

devgw::DevGateway& NotifyTest::StartGateway(uint16_t port) {
    m_gateway.reset(new devgw::DevGateway());
    EXPECT_GT(m_gateway->Start(port), 0);
    return *m_gateway;
}

void NotifyTest::WriteSettings(const Settings& settings) {
    std::ostringstream text;
    text << "[gateway]\ngatewayip=127.0.0.1\ngatewayport=" << settings.port
         << "\ngatewaykey=" << StoredKey(kClearKey) << "\ndepartment=Support\n"
         << "[agent]\nUpdateInterval=" << settings.updateInterval << "\n"
         << "[UI]\nFullScreen=1\nFullScreenTimeout=45\nLargeLogoPath=/usr/sxa/logo.png\n";
    WriteFile(kConfigPath, text.str());
}

pid_t NotifyTest::StartDaemon(const std::string& binary) {
    CopyExecutable(binary, kInstalledDaemon);
    m_daemonStarted = Clock::now();
    const pid_t launched = Spawn(kInstalledDaemon, {kInstalledDaemon});
    if (launched <= 0) {
        return -1;
    }
    // The launched process and the intermediate child exit with 0.
    int exited = 0;
    const bool parentsGone = WaitUntil(
        [&] {
            int status = 0;
            while (waitpid(-1, &status, WNOHANG) > 0) {
                ++exited;
            }
            return exited >= 2;
        },
        kForkTimeoutMs);
    if (!parentsGone ||
        !WaitUntil([] { return atoi(ReadFile(kPidPath).c_str()) > 0; }, kForkTimeoutMs)) {
        return -1;
    }
    m_daemon = atoi(ReadFile(kPidPath).c_str());
    return m_daemon;
}

pid_t NotifyTest::StartRegistered(const std::string& binary, int updateInterval, int timeoutMs) {
    devgw::DevGateway& gateway = StartGateway();
    Settings settings;
    settings.port = gateway.Port();
    settings.updateInterval = updateInterval;
    WriteSettings(settings);
    const pid_t pid = StartDaemon(binary);
    if (pid <= 0 || !gateway.WaitForRequest("OPEN", timeoutMs)) {
        return -1;
    }
    return pid;
}

void NotifyTest::StopDaemon() {
    if (m_daemon > 0) {
        kill(m_daemon, SIGKILL);
        WaitUntil([&] { return waitpid(m_daemon, nullptr, WNOHANG) != 0; }, kForkTimeoutMs);
        m_daemon = -1;
    }
    // Display programs that outlived the daemon.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

bool NotifyTest::WaitForRequests(const std::string& command, size_t n, int timeoutMs) {
    return m_gateway->WaitForRequest(command, timeoutMs, nullptr, int(n));
}

std::vector<devgw::Request> NotifyTest::Bodies(const std::string& command) {
    return m_gateway->RequestsFor(command);
}

} // namespace notify_e2e

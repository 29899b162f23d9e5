#include "NotifyFixture.h"

#include <dirent.h>
#include <sys/stat.h>

#include <filesystem>

namespace notify_e2e {

const char* const kFastDaemon = ND_FAST_DAEMON_PATH;
const char* const kRealDaemon = ND_REAL_DAEMON_PATH;
pid_t NotifyTest::s_xServer = -1;

std::vector<DisplayRun> DisplayRuns(int messageId) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kRecordDir)) {
        if (entry.path().extension() == ".txt") {
            names.push_back(entry.path());
        }
    }
    std::sort(names.begin(), names.end());
    std::vector<DisplayRun> runs;
    for (const std::string& name : names) {
        DisplayRun run;
        std::istringstream in(ReadFile(name));
        for (std::string line; std::getline(in, line);) {
            const size_t eq = line.find('=');
            if (line.compare(0, 4, "arg:") == 0) {
                run.args.push_back(line.substr(4));
            } else if (line.compare(0, 4, "env:") == 0 && eq != std::string::npos) {
                run.env[line.substr(4, eq - 4)] = line.substr(eq + 1);
            }
        }
        if (messageId < 0 || run.Env("MESSAGE_ID") == std::to_string(messageId)) {
            runs.push_back(run);
        }
    }
    return runs;
}

int ZombieChildren(pid_t parent) {
    int zombies = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string stat = ReadFile(entry.path().string() + "/stat");
        const size_t close = stat.rfind(')');
        char state = 0;
        int ppid = 0;
        if (close != std::string::npos &&
            sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && state == 'Z' &&
            ppid == parent) {
            ++zombies;
        }
    }
    return zombies;
}

void NotifyTest::SetUpTestSuite() {
    // Orphans (the detached daemon) become our children, to be reaped.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    std::filesystem::create_directories(kRecordDir);
    std::filesystem::create_directories("/run/nd-notify/xauth");
    Install(ND_STUB_PATH, kDisplayPath);
    ASSERT_TRUE(ExitedWith(WaitForExit(Spawn(ND_STUB_PATH, {"stub", "--login", "alice"})), 0));
    s_xServer = Spawn(ND_STUB_PATH, {"/usr/bin/X", ":0", "-auth", kAuthorityPath});
    // Until it has exec'd, ps would show the test's own command line.
    ASSERT_TRUE(WaitUntil(
        [] {
            return ReadFile("/proc/" + std::to_string(s_xServer) + "/cmdline")
                       .rfind("/usr/bin/X", 0) == 0;
        },
        5000));
}

void NotifyTest::TearDownTestSuite() {
    if (s_xServer > 0) {
        kill(s_xServer, SIGKILL);
        waitpid(s_xServer, nullptr, 0);
    }
}

void NotifyTest::SetUp() {
    for (const char* path : {kConfigPath, kPidPath, kLogPath, kAnswerPath, kCustomPath,
                             "/var/cache/notifydaemon/sxa-custom.dat"}) {
        unlink(path);
    }
    for (const auto& entry : std::filesystem::directory_iterator(kRecordDir)) {
        unlink(entry.path().c_str());
    }
}

devgw::DevGateway& NotifyTest::StartGateway(uint16_t port) {
    m_gateway.reset(new devgw::DevGateway());
    EXPECT_GT(m_gateway->Start(port), 0);
    return *m_gateway;
}

void NotifyTest::WriteSettings(int port, int updateInterval) {
    e2e::WriteSettings(
        port, kClearKey,
        "department=Support\n[agent]\nUpdateInterval=" + std::to_string(updateInterval) +
            "\n[UI]\nFullScreen=1\nFullScreenTimeout=45\n"
            "LargeLogoPath=/usr/sxa/logo.png\n");
}

pid_t NotifyTest::StartRegistered(const std::string& binary, int updateInterval, int timeoutMs) {
    WriteSettings(StartGateway().Port(), updateInterval);
    Install(binary, kInstalledDaemon);
    m_daemon = StartDaemon();
    return m_daemon > 0 && WaitFor("OPEN", 1, timeoutMs) ? m_daemon : -1;
}

size_t NotifyTest::Count(const std::string& command, int id) {
    size_t n = 0;
    for (const devgw::Request& request : m_gateway->RequestsFor(command)) {
        n += id < 0 || request.Field("ID") == std::to_string(id) ? 1 : 0;
    }
    return n;
}

} // namespace notify_e2e

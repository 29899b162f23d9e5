#include "DisplayFixture.h"

#include "WindowLayout.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

namespace display_e2e {

XDesktop* DisplayTest::s_desktop = nullptr;
std::string DisplayTest::s_startError;

void DisplayTest::SetUpTestSuite() {
    s_desktop = new XDesktop();
    if (!s_desktop->Start(s_startError) && s_startError.empty()) {
        s_startError = "the X server did not start";
    }
}

void DisplayTest::TearDownTestSuite() {
    delete s_desktop;
    s_desktop = nullptr;
}

void DisplayTest::SetUp() {
    ASSERT_TRUE(s_startError.empty()) << s_startError;
}

void DisplayTest::TearDown() {
    for (DisplayRun& run : m_runs) {
        if (run.pid > 0) {
            kill(run.pid, SIGKILL);
            waitpid(run.pid, nullptr, 0);
        }
        if (run.channel >= 0) {
            close(run.channel);
        }
    }
    m_runs.clear();
}

DisplayRun DisplayTest::Launch(const std::map<std::string, std::string>& entries) {
    std::vector<std::string> env;
    for (const std::string& entry : CurrentEnvironment()) {
        const std::string name = entry.substr(0, entry.find('='));
        if (name != "DISPLAY" && name != "XAUTHORITY" && name != "XAUTHLOCALHOSTNAME" &&
            entries.count(name) == 0) {
            env.push_back(entry);
        }
    }
    for (const std::string& entry : s_desktop->XEnvironment()) {
        if (entries.count(entry.substr(0, entry.find('='))) == 0) {
            env.push_back(entry);
        }
    }
    for (const auto& [name, value] : entries) {
        if (!(name == "XAUTHORITY" && value.empty())) {
            env.push_back(name + "=" + value);
        }
    }
    int pair[2];
    DisplayRun run;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return run;
    }
    const int stray = open("/dev/null", O_RDONLY | O_CLOEXEC);
    run.pid = Spawn(ND_NOTIFYMESSAGE_PATH, {ND_NOTIFYMESSAGE_PATH}, env,
                    {{60, pair[1]}, {50, stray}, {51, stray}, {61, stray}});
    close(pair[1]);
    close(stray);
    run.channel = pair[0];
    m_runs.push_back(run);
    return run;
}

ChannelRead DisplayTest::Read(const DisplayRun& run, int timeoutMs) {
    ChannelRead result;
    pollfd readable{run.channel, POLLIN, 0};
    if (poll(&readable, 1, timeoutMs) <= 0) {
        result.timedOut = true;
        return result;
    }
    char buffer[4096];
    const ssize_t got = read(run.channel, buffer, sizeof buffer);
    result.ended = got <= 0;
    if (got > 0) {
        result.bytes.assign(buffer, size_t(got));
    }
    return result;
}

bool DisplayTest::WaitUntilDrawn(WindowId window, bool large) {
    const Geometry place = s_desktop->GeometryOf(window);
    const notifymsg::Rect button = notifymsg::ButtonRect(place.width, place.height, large);
    const Geometry part{button.x, button.y, button.width, button.height};
    const size_t enough = size_t(button.width) * size_t(button.height) / 2;
    for (int i = 0; i < 250; ++i) {
        if (s_desktop->Capture(place).CountIn(part, IsButtonFace) > enough) {
            return true;
        }
        usleep(20000);
    }
    return false;
}

Screenshot DisplayTest::SaveWhenDrawn(WindowId window, bool large, const std::string& name) {
    EXPECT_TRUE(WaitUntilDrawn(window, large)) << name;
    return s_desktop->Save(s_desktop->GeometryOf(window), name);
}

void DisplayTest::ClickButton(WindowId window, bool large) {
    const Geometry place = s_desktop->GeometryOf(window);
    const notifymsg::Rect button = notifymsg::ButtonRect(place.width, place.height, large);
    ASSERT_TRUE(s_desktop->Click(place.x + button.x + button.width / 2,
                                 place.y + button.y + button.height / 2));
}

int DisplayTest::ExitStatus(DisplayRun& run, int timeoutMs) {
    int status = 0;
    if (!WaitExit(run.pid, timeoutMs, &status)) {
        return -1;
    }
    run.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool IsButtonFace(uint8_t r, uint8_t g, uint8_t b) {
    return r == 0x2b && g == 0x63 && b == 0xc6;
}

std::string ExpectedRecord(int32_t id, int32_t flags, const std::string& user) {
    std::string record(12, '\0');
    memcpy(&record[0], &id, 4);
    memcpy(&record[4], &flags, 4);
    const uint32_t length = uint32_t(user.size());
    memcpy(&record[8], &length, 4);
    record += user + '\0';
    record.resize(std::max<size_t>(record.size(), 16), '\0');
    return record;
}

std::string StatusLine(pid_t pid, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            std::istringstream fields(line.substr(name.size() + 1));
            std::string word;
            std::string joined;
            while (fields >> word) {
                joined += (joined.empty() ? "" : " ") + word;
            }
            return joined;
        }
    }
    return std::string();
}

std::vector<int> OpenDescriptors(pid_t pid) {
    std::vector<int> fds;
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                fds.push_back(atoi(entry->d_name));
            }
        }
        closedir(dir);
    }
    std::sort(fds.begin(), fds.end());
    return fds;
}

} // namespace display_e2e

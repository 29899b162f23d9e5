// The whole road of one notification with real programs: the development
// gateway sends it, the daemon starts the display program on the X server it
// finds by "-auth", xdotool clicks "Acknowledge", and the gateway receives
// "CMD=MESSAGEACK" with the notification's id.
#include "DevGateway.h"
#include "DisplayFixture.h"
#include "transport/password.h"

#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <fstream>
#include <sstream>

namespace display_e2e {
namespace {

constexpr const char* kInstalledDaemon = "/usr/sxa/daemon/notifydaemon";
constexpr const char* kInstalledDisplay = "/usr/sxa/gui/message/notifymessage";
constexpr const char* kPidPath = "/usr/sxa//daemon/notifydaemon.pid";
// The daemon registers a fixed 10 s after connecting.
constexpr int kRegistrationMs = 30000;

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void Install(const std::string& from, const std::string& to) {
    unlink(to.c_str());
    std::ofstream(to, std::ios::binary) << ReadAll(from);
    chmod(to.c_str(), 0755);
}

// The desktop log-in the daemon looks for: a login record on display ":0".
bool LogIn(const char* user) {
    struct utmp record;
    memset(&record, 0, sizeof record);
    record.ut_type = USER_PROCESS;
    record.ut_pid = getpid();
    strncpy(record.ut_line, ":0", sizeof record.ut_line);
    strncpy(record.ut_id, ":0", sizeof record.ut_id);
    strncpy(record.ut_user, user, sizeof record.ut_user);
    utmpname(_PATH_UTMP);
    setutent();
    const bool written = pututline(&record) != nullptr;
    endutent();
    return written;
}

std::string StoredKey(const std::string& clear) {
    char stored[64] = {};
    _EncryptPassword(kPasswordSeed, clear.c_str(), stored, sizeof stored);
    return stored;
}

// Ends the daemon by its pid however the test ends.
struct DaemonGuard {
    pid_t pid = -1;
    ~DaemonGuard() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            WaitExit(pid, 5000);
        }
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
};

TEST_F(DisplayTest, DaemonShowsAGatewayNotificationAndReportsTheClick) {
    // The detached daemon (and its intermediate parent) become our children.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    ASSERT_TRUE(LogIn(kDesktopUser));
    Install(ND_DAEMON_PATH, kInstalledDaemon);
    Install(ND_NOTIFYMESSAGE_PATH, kInstalledDisplay);
    devgw::DevGateway gateway;
    ASSERT_GT(gateway.Start(0), 0);
    std::ofstream("/usr/sxa/daemon/config.dat")
        << "[gateway]\ngatewayip=127.0.0.1\ngatewayport=" << gateway.Port()
        << "\ngatewaykey=" << StoredKey("XVFB-KEY") << "\ndepartment=Display\n";

    DaemonGuard daemon;
    const pid_t launcher = Spawn(kInstalledDaemon, {kInstalledDaemon}, CurrentEnvironment());
    int status = -1;
    ASSERT_TRUE(WaitExit(launcher, 10000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int i = 0; i < 500 && daemon.pid <= 0; ++i) {
        daemon.pid = atoi(ReadAll(kPidPath).c_str());
        usleep(20000);
    }
    ASSERT_GT(daemon.pid, 0);
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", kRegistrationMs));

    ASSERT_TRUE(gateway.SendNotification(4711, "Hello from the gateway. Grüße — Привет",
                                         "120|Maintenance", "5"));
    const WindowId window = s_desktop->WaitForWindow(0, kWindowMs);
    ASSERT_NE(window, 0u);
    const pid_t display = s_desktop->PidOf(window);
    EXPECT_EQ(StatusLine(display, "Uid"), "65534 65534 65534 65534");
    SaveWhenDrawn(window, false, "daemon-notification.png");
    devgw::Request receipt;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGERECEIVED", 5000, &receipt));
    EXPECT_EQ(receipt.Field("ID"), "4711");
    EXPECT_TRUE(gateway.RequestsFor("MESSAGEACK").empty()) << "nothing before the click";

    ClickButton(window, false);
    devgw::Request ack;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGEACK", 10000, &ack));
    EXPECT_EQ(ack.Field("ID"), "4711");
    EXPECT_EQ(ack.Field("UF"), "1");
    EXPECT_EQ(ack.Field("UN"), kDesktopUser);
    EXPECT_TRUE(s_desktop->WindowsOf(display).empty());
}

} // namespace
} // namespace display_e2e

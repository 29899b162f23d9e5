// The display program under Xvfb in the sandbox, started as the daemon starts
// it (as root, X environment and entries, acknowledgement channel at fd 60,
// stray daemon fds at 50, 51, 61); clicks by xdotool, screenshots in
// artefacts/. Last, gateway to daemon to display program to click to gateway.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <deque>
#include <filesystem>
#include <regex>

#include "Acknowledgement.h"
#include "DevGateway.h"
#include "E2E.h"
#include "WindowLayout.h"
#include "XDesktop.h"

namespace display_e2e {
namespace {

using namespace e2e;

constexpr int kWindowMs = 15000;
constexpr const char* kNobodyIds = "65534\t65534\t65534\t65534|65534\t65534\t65534\t65534|65534 ";

bool IsButtonFace(uint8_t r, uint8_t g, uint8_t b) {
    return r == 0x2b && g == 0x63 && b == 0xc6;
}

bool IsPressedFace(uint8_t r, uint8_t g, uint8_t b) {
    return r == 0x1b && g == 0x43 && b == 0x91;
}

bool IsInk(uint8_t r, uint8_t g, uint8_t b) {
    return r < 0x80 && g < 0x80 && b < 0x80;
}

// Real, effective, saved and file-system ids of the process, and its groups.
std::string Ids(pid_t pid) {
    std::smatch ids;
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    std::regex_search(status, ids,
                      std::regex("Uid:\\s+(.*)\nGid:\\s+(.*)\n(?:.*\n)*Groups:\\s*(.*)\n"));
    return ids.size() == 4 ? ids.str(1) + "|" + ids.str(2) + "|" + ids.str(3) : status;
}

struct Program {
    pid_t pid = -1;
    int channel = -1; // the daemon's end of the acknowledgement channel
};

class DisplayTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_error = s_desktop->Start(); }
    static void TearDownTestSuite() { delete s_desktop; }
    void SetUp() override { ASSERT_EQ(s_error, ""); }
    void TearDown() override {
        for (Program& run : m_runs) {
            if (run.pid > 0) {
                kill(run.pid, SIGKILL);
                waitpid(run.pid, nullptr, 0);
            }
            close(run.channel);
        }
    }

    // An empty "XAUTHORITY" removes that entry; others are added or replace.
    Program& Launch(std::map<std::string, std::string> entries) {
        entries.insert({{"DISPLAY", ":0.0"},
                        {"XAUTHORITY", kAuthorityPath},
                        {"XAUTHLOCALHOSTNAME", "localhost"}});
        std::vector<std::string> env = {"PATH=/usr/bin:/bin"};
        for (const auto& [name, value] : entries) {
            if (!(name == "XAUTHORITY" && value.empty())) {
                env.push_back(name + "=" + value);
            }
        }
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        const int stray = open("/dev/null", O_RDONLY | O_CLOEXEC);
        m_runs.push_back({Spawn(ND_NOTIFYMESSAGE_PATH, {ND_NOTIFYMESSAGE_PATH}, env,
                                {{60, pair[1]}, {50, stray}, {51, stray}, {61, stray}}),
                          pair[0]});
        close(pair[1]);
        close(stray);
        return m_runs.back();
    }

    // One read of the channel: its bytes, "(ended)" or "(timed out)".
    static std::string Read(const Program& run, int timeoutMs = 5000) {
        pollfd readable{run.channel, POLLIN, 0};
        char buffer[4096];
        const ssize_t got =
            poll(&readable, 1, timeoutMs) <= 0 ? -2 : read(run.channel, buffer, sizeof buffer);
        return got > 0 ? std::string(buffer, size_t(got)) : got == -2 ? "(timed out)" : "(ended)";
    }

    static notifymsg::Rect Button(WindowId window, bool large) {
        const Geometry place = s_desktop->GeometryOf(window);
        return notifymsg::ButtonRect(place.width, place.height, large);
    }

    // Whether the button, in the given face, covers most of its place (in time).
    static bool ButtonShows(WindowId window, bool large, bool (*face)(uint8_t, uint8_t, uint8_t)) {
        const notifymsg::Rect b = Button(window, large);
        return WaitUntil([&] {
            return s_desktop->Capture(s_desktop->GeometryOf(window))
                       .CountIn({b.x, b.y, b.width, b.height}, face) >
                   size_t(b.width * b.height / 2);
        });
    }

    // A screenshot of the window once its button is drawn.
    static Screenshot Shot(WindowId window, bool large, const std::string& name) {
        EXPECT_TRUE(ButtonShows(window, large, IsButtonFace)) << name << ": no button";
        return s_desktop->Capture(s_desktop->GeometryOf(window), name);
    }

    // Presses and releases the middle of the normal window's "Acknowledge"
    // button, each step seen to land (the pointer over the window, then the
    // pressed look drawn), so that a lost input event fails here and says so.
    static void Click(WindowId window) {
        const Geometry place = s_desktop->GeometryOf(window);
        const notifymsg::Rect b = Button(window, false);
        ASSERT_TRUE(s_desktop->MovePointer(place.x + b.x + b.width / 2,
                                           place.y + b.y + b.height / 2, window))
            << s_desktop->PointerState() << ", not over " << window;
        ASSERT_TRUE(s_desktop->SetButton1(true));
        EXPECT_TRUE(ButtonShows(window, false, IsPressedFace))
            << "the press did not show; " << s_desktop->PointerState();
        ASSERT_TRUE(s_desktop->SetButton1(false));
    }

    // Its exit code (128 + signal when killed), -1 if it did not end in time.
    static int ExitStatus(Program& run) {
        const int status = WaitForExit(run.pid, 5);
        run.pid = -1;
        return status == -1 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static XDesktop* s_desktop;
    static std::string s_error;
    std::deque<Program> m_runs;
};

XDesktop* DisplayTest::s_desktop = new XDesktop();
std::string DisplayTest::s_error;

TEST_F(DisplayTest, FullScreenShrinksThenAcknowledgeWritesOneRecordAsTheDesktopUser) {
    Program& run = Launch({{"MESSAGE", "Die Server werden heute um 18:00 neu gestartet. "
                                       "Bitte speichern Sie Ihre Arbeit. — Перезагрузка, Ελληνικά"},
                           {"CAPTION", "Wartung · Grüße"},
                           {"TIMEOUT", "60"},
                           {"FLAGS", "5"},
                           {"MESSAGE_ID", "4242"},
                           {"WINDOW_ORDER", "2"},
                           {"FULLSCREEN", "1"},
                           {"FULLSCREEN_TIMEOUT", "2"}});
    const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
    ASSERT_NE(window, 0u);
    // Root is gone for good before anything is drawn; the daemon's other
    // descriptors were closed, the channel kept.
    EXPECT_EQ(Ids(run.pid), kNobodyIds);
    const std::string fds = "/proc/" + std::to_string(run.pid) + "/fd/";
    EXPECT_TRUE(std::filesystem::exists(fds + "60"));
    for (const char* stray : {"50", "51", "61"}) {
        EXPECT_FALSE(std::filesystem::exists(fds + stray)) << stray;
    }
    const Geometry full = s_desktop->GeometryOf(window);
    EXPECT_EQ(std::make_tuple(full.x, full.y, full.width, full.height),
              std::make_tuple(0, 0, kScreenWidth, kScreenHeight));
    Shot(window, true, "fullscreen.ppm");
    const notifymsg::Rect slot = notifymsg::NormalWindowRect(kScreenWidth, kScreenHeight, 2);
    Geometry place;
    ASSERT_TRUE(WaitUntil(
        [&] {
            place = s_desktop->GeometryOf(window);
            return std::make_tuple(place.x, place.y, place.width, place.height) ==
                   std::make_tuple(slot.x, slot.y, slot.width, slot.height);
        },
        6000));
    const Screenshot shot = Shot(window, false, "acknowledge.ppm");
    EXPECT_GT(shot.CountIn({0, 0, place.width, Button(window, false).y}, IsInk), 500u)
        << "no text drawn";
    EXPECT_EQ(Read(run, 300), "(timed out)") << "nothing is sent before the click";

    Click(window);
    EXPECT_EQ(Read(run), notifymsg::BuildAcknowledgement(4242, 1, "nobody"));
    EXPECT_EQ(ExitStatus(run), 0);
    EXPECT_EQ(Read(run), "(ended)") << "exactly one record";
}

// Whatever the network sends, the window comes up (and goes after its time).
TEST_F(DisplayTest, HostileEntriesStillShowAndTimeOutWithoutAcknowledging) {
    const std::string longWord(120000, 'W'); // under the kernel's 128 KiB per entry
    mkfifo("/run/nd-display/logo.fifo", 0666);
    Program& run = Launch(
        {{"MESSAGE", "bad \xff\xfe bytes, overlong \xc0\xaf, surrogate \xed\xa0\x80, cut \xe2\x82"
                     "\x01\x07\x1b[31m control\tand\r\nlines " +
                         longWord},
         {"CAPTION", "\xc3(\x80 caption" + longWord},
         {"MESSAGE_ID", "-7"},
         {"TIMEOUT", "3"},
         {"WINDOW_ORDER", "-3"},
         {"FULLSCREEN_TIMEOUT", "99999999999999999999"},
         {"LARGE_LOGO_PATH", "/run/nd-display/logo.fifo"}});
    const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
    ASSERT_NE(window, 0u);
    Shot(window, false, "hostile.ppm");
    EXPECT_EQ(ExitStatus(run), 0);
    EXPECT_EQ(Read(run), "(ended)");
}

// Without a desktop user to become, root must not draw network text.
TEST_F(DisplayTest, RefusesToRunAsRootWithoutADesktopUser) {
    const std::string rootOwned = "/run/nd-display/xauth/root-owned";
    WriteFile(rootOwned, ReadFile(kAuthorityPath));
    unlink("/run/nd-display/xauth/link");
    ASSERT_EQ(symlink(kAuthorityPath, "/run/nd-display/xauth/link"), 0);
    const std::pair<const char*, std::string> cases[] = {
        {"unset", ""},
        {"owned by root", rootOwned},
        {"a directory", "/run/nd-display/xauth"},
        {"a link to the desktop user's file", "/run/nd-display/xauth/link"},
        {"missing", "/run/nd-display/xauth/none"},
    };
    for (const auto& [name, xauthority] : cases) {
        SCOPED_TRACE(name);
        Program& run = Launch(
            {{"MESSAGE", "must not be drawn"}, {"MESSAGE_ID", "9"}, {"XAUTHORITY", xauthority}});
        EXPECT_EQ(ExitStatus(run), 2);
        EXPECT_TRUE(s_desktop->WindowsOf(run.pid).empty());
        EXPECT_EQ(Read(run), "(ended)");
    }
}

// The shipped daemon starts the display program on the X server it finds by
// "-auth"; the click reaches the gateway as "CMD=MESSAGEACK".
TEST_F(DisplayTest, DaemonShowsAGatewayNotificationAndReportsTheClick) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the detached daemon comes back to us
    ASSERT_TRUE(ExitedWith(WaitForExit(Spawn(ND_STUB_PATH, {"stub", "--login", kDesktopUser})), 0));
    Install(ND_DAEMON_PATH, kInstalledDaemon);
    Install(ND_NOTIFYMESSAGE_PATH, kDisplayPath);
    devgw::DevGateway gateway;
    ASSERT_GT(gateway.Start(0), 0);
    WriteSettings(gateway.Port(), "XVFB-KEY", "department=Display\n");
    pid_t daemon = StartDaemon();
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", 30000)); // 10 s after connecting

    ASSERT_TRUE(gateway.SendNotification(4711, "Hello from the gateway. Grüße — Привет",
                                         "120|Maintenance", "5"));
    const WindowId window = s_desktop->WaitForWindow(0, kWindowMs);
    ASSERT_NE(window, 0u);
    const pid_t display = s_desktop->PidOf(window);
    EXPECT_EQ(Ids(display), kNobodyIds);
    Shot(window, false, "daemon-notification.ppm");
    devgw::Request receipt;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGERECEIVED", 5000, &receipt));
    EXPECT_EQ(receipt.Field("ID"), "4711");
    EXPECT_TRUE(gateway.RequestsFor("MESSAGEACK").empty()) << "nothing before the click";

    Click(window);
    devgw::Request ack;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGEACK", 10000, &ack));
    EXPECT_EQ(ack.body, "CMD=MESSAGEACK\nID=4711\nUF=1\nUN=nobody\n");
    EXPECT_TRUE(s_desktop->WindowsOf(display).empty());
    StopDaemon(daemon);
}

} // namespace
} // namespace display_e2e

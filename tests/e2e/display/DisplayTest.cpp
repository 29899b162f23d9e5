// The display program on a real display server inside the sandbox, started
// as the daemon starts it (as root, the server's environment and the nine
// entries, the acknowledgement channel at fd 60, stray daemon fds at 50, 51
// and 61). ND_DESKTOP picks the server: "xvfb" (X as display managers start
// it), "lightdm" (the same with LightDM's root-owned authority file and a
// login record), "mutter" (GNOME's compositor; the program through its
// Xwayland) or "sway" (native Wayland). Screenshots land in artefacts/.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <deque>
#include <filesystem>
#include <regex>
#include <set>

#include "Acknowledgement.h"
#include "Desktop.h"
#include "DevGateway.h"
#include "E2E.h"

namespace display_e2e {
namespace {

using namespace e2e;
using desktop::Box;
using desktop::Image;

constexpr const char* kUser = "nobody";
constexpr const char* kNobodyIds = "65534\t65534\t65534\t65534|65534\t65534\t65534\t65534|65534 ";
constexpr const char* kLightDmAuthority = "/var/run/lightdm/root/:0";
const Box kScreen = {0, 0, 1280, 800};

std::string Server() {
    const char* kind = getenv("ND_DESKTOP");
    return kind != nullptr ? kind : "xvfb";
}

// The record the program sends for a click (built byte for byte as its unit
// tests pin it): acknowledged, by the desktop user.
std::string Record(int32_t id) {
    return notifymsg::BuildAcknowledgement(id, 1, kUser);
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
    std::string stderrPath;
};

class DisplayTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_session = new desktop::Session(ND_DESKTOP_TOOLS, ND_ARTEFACT_DIR "/" + Server());
        std::vector<std::string> more = {"--private-tmp", "--keep", ND_ARTEFACT_DIR, "--size",
                                         std::to_string(kScreen.width) + "x" +
                                             std::to_string(kScreen.height)};
        if (Server() == "lightdm") {
            more.insert(more.end(), {"--auth", kLightDmAuthority, "--auth-owner", "root"});
        }
        s_error = s_session->Start(Server() == "lightdm" ? "xvfb" : Server(), kUser, more);
        if (s_error.empty() && Server() == "lightdm") {
            // LightDM's login record for the user at ":0".
            s_error = ExitedWith(WaitForExit(Spawn(ND_STUB_PATH, {"stub", "--login", kUser})), 0)
                          ? ""
                          : "no login record";
        }
    }
    static void TearDownTestSuite() { delete s_session; }
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

    // What the daemon gives the program on this server, then `entries` (an
    // empty "XAUTHORITY" removes that entry).
    Program& Launch(std::map<std::string, std::string> entries) {
        if (Server() == "sway") {
            entries.insert(
                {{"WAYLAND_DISPLAY", s_session->Env("WAYLAND_DISPLAY")},
                 {"XDG_RUNTIME_DIR", s_session->Env("XDG_RUNTIME_DIR")},
                 {"DBUS_SESSION_BUS_ADDRESS", s_session->Env("DBUS_SESSION_BUS_ADDRESS")}});
        } else {
            entries.insert({{"DISPLAY", Server() == "mutter" ? s_session->Env("DISPLAY") : ":0.0"},
                            {"XAUTHORITY", Server() == "mutter" ? s_session->Env("XAUTHORITY")
                                                                : s_session->Env("ND_SERVER_AUTH")},
                            {"XAUTHLOCALHOSTNAME", "localhost"}});
        }
        std::vector<std::string> env = {"PATH=/usr/bin:/bin"};
        for (const auto& [name, value] : entries) {
            if (!(name == "XAUTHORITY" && value.empty())) {
                env.push_back(name + "=" + value);
            }
        }
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        const int stray = open("/dev/null", O_RDONLY | O_CLOEXEC);
        static int s_launched = 0;
        const std::string errors =
            s_session->State() + "/stderr-" + std::to_string(++s_launched) + ".txt";
        const int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        m_runs.push_back({Spawn(ND_NOTIFYMESSAGE_PATH, {ND_NOTIFYMESSAGE_PATH}, env,
                                {{60, pair[1]}, {50, stray}, {51, stray}, {61, stray}, {2, err}}),
                          pair[0], errors});
        close(pair[1]);
        close(stray);
        close(err);
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

    // Its exit code (128 + signal when killed), -1 if it did not end in time.
    static int ExitStatus(Program& run, int seconds = 5) {
        const int status = WaitForExit(run.pid, seconds);
        run.pid = -1;
        return status == -1 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Clicks the middle of the "Acknowledge" button, found as a screen
    // reader finds it (its place in the window), as a user would.
    static void ClickAcknowledge(pid_t pid, const Box& window) {
        const desktop::Output place = s_session->ScreenReader(pid, {"place", "Acknowledge"});
        Box button;
        std::istringstream(place.text) >> button.x >> button.y >> button.width >> button.height;
        ASSERT_GT(button.width, 0) << "no Acknowledge button: " << place.text;
        ASSERT_TRUE(s_session->Click(window.x + button.x + button.width / 2,
                                     window.y + button.y + button.height / 2));
    }

    static desktop::Session* s_session;
    static std::string s_error;
    std::deque<Program> m_runs;
};

desktop::Session* DisplayTest::s_session = nullptr;
std::string DisplayTest::s_error;

// Forty lines do not fit: the window stops growing, the last line (a row of
// full blocks, a dark bar when drawn) is reached with the wheel.
TEST_F(DisplayTest, LongMessageScrollsToItsLastLineAndOneClickAcknowledges) {
    std::string message;
    for (int line = 1; line < 40; ++line) {
        message += "Line " + std::to_string(line) + " of 40: please save your work.\n";
    }
    message += "\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588";
    Program& run = Launch({{"MESSAGE", message},
                           {"CAPTION", "Wartung"},
                           {"TIMEOUT", "120"},
                           {"MESSAGE_ID", "4001"},
                           {"WINDOW_ORDER", "0"}});
    const Box window = s_session->WindowOf(run.pid);
    ASSERT_GT(window.width, 0) << "no window on " << Server();
    EXPECT_EQ(Ids(run.pid), kNobodyIds) << "draws as the desktop user only";
    EXPECT_TRUE(window.Inside(kScreen)) << window.Text();
    // On sway too: a tiled window would fill the screen.
    EXPECT_LE(window.height, kScreen.height * 3 / 4) << "grows to about two thirds, then scrolls";
    const Image top = s_session->Capture(window, "long-top.png");
    ASSERT_EQ(top.width, window.width);
    EXPECT_FALSE(top.HasDarkBlock(60, 8)) << "the last line shows before scrolling";

    ASSERT_TRUE(s_session->Scroll(window.x + window.width / 2, window.y + window.height / 3, 40));
    EXPECT_TRUE(WaitUntil([&] {
        return s_session->Capture(window, "long-end.png").HasDarkBlock(60, 8);
    })) << "the last line is not drawn after scrolling (see long-end.png)";
    EXPECT_EQ(Read(run, 200), "(timed out)") << "nothing is sent before the click";

    ClickAcknowledge(run.pid, window);
    EXPECT_EQ(Read(run), Record(4001));
    EXPECT_EQ(ExitStatus(run), 0);
    EXPECT_EQ(Read(run), "(ended)") << "exactly one record";
}

// The window's accessible name is the caption, the words are readable and
// the button's action acknowledges, once.
TEST_F(DisplayTest, ScreenReaderReadsTheMessageAndPressesAcknowledge) {
    const std::string caption = "Wartung \u00b7 Gr\u00fc\u00dfe";
    Program& run =
        Launch({{"MESSAGE", "Die Server werden um 18:00 neu gestartet.\n"
                            "\u041f\u0435\u0440\u0435\u0437\u0430\u0433\u0440\u0443\u0437"
                            "\u043a\u0430 \u2014 \u05e9\u05dc\u05d5\u05dd"},
                {"CAPTION", caption},
                {"TIMEOUT", "120"},
                {"MESSAGE_ID", "4002"},
                {"WINDOW_ORDER", "1"}});
    const Box window = s_session->WindowOf(run.pid);
    ASSERT_GT(window.width, 0);
    s_session->Capture(window, "screen-reader.png");
    EXPECT_EQ(s_session->ScreenReader(run.pid, {"name"}).text, caption + "\n");
    const std::string text = s_session->ScreenReader(run.pid, {"text"}).text;
    EXPECT_NE(text.find("Die Server werden um 18:00 neu gestartet."), std::string::npos) << text;
    EXPECT_NE(text.find("\u05e9\u05dc\u05d5\u05dd"), std::string::npos) << text;
    ASSERT_TRUE(ExitedWith(s_session->ScreenReader(run.pid, {"press", "Acknowledge"}).status, 0));
    EXPECT_EQ(Read(run), Record(4002));
    EXPECT_EQ(ExitStatus(run), 0);
    EXPECT_EQ(Read(run), "(ended)");
}

// Keys act only once the window has the keyboard: focus starts on the text,
// Tab reaches the button, Enter or Space press it (once); Escape never does.
// GDK_SCALE=2 doubles a window.
TEST_F(DisplayTest, KeyboardAcknowledgesOnlyThroughTheFocusedButton) {
    if (Server() != "xvfb") {
        GTEST_SKIP() << "keys are sent with xdotool on Xvfb";
    }
    Program& enter = Launch({{"MESSAGE", "Enter"}, {"MESSAGE_ID", "41"}, {"WINDOW_ORDER", "4"}});
    // The second at twice the size, as on a high-resolution screen.
    Program& space = Launch(
        {{"MESSAGE", "Space"}, {"MESSAGE_ID", "42"}, {"WINDOW_ORDER", "5"}, {"GDK_SCALE", "2"}});
    const Box plain = s_session->WindowOf(enter.pid);
    const Box scaled = s_session->WindowOf(space.pid);
    ASSERT_GT(plain.width, 0);
    EXPECT_EQ(scaled.width, 2 * plain.width) << scaled.Text() << " beside " << plain.Text();
    EXPECT_EQ(scaled.height, 2 * plain.height) << scaled.Text() << " beside " << plain.Text();
    // Typed, as a user types (XTEST), to whichever window has the keyboard.
    const auto keys = [](const Program* focused, std::vector<std::string> names) {
        if (focused != nullptr &&
            !s_session->XdoTool({"search", "--onlyvisible", "--pid", std::to_string(focused->pid),
                                 "--name", ".", "windowfocus", "--sync"})) {
            return false;
        }
        std::vector<std::string> args = {"mousemove", "0",   "799", // off both windows
                                         "sleep",     "0.2", "key", "--delay", "100"};
        args.insert(args.end(), names.begin(), names.end());
        return s_session->XdoTool(args);
    };
    ASSERT_TRUE(keys(nullptr, {"Escape", "Return", "space", "Tab", "Return"}));
    ASSERT_TRUE(keys(&enter, {"Escape", "Return", "space"}));
    ASSERT_TRUE(keys(&enter, {"Tab", "Escape"}));
    EXPECT_EQ(Read(enter, 500), "(timed out)") << "a key acknowledged without the button";
    EXPECT_EQ(Read(space, 10), "(timed out)");
    ASSERT_TRUE(keys(&enter, {"Return", "Return"}));
    ASSERT_TRUE(keys(&space, {"Tab", "space"}));
    for (auto [run, id] : {std::pair(&enter, 41), std::pair(&space, 42)}) {
        EXPECT_EQ(Read(*run), Record(id));
        EXPECT_EQ(ExitStatus(*run), 0);
        EXPECT_EQ(Read(*run), "(ended)") << "exactly one record";
    }
}

// Root is gone before anything is drawn, only fds 0-2 and 60 are kept; the
// full-screen window covers the screen, then shrinks to its slot, beside and
// not over the window of the slot before it.
TEST_F(DisplayTest, FullScreenShrinksToItsSlotBesideAnotherAsTheDesktopUser) {
    Program& normal = Launch({{"MESSAGE", "first"}, {"MESSAGE_ID", "11"}, {"WINDOW_ORDER", "2"}});
    Program& full = Launch({{"MESSAGE", "Bitte speichern Sie Ihre Arbeit."},
                            {"CAPTION", "Wartung"},
                            {"MESSAGE_ID", "12"},
                            {"WINDOW_ORDER", "3"},
                            {"FULLSCREEN", "1"},
                            {"FULLSCREEN_TIMEOUT", "2"}});
    const Box first = s_session->WindowOf(normal.pid);
    Box box = s_session->WindowOf(full.pid);
    EXPECT_EQ(box.Text(), kScreen.Text());
    s_session->Capture(box, "fullscreen.png");
    for (const Program* run : {&normal, &full}) {
        EXPECT_EQ(Ids(run->pid), kNobodyIds);
        const std::string fds = "/proc/" + std::to_string(run->pid) + "/fd/";
        EXPECT_TRUE(std::filesystem::exists(fds + "60"));
        for (const char* stray : {"50", "51", "61"}) {
            EXPECT_FALSE(std::filesystem::exists(fds + stray)) << stray;
        }
    }
    EXPECT_TRUE(WaitUntil(
        [&] { return (box = s_session->WindowOf(full.pid)).width < kScreen.width; }, 6000))
        << "still " << box.Text();
    s_session->Capture(box, "shrunk.png");
    EXPECT_TRUE(box.Inside(kScreen)) << box.Text();
    EXPECT_TRUE(first.Inside(kScreen)) << first.Text();
    EXPECT_FALSE(box.Overlaps(first)) << box.Text() << " over " << first.Text();
}

// A logo that cannot be read: the notification still shows, without it, one
// line on standard error, and the time-out closes it without a record. What
// the loader refuses (sizes, formats, devices) its unit tests pin; here, what
// only the running program shows: a file that only root could read is read
// as the user.
TEST_F(DisplayTest, UnreadableLogosLeaveTheNotificationWithoutALogo) {
    const std::string dir = s_session->State() + "/logos";
    std::filesystem::create_directories(dir);
    mkfifo((dir + "/fifo.png").c_str(), 0644);
    // A good logo only root may read: shown, it would say root read it.
    GdkPixbuf* pixel = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 1, 1);
    gdk_pixbuf_fill(pixel, 0);
    ASSERT_TRUE(gdk_pixbuf_save(pixel, (dir + "/secret.png").c_str(), "png", nullptr, nullptr));
    g_object_unref(pixel);
    chmod((dir + "/secret.png").c_str(), 0600);
    std::filesystem::remove(dir + "/link.png");
    std::filesystem::create_symlink(dir + "/secret.png", dir + "/link.png");
    const std::vector<std::pair<std::string, std::string>> logos = {
        {"missing", dir + "/none.png"},
        {"FIFO", dir + "/fifo.png"},
        {"link to an unreadable file", dir + "/link.png"},
    };
    const auto start = Clock::now();
    for (size_t i = 0; i < logos.size(); ++i) {
        Launch({{"MESSAGE", "logo: " + logos[i].first},
                {"MESSAGE_ID", std::to_string(100 + i)},
                {"TIMEOUT", "6"},
                {"WINDOW_ORDER", std::to_string(i)},
                {"LARGE_LOGO_PATH", logos[i].second}});
    }
    for (size_t i = 0; i < logos.size(); ++i) {
        const Box window = s_session->WindowOf(m_runs[i].pid, 10);
        EXPECT_GT(window.width, 0) << "no window with the logo " << logos[i].first;
        s_session->Capture(window, "logo-" + std::to_string(i) + ".png");
    }
    for (size_t i = 0; i < logos.size(); ++i) {
        SCOPED_TRACE(logos[i].first);
        Program& run = m_runs[i];
        EXPECT_EQ(ExitStatus(run, 20), 0);
        EXPECT_EQ(Read(run), "(ended)") << "a time-out is no acknowledgement";
        // Its own words, once, and no library's.
        const std::string errors = ReadFile(run.stderrPath);
        EXPECT_TRUE(std::regex_match(errors, std::regex("notifymessage: logo [^\n]*\n"))) << errors;
    }
    EXPECT_LT(MsSince(start), 20000) << "every logo is given up in bounded time";
}

// Without a desktop user to become, root must not draw network text.
TEST_F(DisplayTest, RefusesToRunAsRootWithoutADesktopUser) {
    const std::pair<const char*, std::string> cases[] = {
        {"unset", ""},
        {"a directory", "/run"},
        {"missing", "/run/none"},
    };
    for (const auto& [name, xauthority] : cases) {
        SCOPED_TRACE(name);
        Program& run = Launch(
            {{"MESSAGE", "must not be drawn"}, {"MESSAGE_ID", "9"}, {"XAUTHORITY", xauthority}});
        EXPECT_EQ(ExitStatus(run), 2);
        EXPECT_EQ(Read(run), "(ended)");
    }
}

// LightDM: the authority file is root's; the program finds the user logged
// in at ":0", hands that display's cookie to the user in a file of the
// user's own (gone at exit) and draws as the user.
TEST_F(DisplayTest, LightDmRootAuthorityShowsTheWindowAsTheLoggedInUser) {
    // Only the program's own files: the user's session services (the
    // accessibility bus among them) may add theirs at any time.
    const auto files = [] {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("/run/user/65534")) {
            const std::string name = entry.path().filename();
            if (name.rfind(".notifymessage-", 0) == 0) {
                names.insert(name);
            }
        }
        return names;
    };
    const std::set<std::string> before = files();
    Program& run = Launch({{"MESSAGE", "LightDM"}, {"MESSAGE_ID", "21"}, {"TIMEOUT", "3"}});
    const Box window = s_session->WindowOf(run.pid);
    ASSERT_GT(window.width, 0);
    s_session->Capture(window, "lightdm.png");
    EXPECT_EQ(Ids(run.pid), kNobodyIds);
    EXPECT_EQ(ExitStatus(run, 10), 0);
    EXPECT_EQ(Read(run), "(ended)");
    EXPECT_EQ(files(), before) << "the handed-over cookie stays behind";
}

// The shipped daemon starts the display program on the X server it finds by
// "-auth"; the click reaches the gateway as "CMD=MESSAGEACK".
TEST_F(DisplayTest, DaemonShowsAGatewayNotificationAndReportsTheClick) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the detached daemon comes back to us
    Install(ND_DAEMON_PATH, kInstalledDaemon);
    Install(ND_NOTIFYMESSAGE_PATH, kDisplayPath);
    devgw::DevGateway gateway;
    ASSERT_GT(gateway.Start(0), 0);
    WriteSettings(gateway.Port(), "XVFB-KEY", "department=Display\n");
    pid_t daemon = StartDaemon();
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", 30000)); // 10 s after connecting

    ASSERT_TRUE(gateway.SendNotification(4711, "Hello from the gateway. Gr\u00fc\u00dfe",
                                         "120|Maintenance", "5"));
    pid_t display = -1;
    ASSERT_TRUE(WaitUntil(
        [&] {
            for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
                const std::string exe = entry.path().string() + "/exe";
                std::error_code error;
                if (std::filesystem::read_symlink(exe, error).string() == kDisplayPath) {
                    display = atoi(entry.path().filename().c_str());
                }
            }
            return display > 0;
        },
        15000));
    const Box window = s_session->WindowOf(display);
    ASSERT_GT(window.width, 0);
    EXPECT_EQ(Ids(display), kNobodyIds);
    s_session->Capture(window, "daemon-notification.png");
    devgw::Request receipt;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGERECEIVED", 5000, &receipt));
    EXPECT_EQ(receipt.Field("ID"), "4711");
    EXPECT_TRUE(gateway.RequestsFor("MESSAGEACK").empty()) << "nothing before the click";

    ClickAcknowledge(display, window);
    devgw::Request ack;
    ASSERT_TRUE(gateway.WaitForRequest("MESSAGEACK", 10000, &ack));
    EXPECT_EQ(ack.body, "CMD=MESSAGEACK\nID=4711\nUF=1\nUN=nobody\n");
    StopDaemon(daemon);
}

} // namespace
} // namespace display_e2e

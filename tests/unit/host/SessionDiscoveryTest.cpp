// Session discovery's pure parts: which session is chosen, what is taken from
// a process's environment, which of the user's values are believed, and the
// display program's environment built from them.
#include "host/SessionChoice.h"
#include "host/SessionEnvironment.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "HostTesting.h"

namespace {

using vel::SessionRecord;

TEST(ChooseTargetSession, Seat0ActiveGraphicalElseNewestActiveGraphical) {
    // id, seat, type, class, state, remote, uid, started
    const SessionRecord gnome{"2", "seat0", "wayland", "user", "active", false, 1000, 200};
    const SessionRecord greeter{"c1", "seat0", "x11", "greeter", "active", false, 101, 300};
    const SessionRecord tty{"5", "seat0", "tty", "user", "active", false, 1000, 400};
    const SessionRecord xrdp{"7", "", "x11", "user", "active", true, 1001, 350};
    const SessionRecord older{"3", "", "x11", "user", "active", true, 1002, 100};
    const SessionRecord away{"4", "seat0", "x11", "user", "online", false, 1003, 900};
    const SessionRecord ssh{"9", "", "unspecified", "user", "active", true, 1004, 999};
    const struct {
        std::vector<SessionRecord> sessions;
        std::string seat0Active;
        std::string chosen; // "" none
    } cases[] = {
        {{xrdp, gnome}, "2", "2"},             // seat0 wins over a newer remote one
        {{gnome, tty, xrdp, older}, "5", "7"}, // seat0 on a text console: newest graphical
        {{greeter, older, xrdp}, "c1", "7"},   // a greeter is never chosen
        {{older, xrdp}, "", "7"},              // no seat at all (XRDP-only machine)
        {{away, ssh, tty}, "5", ""},           // background, ssh and tty sessions: nobody
        {{}, "", ""},                          //
        {{older, {xrdp.id, "", "x11", "user", "active", true, 1001, 100}}, "", "3"}, // tie: first
    };
    for (const auto& c : cases) {
        const int index = vel::ChooseTargetSession(c.sessions, c.seat0Active);
        EXPECT_EQ(index < 0 ? "" : c.sessions[size_t(index)].id, c.chosen) << c.seat0Active;
    }
}

TEST(ParseEnviron, FirstOccurrenceOfWantedNamesBoundedAndTerminated) {
    const std::string huge(vel::kEnvironValueLimit + 1, 'x');
    const std::string edge(vel::kEnvironValueLimit, 'y');
    const struct {
        std::string block;
        std::string display, wayland, authority;
        std::vector<std::string> tooLong;
    } cases[] = {
        {std::string("PATH=/bin\0DISPLAY=:1\0WAYLAND_DISPLAY=wayland-0\0", 47),
         ":1",
         "wayland-0",
         "",
         {}},
        {std::string("DISPLAY=:1\0DISPLAY=:9\0", 22), ":1", "", "", {}},    // getenv's pick
        {std::string("DISPLAY\0XAUTHORITY=/a\0", 22), "", "", "/a", {}},    // no '='
        {std::string("DISPLAY=:2", 10), "", "", "", {}},                    // unterminated
        {std::string("XDISPLAY=:3\0DISPLAY==:4\0", 24), "=:4", "", "", {}}, // names exactly
        {"DISPLAY=" + huge + std::string("\0DISPLAY=:5\0", 12), "", "", "", {"DISPLAY"}},
        {"XAUTHORITY=" + edge + std::string("\0", 1), "", "", edge, {}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> tooLong;
        auto found = vel::ParseEnviron(c.block, tooLong);
        EXPECT_EQ(found[vel::kVarDisplay], c.display);
        EXPECT_EQ(found[vel::kVarWaylandDisplay], c.wayland);
        EXPECT_EQ(found[vel::kVarAuthority], c.authority);
        EXPECT_EQ(found.count("PATH"), 0u);
        EXPECT_EQ(tooLong, c.tooLong);
    }
}

// A scratch machine: the user's runtime folder with its Wayland socket and
// cookie, an X socket, a display manager's folder. As root the user is a
// stranger's uid; otherwise the test's own.
class VerifyEnvironment : public ::testing::Test {
protected:
    static constexpr uid_t kStranger = 4242;

    void SetUp() override {
        m_root = m_dir.Path();
        m_uid = geteuid() == 0 ? kStranger : geteuid();
        m_paths.runtimeRoot = m_root + "/run/user/";
        m_paths.x11SocketDir = m_root + "/x11/";
        m_paths.displayManagerDirs = {m_root + "/lightdm/"};
        m_runtime = m_paths.runtimeRoot + std::to_string(m_uid);
        for (const std::string& dir :
             {m_root + "/run", m_root + "/run/user", m_runtime, m_root + "/x11",
              m_root + "/lightdm", m_root + "/elsewhere"}) {
            mkdir(dir.c_str(), 0700);
        }
        Socket(m_runtime + "/wayland-0");
        Socket(m_root + "/x11/X1");
        hosttest::WriteFile(m_runtime + "/xauth", "cookie");
        hosttest::WriteFile(m_runtime + "/notsock", "");
        hosttest::WriteFile(m_runtime + "/big", std::string(vel::kAuthorityFileLimit + 1, 'c'));
        hosttest::WriteFile(m_root + "/lightdm/root-0", "cookie");
        symlink((m_runtime + "/xauth").c_str(), (m_runtime + "/link").c_str());
        symlink(m_runtime.c_str(), (m_paths.runtimeRoot + "linked").c_str());
        for (const std::string& path :
             {m_runtime, m_runtime + "/wayland-0", m_runtime + "/xauth", m_runtime + "/notsock",
              m_runtime + "/big", m_root + "/elsewhere"}) {
            lchown(path.c_str(), m_uid, m_uid);
        }
    }

    static void Socket(const std::string& path) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        close(fd);
    }

    std::string Here(std::string text) const {
        for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at)) {
            text.replace(at, 1, m_root);
        }
        const size_t uid = text.find("UID");
        return uid == std::string::npos ? text : text.replace(uid, 3, std::to_string(m_uid));
    }

    hosttest::TempDir m_dir;
    std::string m_root;
    std::string m_runtime;
    uid_t m_uid = 0;
    vel::SessionPaths m_paths;
};

TEST_F(VerifyEnvironment, HostileValuesAreDroppedWithALineNamingThem) {
    const std::string huge(100 * 1024, ';');
    const bool root = geteuid() == 0;
    const struct {
        const char* name;
        std::string value; // "@": the scratch root, "UID": the user's id
        std::string kept;  // "": rejected
    } cases[] = {
        {vel::kVarRuntimeDir, "@/run/user/UID", "@/run/user/UID"},
        {vel::kVarRuntimeDir, "@/run/user/linked", ""}, // a link
        {vel::kVarRuntimeDir, "@/elsewhere", ""},       // the user's, outside /run/user
        {vel::kVarRuntimeDir, "run/user/UID", ""},      // relative
        {vel::kVarWaylandDisplay, "wayland-0", "wayland-0"},
        {vel::kVarWaylandDisplay, "../../root/x", ""},
        {vel::kVarWaylandDisplay, "..", ""},
        {vel::kVarWaylandDisplay, "notsock", ""},   // a file, not a socket
        {vel::kVarWaylandDisplay, "wayland-1", ""}, // no such socket
        {vel::kVarDisplay, ":1", ":1"},
        {vel::kVarDisplay, ":1.0", ":1.0"},
        {vel::kVarDisplay, ":1;touch /tmp/pwned", ""},
        {vel::kVarDisplay, "$(reboot):1", ""},
        {vel::kVarDisplay, "localhost:1", ""},
        {vel::kVarDisplay, ":2", ""}, // no X socket
        {vel::kVarDisplay, ":99999999999999999999", ""},
        {vel::kVarDisplay, "", ""},
        {vel::kVarDisplay, huge, ""},
        {vel::kVarAuthority, "@/run/user/UID/xauth", "@/run/user/UID/xauth"},
        {vel::kVarAuthority, "@/run/user/linked/xauth", "@/run/user/UID/xauth"}, // resolved
        {vel::kVarAuthority, "/etc/shadow", ""}, // root's, not a display manager's
        {vel::kVarAuthority, "@/run/user/UID/link", ""},
        {vel::kVarAuthority, "@/run/user/UID/big", ""},
        {vel::kVarAuthority, "xauth", ""},
        {vel::kVarAuthority, "@/lightdm/root-0", root ? "@/lightdm/root-0" : ""},
        {vel::kVarSessionBus, "unix:path=@/run/user/UID/bus", "unix:path=@/run/user/UID/bus"},
        {vel::kVarSessionBus, "unix:path=/tmp/evil", ""},
        {vel::kVarSessionBus, "unix:abstract=/tmp/dbus-x", ""},
    };
    for (const auto& c : cases) {
        std::map<std::string, std::string> found = {{c.name, Here(c.value)}};
        if (c.name == std::string(vel::kVarWaylandDisplay)) {
            found[vel::kVarRuntimeDir] = m_runtime;
        }
        std::vector<std::string> rejected;
        const vel::SessionEnvironment env =
            vel::VerifySessionEnvironment(found, m_uid, m_paths, rejected);
        const std::map<std::string, std::string> kept = {
            {vel::kVarRuntimeDir, env.runtimeDir},
            {vel::kVarWaylandDisplay, env.waylandDisplay},
            {vel::kVarDisplay, env.display},
            {vel::kVarAuthority, env.authority},
            {vel::kVarSessionBus, env.sessionBus}};
        EXPECT_EQ(kept.at(c.name), Here(c.kept)) << c.name << "=" << c.value.substr(0, 40);
        ASSERT_EQ(rejected.size(), c.kept.empty() ? 1u : 0u)
            << c.name << "=" << c.value.substr(0, 40);
        if (!rejected.empty()) {
            EXPECT_EQ(rejected[0].rfind(c.name, 0), 0u) << rejected[0];
            EXPECT_LT(rejected[0].size(), 200u);
            EXPECT_EQ(rejected[0].find('\n'), std::string::npos);
        }
    }
}

TEST_F(VerifyEnvironment, WaylandNeedsTheUsersOwnRuntimeFolder) {
    std::vector<std::string> rejected;
    const auto env = vel::VerifySessionEnvironment(
        {{vel::kVarWaylandDisplay, "wayland-0"}, {vel::kVarRuntimeDir, m_root + "/elsewhere"}},
        m_uid, m_paths, rejected);
    EXPECT_FALSE(env.HasDisplay());
    EXPECT_EQ(rejected.size(), 2u);
}

TEST(LoggableValue, ShortPrintableAndMarkedWhenCut) {
    EXPECT_EQ(vel::LoggableValue(":0"), ":0");
    EXPECT_EQ(vel::LoggableValue(std::string("a\nb\x1b[2J\xff", 8)), "a?b?[2J?");
    EXPECT_EQ(vel::LoggableValue(std::string(100, 'x')), std::string(64, 'x') + "...");
}

TEST(BuildSessionLaunchEnvironment, InheritedMinusSessionNamesThenSessionEntriesAndUser) {
    std::string inherited[] = {"PATH=/usr/bin",
                               "DISPLAY=:0.0",
                               "XAUTHORITY=/root/.Xauthority",
                               "MESSAGE=stale",
                               "NOTIFY_DESKTOP_USER=root",
                               "LANG=C.UTF-8",
                               "DBUS_SESSION_BUS_ADDRESS=unix:path=/run/dbus",
                               "NOEQUALS"};
    std::vector<char*> pointers;
    for (std::string& entry : inherited) {
        pointers.push_back(&entry[0]);
    }
    pointers.push_back(nullptr);
    vel::SessionEnvironment x11;
    x11.display = ":1";
    x11.authority = "/run/user/1000/gdm/Xauthority";
    x11.runtimeDir = "/run/user/1000";
    x11.sessionBus = "unix:path=/run/user/1000/bus";
    const std::vector<std::string> entries = {"MESSAGE=hello", "CAPTION=Notice"};
    EXPECT_EQ(
        vel::BuildSessionLaunchEnvironment(pointers.data(), x11, entries, "alice"),
        (std::vector<std::string>{"PATH=/usr/bin", "LANG=C.UTF-8", "DISPLAY=:1",
                                  "XAUTHORITY=/run/user/1000/gdm/Xauthority",
                                  "XAUTHLOCALHOSTNAME=localhost", "XDG_RUNTIME_DIR=/run/user/1000",
                                  "DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/1000/bus",
                                  "MESSAGE=hello", "CAPTION=Notice", "NOTIFY_DESKTOP_USER=alice"}));
    vel::SessionEnvironment wayland;
    wayland.waylandDisplay = "wayland-1";
    wayland.runtimeDir = "/run/user/1000";
    EXPECT_EQ(
        vel::BuildSessionLaunchEnvironment(nullptr, wayland, entries, "bob"),
        (std::vector<std::string>{"WAYLAND_DISPLAY=wayland-1", "XDG_RUNTIME_DIR=/run/user/1000",
                                  "MESSAGE=hello", "CAPTION=Notice", "NOTIFY_DESKTOP_USER=bob"}));
}

} // namespace

#include "host/CommandText.h"

#include <gtest/gtest.h>
#include <tuple>

namespace {

TEST(PsLineMatches, ReducesTheFirstWordToTheProgramName) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"/usr/sbin/gdm --nodaemon", "gdm", true},
        {"[gdm]", "gdm", true},
        {"[kworker/0:1]", "0:1", true}, // "/" is cut before "[" is
        {"/usr/sbin/gdm-binary -nodaemon", "gdm", false},
        {"gdm-binary", "gdm-binary", true},
        {"/usr/bin/GDM", "gdm", false},
        {"/usr/bin/xdm\t-nodaemon", "xdm", true}, // no space: cut at the tab
        {"/opt/my tool --x", "my tool --x", false},
        {"/opt/my tool --x", "/opt/my tool --x", true}, // the whole line
        {"", "", true},
        {"mdkkdm", "kdm", false},
        {"/usr/bin/X :0 -auth /a/[b]", "X", true},
    };
    for (const auto& [line, name, matches] : cases) {
        EXPECT_EQ(vel::PsLineMatches(line, name), matches) << line << " / " << name;
    }
}

TEST(AuthorityPathFrom, TakesTheWordAfterTheLastAuthOption) {
    const std::tuple<const char*, const char*> cases[] = {
        {"/usr/bin/X :0 -auth /var/run/xauth/A:0-abc -nolisten tcp", "/var/run/xauth/A:0-abc"},
        {"/usr/lib/xorg/Xorg :0 -auth \t /run/a", "/run/a"},
        {"/usr/bin/X :0 -auth /first\n/usr/bin/X :1 -auth /second -br", "/second"},
        {"/usr/bin/X -auth/glued", "/glued"},
        {"/usr/bin/X :0 -auth   ", ""},
        {"/usr/bin/X :0 -nolisten tcp", ""},
        {"", ""},
    };
    for (const auto& [line, path] : cases) {
        EXPECT_EQ(vel::AuthorityPathFrom(line), path) << line;
    }
}

TEST(SessionBusAddressFrom, UsesTheSemicolonPositionAsALength) {
    const std::string line = "DBUS_SESSION_BUS_ADDRESS='unix:path=/tmp/d';\n"
                             "export DBUS_SESSION_BUS_ADDRESS;\n";
    // The ";" sits at 43, so 43 characters are taken from offset 24 on.
    EXPECT_EQ(vel::SessionBusAddressFrom(line), line.substr(24, 43));
    EXPECT_EQ(vel::SessionBusAddressFrom("DBUS_SESSION_BUS_ADDRESS=x"), "=x");
    EXPECT_EQ(vel::SessionBusAddressFrom("DBUS_SESSION_BUS_ADDRESS"), "");
    EXPECT_EQ(vel::SessionBusAddressFrom("short;"), ""); // would be out of range
    EXPECT_EQ(vel::SessionBusAddressFrom(""), "");
}

} // namespace

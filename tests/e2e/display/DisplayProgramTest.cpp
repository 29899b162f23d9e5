// The display program alone under a real X server: what the daemon would see
// on its end of the acknowledgement channel, who the program runs as, and
// what the window looks like (screenshots under the build directory).
#include "DisplayFixture.h"
#include "WindowLayout.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace display_e2e {
namespace {

constexpr const char* kNobodyIds = "65534 65534 65534 65534";

bool IsInk(uint8_t r, uint8_t g, uint8_t b) {
    return r < 0x80 && g < 0x80 && b < 0x80;
}

TEST_F(DisplayTest, AcknowledgeWritesOneRecordAsTheDesktopUser) {
    DisplayRun run =
        Launch({{"MESSAGE", "Die Server werden heute um 18:00 neu gestartet. "
                            "Bitte speichern Sie Ihre Arbeit. — Перезагрузка, Ελληνικά"},
                {"CAPTION", "Wartung · Grüße"},
                {"TIMEOUT", "60"},
                {"FLAGS", "5"},
                {"MESSAGE_ID", "4242"},
                {"WINDOW_ORDER", "0"},
                {"FULLSCREEN", "0"},
                {"FULLSCREEN_TIMEOUT", ""},
                {"LARGE_LOGO_PATH", ""}});
    const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
    ASSERT_NE(window, 0u);

    // Root is gone for good before anything is drawn; the daemon's other
    // descriptors were closed, the channel kept.
    EXPECT_EQ(StatusLine(run.pid, "Uid"), kNobodyIds);
    EXPECT_EQ(StatusLine(run.pid, "Gid"), kNobodyIds);
    EXPECT_EQ(StatusLine(run.pid, "Groups"), "65534");
    const std::vector<int> fds = OpenDescriptors(run.pid);
    EXPECT_NE(std::find(fds.begin(), fds.end(), 60), fds.end());
    for (int stray : {50, 51, 61}) {
        EXPECT_EQ(std::find(fds.begin(), fds.end(), stray), fds.end()) << stray;
    }

    const Geometry place = s_desktop->GeometryOf(window);
    const notifymsg::Rect slot = notifymsg::NormalWindowRect(kScreenWidth, kScreenHeight, 0);
    EXPECT_EQ(place.x, slot.x);
    EXPECT_EQ(place.y, slot.y);
    EXPECT_EQ(place.width, slot.width);
    const Screenshot shot = SaveWhenDrawn(window, false, "acknowledge.png");
    const notifymsg::Rect button = notifymsg::ButtonRect(place.width, place.height, false);
    EXPECT_GT(shot.CountIn({button.x, button.y, button.width, button.height}, IsButtonFace),
              size_t(button.width * button.height / 2));
    EXPECT_GT(shot.CountIn({0, 0, place.width, button.y}, IsInk), 500u) << "no text drawn";
    EXPECT_TRUE(Read(run, 300).timedOut) << "nothing is sent before the click";

    ClickButton(window, false);
    const ChannelRead record = Read(run);
    EXPECT_EQ(record.bytes, std::string("\x92\x10\x00\x00"
                                        "\x01\x00\x00\x00"
                                        "\x06\x00\x00\x00"
                                        "nobody\0",
                                        19));
    EXPECT_EQ(ExitStatus(run), 0);
    EXPECT_TRUE(Read(run).ended) << "exactly one record";
}

// Whatever the network sends, the window comes up and can be acknowledged.
TEST_F(DisplayTest, HostileEnvironmentsStillShowAndAcknowledge) {
    // Just under the kernel's limit for one environment string (128 KiB).
    const std::string longWord(120000, 'W');
    std::string longText;
    for (int i = 0; i < 12000; ++i) {
        longText += "word\xe2\x80\x94 ";
    }
    mkfifo("/run/nd-display/logo.fifo", 0666);
    struct Case {
        const char* name;
        std::map<std::string, std::string> entries;
    };
    const std::vector<Case> cases = {
        {"invalid-utf8",
         {{"MESSAGE", "bad \xff\xfe bytes, overlong \xc0\xaf, surrogate \xed\xa0\x80, cut \xe2\x82"
                      "\x01\x07\x1b[31m control\tand\r\nlines"},
          {"CAPTION", "\xc3(\x80 caption"},
          {"MESSAGE_ID", "-7"},
          {"TIMEOUT", "junk"},
          {"WINDOW_ORDER", "-3"},
          {"FULLSCREEN_TIMEOUT", "99999999999999999999"},
          {"LARGE_LOGO_PATH", "/run/nd-display/logo.fifo"}}},
        {"long-word",
         {{"MESSAGE", longWord},
          {"CAPTION", longWord},
          {"MESSAGE_ID", "2147483647"},
          {"WINDOW_ORDER", "1234567"},
          {"LARGE_LOGO_PATH", "/nonexistent/logo.png"}}},
        {"long-text", {{"MESSAGE", longText}, {"MESSAGE_ID", "-2147483648"}}},
        {"only-id", {{"MESSAGE_ID", " 17 "}}},
    };
    const std::map<std::string, int32_t> ids = {
        {"invalid-utf8", -7}, {"long-word", 2147483647}, {"long-text", INT32_MIN}, {"only-id", 17}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DisplayRun run = Launch(c.entries);
        const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
        ASSERT_NE(window, 0u);
        SaveWhenDrawn(window, false, std::string("hostile-") + c.name + ".png");
        ClickButton(window, false);
        EXPECT_EQ(Read(run).bytes, ExpectedRecord(ids.at(c.name), 1, "nobody"));
        EXPECT_EQ(ExitStatus(run), 0);
    }
    unlink("/run/nd-display/logo.fifo");
}

TEST_F(DisplayTest, TimeoutClosesWithoutAcknowledging) {
    DisplayRun run =
        Launch({{"MESSAGE", "gone in a second"}, {"MESSAGE_ID", "5"}, {"TIMEOUT", "1"}});
    ASSERT_NE(s_desktop->WaitForWindow(run.pid, kWindowMs), 0u);
    EXPECT_EQ(ExitStatus(run, 5000), 0);
    const ChannelRead after = Read(run);
    EXPECT_TRUE(after.ended);
    EXPECT_EQ(after.bytes, "");
}

TEST_F(DisplayTest, StackedWindowsDoNotOverlap) {
    std::vector<DisplayRun> runs;
    for (int order = 0; order < 10; ++order) {
        runs.push_back(Launch({{"MESSAGE", "Stacked notification " + std::to_string(order)},
                               {"CAPTION", "Slot " + std::to_string(order)},
                               {"MESSAGE_ID", std::to_string(100 + order)},
                               {"WINDOW_ORDER", std::to_string(order)},
                               {"TIMEOUT", "60"}}));
    }
    std::vector<Geometry> places;
    for (const DisplayRun& run : runs) {
        const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
        ASSERT_NE(window, 0u);
        places.push_back(s_desktop->GeometryOf(window));
        EXPECT_TRUE(WaitUntilDrawn(window, false));
    }
    s_desktop->Save({0, 0, kScreenWidth, kScreenHeight}, "stacked.png");
    for (size_t i = 0; i < places.size(); ++i) {
        EXPECT_GE(places[i].x, 0);
        EXPECT_GE(places[i].y, 0);
        EXPECT_LE(places[i].x + places[i].width, kScreenWidth);
        EXPECT_LE(places[i].y + places[i].height, kScreenHeight);
        for (size_t j = i + 1; j < places.size(); ++j) {
            EXPECT_FALSE(places[i].Overlaps(places[j])) << "slots " << i << " and " << j;
        }
    }
}

TEST_F(DisplayTest, FullScreenShrinksAfterItsTimeoutAndStillAcknowledges) {
    DisplayRun run = Launch({{"MESSAGE", "Full-screen notice"},
                             {"CAPTION", "Attention"},
                             {"MESSAGE_ID", "31"},
                             {"WINDOW_ORDER", "2"},
                             {"FULLSCREEN", "1"},
                             {"FULLSCREEN_TIMEOUT", "2"}});
    const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
    ASSERT_NE(window, 0u);
    const Geometry full = s_desktop->GeometryOf(window);
    EXPECT_EQ(full.x, 0);
    EXPECT_EQ(full.y, 0);
    EXPECT_EQ(full.width, kScreenWidth);
    EXPECT_EQ(full.height, kScreenHeight);
    const Screenshot shot = SaveWhenDrawn(window, true, "fullscreen.png");
    const notifymsg::Rect button = notifymsg::ButtonRect(full.width, full.height, true);
    EXPECT_GT(shot.CountIn({button.x, button.y, button.width, button.height}, IsButtonFace),
              size_t(button.width * button.height / 2));

    const notifymsg::Rect slot = notifymsg::NormalWindowRect(kScreenWidth, kScreenHeight, 2);
    ASSERT_TRUE(s_desktop->WaitForGeometry(
        window,
        [&](const Geometry& g) {
            return g.x == slot.x && g.y == slot.y && g.width == slot.width &&
                   g.height == slot.height;
        },
        6000));
    SaveWhenDrawn(window, false, "fullscreen-shrunk.png");
    ClickButton(window, false);
    EXPECT_EQ(Read(run).bytes, ExpectedRecord(31, 1, "nobody"));
    EXPECT_EQ(ExitStatus(run), 0);
}

TEST_F(DisplayTest, LogoIsShownScaledIntoItsBox) {
    // 300 x 150 of one colour, readable by the desktop user.
    const std::string path = "/run/nd-display/logo.ppm";
    {
        std::ofstream logo(path, std::ios::binary | std::ios::trunc);
        logo << "P6\n# logo\n300 150\n255\n";
        for (int i = 0; i < 300 * 150; ++i) {
            logo << '\xd0' << '\x10' << '\x10';
        }
    }
    chmod(path.c_str(), 0644);
    DisplayRun run = Launch({{"MESSAGE", "With the company logo"},
                             {"CAPTION", "Logo"},
                             {"MESSAGE_ID", "8"},
                             {"LARGE_LOGO_PATH", path}});
    const WindowId window = s_desktop->WaitForWindow(run.pid, kWindowMs);
    ASSERT_NE(window, 0u);
    const Screenshot shot = SaveWhenDrawn(window, false, "logo.png");
    // Scaled into the 64-pixel box with its aspect: 64 x 32.
    const size_t red = shot.Count(
        [](uint8_t r, uint8_t g, uint8_t b) { return r == 0xd0 && g == 0x10 && b == 0x10; });
    EXPECT_EQ(red, 64u * 32u);
    ClickButton(window, false);
    EXPECT_EQ(Read(run).bytes, ExpectedRecord(8, 1, "nobody"));
    unlink(path.c_str());
}

// Without a desktop user to become, root must not draw network text.
TEST_F(DisplayTest, RefusesToRunAsRootWithoutADesktopUser) {
    const std::string rootOwned = "/run/nd-display/xauth/root-owned";
    {
        std::ifstream in(kAuthorityPath, std::ios::binary);
        std::ofstream out(rootOwned, std::ios::binary | std::ios::trunc);
        out << in.rdbuf();
    }
    chmod(rootOwned.c_str(), 0600);
    unlink("/run/nd-display/xauth/link");
    ASSERT_EQ(symlink(kAuthorityPath, "/run/nd-display/xauth/link"), 0);
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"unset", ""},
        {"owned by root", rootOwned},
        {"a directory", "/run/nd-display/xauth"},
        {"a link to the desktop user's file", "/run/nd-display/xauth/link"},
        {"missing", "/run/nd-display/xauth/none"},
    };
    for (const auto& [name, xauthority] : cases) {
        SCOPED_TRACE(name);
        DisplayRun run = Launch(
            {{"MESSAGE", "must not be drawn"}, {"MESSAGE_ID", "9"}, {"XAUTHORITY", xauthority}});
        EXPECT_EQ(ExitStatus(run), 2);
        EXPECT_TRUE(s_desktop->WindowsOf(run.pid).empty());
        EXPECT_TRUE(Read(run).ended);
    }
    unlink(rootOwned.c_str());
    unlink("/run/nd-display/xauth/link");
}

} // namespace
} // namespace display_e2e

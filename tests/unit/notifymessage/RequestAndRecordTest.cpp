// The display program's input, its acknowledgement record and its window slots.
#include "Acknowledgement.h"
#include "NotificationRequest.h"
#include "WindowLayout.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace notifymsg {
namespace {

std::map<std::string, std::string> gEnvironment;

const char* FakeLookup(const char* name) {
    auto it = gEnvironment.find(name);
    return it != gEnvironment.end() ? it->second.c_str() : nullptr;
}

// The request as one line; long texts by their length.
std::string Describe(const NotificationRequest& r) {
    auto text = [](const std::string& t) { return t.size() > 16 ? std::to_string(t.size()) : t; };
    return text(r.caption) + "|" + text(r.message) + "|" +
           (r.messageId ? std::to_string(*r.messageId) : "none") + "|" +
           std::to_string(r.timeoutSeconds) + "|" + std::to_string(r.windowOrder) + "|" +
           std::to_string(r.fullscreen) + "|" + std::to_string(r.fullscreenSeconds) + "|" +
           text(r.logoPath) + "|" + r.desktopUser;
}

TEST(NotificationRequest, EntriesAreReadBoundedOrFallBackSafely) {
    const std::string longText(kMaxMessageBytes + 9, 'm');
    const std::pair<std::map<std::string, std::string>, std::string> cases[] = {
        {{}, "||none|0|0|0|0||"},
        {{{"MESSAGE", "hello"},
          {"CAPTION", "Notice"},
          {"MESSAGE_ID", " -12 "},
          {"TIMEOUT", "+30"},
          {"WINDOW_ORDER", "13"},
          {"FULLSCREEN", "1"},
          {"FULLSCREEN_TIMEOUT", "99999999"},
          {"LARGE_LOGO_PATH", "/usr/sxa/l.ppm"},
          {"NOTIFY_DESKTOP_USER", "alice"}},
         "Notice|hello|-12|30|3|1|604800|/usr/sxa/l.ppm|alice"},
        {{{"MESSAGE", longText},
          {"CAPTION", longText},
          {"LARGE_LOGO_PATH", longText},
          {"NOTIFY_DESKTOP_USER", longText}},
         "1024|65536|none|0|0|0|0||"},
        {{{"MESSAGE_ID", "2147483648"},
          {"TIMEOUT", "-4"},
          {"WINDOW_ORDER", "-1"},
          {"FULLSCREEN", "yes"},
          {"FULLSCREEN_TIMEOUT", "0x10"}},
         "||none|0|0|0|0||"},
        {{{"MESSAGE_ID", "12abc"}, {"TIMEOUT", "\n5"}, {"FULLSCREEN_TIMEOUT", "- 5"}},
         "||none|0|0|0|0||"},
        {{{"MESSAGE_ID", ""}, {"TIMEOUT", "99999999999999999999"}}, "||none|0|0|0|0||"},
    };
    for (const auto& [entries, expected] : cases) {
        gEnvironment = entries;
        EXPECT_EQ(Describe(ReadNotificationRequest(FakeLookup)), expected);
    }
}

// Pango needs places to break a long word; addresses of ordinary length stay whole.
TEST(NotificationRequest, LongRunsGetBreakOpportunities) {
    const std::string zwsp = "\xe2\x80\x8b";
    const std::string url = "https://example.org/" + std::string(kMaxUnbrokenRun - 20, 'u');
    const std::string a(kMaxUnbrokenRun, 'a');
    const std::string e(kMaxUnbrokenRun, 'e');
    std::string accents;
    for (size_t i = 0; i < kMaxUnbrokenRun; ++i) {
        accents += "\xc3\xa9"; // two bytes, one character
    }
    const std::pair<std::string, std::string> cases[] = {
        {url + " " + url, url + " " + url},
        {a + e + "x", a + zwsp + e + zwsp + "x"},
        {accents + "\xc3\xa9", accents + zwsp + "\xc3\xa9"},
        {a + "\n" + a, a + "\n" + a},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(WithBreakOpportunities(text), expected) << text.size();
    }
}

TEST(Acknowledgement, RecordIsByteExactAndAtLeastSixteenBytes) {
    const struct {
        int32_t id;
        std::string name;
        std::string bytes;
    } cases[] = {
        {4242, "alice", std::string("\x92\x10\0\0\x01\0\0\0\x05\0\0\0alice\0", 18)},
        {-1, "al", std::string("\xff\xff\xff\xff\x01\0\0\0\x02\0\0\0al\0\0", 16)},
        {7, std::string("ab\0cd", 5), std::string("\x07\0\0\0\x01\0\0\0\x02\0\0\0ab\0\0", 16)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BuildAcknowledgement(c.id, 1, c.name), c.bytes) << c.name;
    }
    const std::string record = BuildAcknowledgement(1, 1, std::string(1000, 'n'));
    EXPECT_EQ(record.size(), 12 + kMaxUserNameBytes + 1);
    EXPECT_EQ(record.substr(8, 4), std::string("\xff\0\0\0", 4));
}

// Stacked notifications must not cover each other; slot 0 is at the top right.
TEST(WindowSlots, TenSlotsTileACommonScreenWithoutOverlap) {
    for (const auto& [w, h] : {std::pair{1280, 1024}, std::pair{1920, 1080}}) {
        std::vector<Rect> slots;
        for (int order = 0; order < kWindowSlots; ++order) {
            const Rect r = NormalWindowRect(w, h, order);
            EXPECT_TRUE(r.x >= 0 && r.y >= 0 && r.x + r.width <= w && r.y + r.height <= h)
                << w << "x" << h << " slot " << order << " leaves the screen";
            for (const Rect& other : slots) {
                EXPECT_FALSE(r.x < other.x + other.width && other.x < r.x + r.width &&
                             r.y < other.y + other.height && other.y < r.y + r.height)
                    << w << "x" << h << " slot " << order;
            }
            slots.push_back(r);
        }
        EXPECT_EQ(slots[0].x + slots[0].width, w - kScreenMargin) << "slot 0 at the top right";
        EXPECT_EQ(slots[0].y, kScreenMargin);
    }
}

} // namespace
} // namespace notifymsg

// The display program's input (environment entries) and output (the
// acknowledgement record, byte for byte).
#include "Acknowledgement.h"
#include "NotificationRequest.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace notifymsg {
namespace {

std::map<std::string, std::string> gEnvironment;

const char* FakeLookup(const char* name) {
    auto it = gEnvironment.find(name);
    return it != gEnvironment.end() ? it->second.c_str() : nullptr;
}

NotificationRequest Read(const std::map<std::string, std::string>& entries) {
    gEnvironment = entries;
    return ReadNotificationRequest(FakeLookup);
}

TEST(ParseInteger, AcceptsWholeDecimalNumbersOnly) {
    const std::map<std::string, std::optional<long long>> cases = {
        {"0", 0},
        {"42", 42},
        {" 17 ", 17},
        {"-5", -5},
        {"+8", 8},
        {"", std::nullopt},
        {" ", std::nullopt},
        {"12abc", std::nullopt},
        {"0x10", std::nullopt},
        {"- 5", std::nullopt},
        {"\n5", std::nullopt},
        {"99999999999999999999", std::nullopt}};
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(ParseInteger(text), expected) << '"' << text << '"';
    }
}

TEST(NotificationRequest, MissingEntriesGiveAPlainWindowWithNothingToAcknowledge) {
    const NotificationRequest request = Read({});
    EXPECT_EQ(request.caption, "");
    EXPECT_EQ(request.message, "");
    EXPECT_FALSE(request.messageId);
    EXPECT_EQ(request.timeoutSeconds, 0);
    EXPECT_EQ(request.windowOrder, 0);
    EXPECT_FALSE(request.fullscreen);
    EXPECT_EQ(request.fullscreenSeconds, 0);
    EXPECT_EQ(request.logoPath, "");
}

TEST(NotificationRequest, EntriesAreReadAndBounded) {
    const NotificationRequest request = Read({{"MESSAGE", std::string(kMaxMessageBytes + 9, 'm')},
                                              {"CAPTION", std::string(5000, 'c')},
                                              {"MESSAGE_ID", "-12"},
                                              {"TIMEOUT", "30"},
                                              {"WINDOW_ORDER", "13"},
                                              {"FULLSCREEN", "1"},
                                              {"FULLSCREEN_TIMEOUT", "99999999"},
                                              {"LARGE_LOGO_PATH", "/usr/sxa/logo.ppm"}});
    EXPECT_EQ(request.message.size(), kMaxMessageBytes);
    EXPECT_EQ(request.caption.size(), kMaxCaptionBytes);
    EXPECT_EQ(request.messageId, -12);
    EXPECT_EQ(request.timeoutSeconds, 30);
    EXPECT_EQ(request.windowOrder, 3);
    EXPECT_TRUE(request.fullscreen);
    EXPECT_EQ(request.fullscreenSeconds, kMaxTimeoutSeconds);
    EXPECT_EQ(request.logoPath, "/usr/sxa/logo.ppm");
}

TEST(NotificationRequest, OddValuesFallBackSafely) {
    const NotificationRequest request = Read({{"MESSAGE_ID", "2147483648"},
                                              {"TIMEOUT", "-4"},
                                              {"WINDOW_ORDER", "-1"},
                                              {"FULLSCREEN", "yes"},
                                              {"FULLSCREEN_TIMEOUT", "soon"},
                                              {"LARGE_LOGO_PATH", std::string(5000, 'p')}});
    EXPECT_FALSE(request.messageId);
    EXPECT_EQ(request.timeoutSeconds, 0);
    EXPECT_EQ(request.windowOrder, 0);
    EXPECT_FALSE(request.fullscreen);
    EXPECT_EQ(request.fullscreenSeconds, 0);
    EXPECT_EQ(request.logoPath, "");
}

TEST(Acknowledgement, RecordIsByteExactAndAtLeastSixteenBytes) {
    const struct {
        int32_t id;
        int32_t flags;
        std::string name;
        std::string bytes;
    } cases[] = {
        {4242, 1, "alice", std::string("\x92\x10\0\0\x01\0\0\0\x05\0\0\0alice\0", 18)},
        {-1, 1, "al", std::string("\xff\xff\xff\xff\x01\0\0\0\x02\0\0\0al\0\0", 16)},
        {7, 1, "", std::string("\x07\0\0\0\x01\0\0\0\0\0\0\0\0\0\0\0", 16)},
        {7, 1, std::string("ab\0cd", 5), std::string("\x07\0\0\0\x01\0\0\0\x02\0\0\0ab\0\0", 16)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BuildAcknowledgement(c.id, c.flags, c.name), c.bytes) << c.name;
    }
    const std::string longName(1000, 'n');
    const std::string record = BuildAcknowledgement(1, 1, longName);
    EXPECT_EQ(record.size(), 12 + kMaxUserNameBytes + 1);
    EXPECT_EQ(record.substr(8, 4), std::string("\xff\0\0\0", 4));
    EXPECT_EQ(record.back(), '\0');
}

} // namespace
} // namespace notifymsg

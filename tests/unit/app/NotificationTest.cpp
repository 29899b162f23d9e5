// The application's callback (repeats and the window order are covered end to end).
#include <limits.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "app/Notification.h"
#include "app/corvanenotify.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"

namespace {

// The packet fills its block: AddressSanitizer reports any read past its end.
struct Packet {
    explicit Packet(const std::string& bytes, int id = 3)
        : data(new unsigned char[bytes.size() + 1]) {
        memcpy(data.get(), bytes.data(), bytes.size());
        memset(&cb, 0, sizeof cb);
        cb.message.data = bytes.empty() ? nullptr : data.get();
        cb.message.datalen = int(bytes.size());
        cb.message.messageid = id;
    }
    std::unique_ptr<unsigned char[]> data;
    CTL_CALLBACK cb;
};

// Type 12, 17 header bytes, then the texts with every "~" turned into a NUL.
std::string Notification(std::string texts) {
    std::replace(texts.begin(), texts.end(), '~', '\0');
    return "\x0c" + std::string(17, 'h') + texts;
}

TEST(GetMessageParameters, SplitsTheTextsAndNeverReadsOutsideThePacket) {
    using std::string;
    // Name, packet, message, caption, time-out, flags ("keep": untouched).
    const std::tuple<const char*, string, string, string, string, string> cases[] = {
        {"all three texts", Notification("hello~30|Notice~5~~~"), "hello", "Notice", "30", "5"},
        {"last byte not NUL: message only", Notification("hello~30|Notice~5"), "hello", "keep",
         "keep", "0"},
        {"second text without |: all time-out", Notification("hi~30~~~"), "hi", "", "30", "0"},
        {"caption keeps later bars", Notification("m~1|a|b~3~"), "m", "a|b", "1", "3"},
        {"negative flags", Notification("m~|~-7~"), "m", "", "", "-7"},
        {"flags beyond int are clamped", Notification("m~|~99999999999~"), "m", "", "",
         std::to_string(INT_MAX)},
        {"no NUL anywhere", Notification("abcdef"), "abcdef", "keep", "keep", "0"},
        {"shorter than the header, ends in NUL", string("\x0c\0\0", 3), "", "keep", "keep", "0"},
        {"empty packet", "", "", "keep", "keep", "0"},
    };
    for (const auto& [name, bytes, message, caption, timeout, flags] : cases) {
        SCOPED_TRACE(name);
        Packet packet(bytes, -1);
        string gotMessage, gotCaption = "keep", gotTimeout = "keep", gotFlags, gotId;
        GetMessageParameters(&packet.cb, gotMessage, gotCaption, gotTimeout, gotFlags, gotId);
        EXPECT_EQ(gotMessage + "/" + gotCaption + "/" + gotTimeout + "/" + gotFlags + "/" + gotId,
                  message + "/" + caption + "/" + timeout + "/" + flags + "/-1");
    }
}

struct Callback : ::testing::Test {
    vel::Preferences* prefs = vel::Preferences::getInstance();
    void SetUp() override {
        prefs->preferences.clear();
        prefs->setConfigString("HTTP", "GatewayAddress", "01234567890123456789");
        prefs->setConfigString("agent", "UpdateInterval", "5");
        vel::initialise_install_details("/nonexistent/nd-unit/"); // nothing can be launched
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        gReceivedMessages.clear();
        current_window_num = 0;
    }
    void TearDown() override {
        prefs->preferences.clear();
        vel::initialise_install_details("/usr/sxa/");
    }
};

TEST_F(Callback, ConfigStringIsBoundedAndAlwaysTerminated) {
    // Name, section, key, buffer length, answer.
    const std::tuple<const char*, const char*, const char*, int, std::string> cases[] = {
        {"cut to buflen - 1, section in any case", "http", "GatewayAddress", 8, "0123456"},
        {"exactly one short", "HTTP", "GatewayAddress", 20, "0123456789012345678"},
        {"key compared exactly", "HTTP", "gatewayaddress", 16, ""},
        {"zero length: left alone", "HTTP", "GatewayAddress", 0, "x"},
    };
    for (const auto& [name, section, key, buflen, expected] : cases) {
        SCOPED_TRACE(name);
        std::string buf(size_t(buflen) + 1, 'x'); // one spare byte that must stay 'x'
        Packet packet("");
        packet.cb.configstr.section = section;
        packet.cb.configstr.key = key;
        packet.cb.configstr.buf = buf.data();
        packet.cb.configstr.buflen = buflen;
        EXPECT_EQ(ClientCallback(kCtlConfigString, nullptr, &packet.cb), 0);
        EXPECT_EQ(std::string(buf.c_str()), expected);
        EXPECT_EQ(buf.back(), 'x');
    }
}

TEST_F(Callback, ConfigIntAndWhatIsIgnored) {
    Packet packet("");
    packet.cb.configint.section = "agent";
    packet.cb.configint.key = "UpdateInterval";
    packet.cb.configint.dflt = 60;
    EXPECT_EQ(ClientCallback(kCtlConfigInt, nullptr, &packet.cb), 5);
    packet.cb.configint.key = "Absent";
    EXPECT_EQ(ClientCallback(kCtlConfigInt, nullptr, &packet.cb), 60);
    EXPECT_EQ(ClientCallback(kCtlConfigInt, nullptr, nullptr), 0);

    // Packets that are not notifications never reach the display path.
    for (const auto& [code, id, type] : {std::tuple<int, int, char>{kCtlDataReceived, 5, 11},
                                         {kCtlDataReceived, 6, 0},
                                         {2, 7, 12}}) {
        Packet other(type + std::string(17, '\0') + std::string("hi\0\0", 4), id);
        ClientCallback(code, nullptr, &other.cb);
        EXPECT_FALSE(WasDisplayed(id));
    }
    std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
    EXPECT_EQ(current_window_num, 0);
}

} // namespace

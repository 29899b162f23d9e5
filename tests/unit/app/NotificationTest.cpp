// The application's callback: settings questions, the splitting of
// notification packets, duplicates and the window order.
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

// A packet in a block of exactly its own size, so that any read past its end
// is a heap overflow under AddressSanitizer.
struct Packet {
    explicit Packet(const std::string& bytes) : size(bytes.size()) {
        data.reset(new unsigned char[size > 0 ? size : 1]);
        memcpy(data.get(), bytes.data(), size);
    }
    CTL_CALLBACK Callback(int id) const {
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.message.data = size > 0 ? data.get() : nullptr;
        cb.message.datalen = int(size);
        cb.message.messageid = id;
        return cb;
    }
    std::unique_ptr<unsigned char[]> data;
    size_t size;
};

// The bytes of `text` with every "~" turned into a NUL.
std::string Z(std::string text) {
    std::replace(text.begin(), text.end(), '~', '\0');
    return text;
}

// Type 12, 17 header bytes, then the texts.
std::string Notification(const std::string& texts) {
    return "\x0c" + std::string(17, 'h') + Z(texts);
}

TEST(GetMessageParameters, SplitsTheTextsAndNeverReadsOutsideThePacket) {
    using std::string;
    // Name, packet, id, message, caption, time-out, flags ("keep": untouched).
    const std::tuple<const char*, string, int, string, string, string, string> cases[] = {
        {"all three texts", Notification("hello~30|Notice~5~~~"), 42, "hello", "Notice", "30", "5"},
        {"last byte not NUL: message only", Notification("hello~30|Notice~5"), 7, "hello", "keep",
         "keep", "0"},
        {"second text without |: all time-out", Notification("hi~30~~~"), 1, "hi", "", "30", "0"},
        {"time-out and caption, no flags", Notification("hi~9|Cap~~~"), 1, "hi", "Cap", "9", "0"},
        {"caption keeps later bars", Notification("m~1|a|b~3~"), 1, "m", "a|b", "1", "3"},
        {"negative flags", Notification("m~|~-7~"), 1, "m", "", "", "-7"},
        {"flags beyond int are clamped", Notification("m~|~99999999999~"), 1, "m", "", "",
         std::to_string(INT_MAX)},
        {"message only, with the block's trailer", Notification("hello~~"), -1, "hello", "keep",
         "keep", "0"},
        {"no NUL anywhere", Notification("abcdef"), 3, "abcdef", "keep", "keep", "0"},
        {"no NUL anywhere, header only", Notification(""), 3, "", "keep", "keep", "0"},
        {"shorter than the header, ends in NUL", Z("\x0c~~~"), 3, "", "keep", "keep", "0"},
        {"single byte", "\x0c", 3, "", "keep", "keep", "0"},
        {"empty packet", "", 3, "", "keep", "keep", "0"},
        {"second text not terminated", Notification("m~1|c"), 2, "m", "keep", "keep", "0"},
    };
    for (const auto& [name, bytes, id, message, caption, timeout, flags] : cases) {
        SCOPED_TRACE(name);
        Packet packet(bytes);
        const CTL_CALLBACK cb = packet.Callback(id);
        string gotMessage, gotCaption = "keep", gotTimeout = "keep", gotFlags, gotId;
        GetMessageParameters(&cb, gotMessage, gotCaption, gotTimeout, gotFlags, gotId);
        EXPECT_EQ(gotMessage, message);
        EXPECT_EQ(gotCaption, caption);
        EXPECT_EQ(gotTimeout, timeout);
        EXPECT_EQ(gotFlags, flags);
        EXPECT_EQ(gotId, std::to_string(id));
    }
}

struct Callback : ::testing::Test {
    vel::Preferences* prefs = vel::Preferences::getInstance();
    void SetUp() override {
        prefs->preferences.clear();
        prefs->setConfigString("HTTP", "GatewayAddress", "01234567890123456789");
        prefs->setConfigString("agent", "UpdateInterval", "5");
    }
    void TearDown() override { prefs->preferences.clear(); }

    static int Ask(int code, CTL_CALLBACK& cb) { return ClientCallback(code, nullptr, &cb); }
};

TEST_F(Callback, ConfigStringIsBoundedAndAlwaysTerminated) {
    const std::tuple<const char*, const char*, const char*, int, std::string> cases[] = {
        {"cut to buflen - 1", "HTTP", "GatewayAddress", 8, "0123456"},
        {"section in any case", "http", "GatewayAddress", 8, "0123456"},
        {"fits", "HTTP", "GatewayAddress", 64, "01234567890123456789"},
        {"exactly one short", "HTTP", "GatewayAddress", 20, "0123456789012345678"},
        {"absent key", "HTTP", "GSK", 16, ""},
        {"key compared exactly", "HTTP", "gatewayaddress", 16, ""},
    };
    for (const auto& [name, section, key, buflen, expected] : cases) {
        SCOPED_TRACE(name);
        std::unique_ptr<char[]> buf(new char[size_t(buflen)]);
        memset(buf.get(), 'x', size_t(buflen));
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.configstr.section = section;
        cb.configstr.key = key;
        cb.configstr.buf = buf.get();
        cb.configstr.buflen = buflen;
        EXPECT_EQ(Ask(kCtlConfigString, cb), 0);
        EXPECT_EQ(std::string(buf.get()), expected);
    }
}

TEST_F(Callback, ConfigIntAndCodesThatDoNothing) {
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    cb.configint.section = "agent";
    cb.configint.key = "UpdateInterval";
    cb.configint.dflt = 60;
    EXPECT_EQ(Ask(kCtlConfigInt, cb), 5);
    cb.configint.key = "Absent";
    EXPECT_EQ(Ask(kCtlConfigInt, cb), 60);
    cb.configint.key = "UpdateInterval";
    for (int code : {-1, 0, 2, 3, 4, 9, 10, 17, 100}) {
        EXPECT_EQ(Ask(code, cb), 0) << "code " << code;
    }
    EXPECT_EQ(ClientCallback(kCtlConfigInt, nullptr, nullptr), 0);
    char small[1] = {'x'};
    memset(&cb, 0, sizeof cb);
    cb.configstr.section = "HTTP";
    cb.configstr.key = "GatewayAddress";
    cb.configstr.buf = small;
    cb.configstr.buflen = 0;
    EXPECT_EQ(Ask(kCtlConfigString, cb), 0);
    EXPECT_EQ(small[0], 'x') << "a zero-length buffer is left alone";
}

// Packets that are not notifications never reach the display path (repeats
// and the window order are covered end to end).
struct Display : ::testing::Test {
    void SetUp() override {
        vel::initialise_install_details("/nonexistent/nd-unit/");
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        gReceivedMessages.clear();
        current_window_num = 0;
    }
    void TearDown() override { vel::initialise_install_details("/usr/sxa/"); }
    static void Deliver(int code, int id, unsigned char type = 12) {
        Packet packet(std::string(1, char(type)) + std::string(17, '\0') + Z("hi~~~"));
        CTL_CALLBACK cb = packet.Callback(id);
        ClientCallback(code, nullptr, &cb);
    }
    static int Window() {
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        return current_window_num;
    }
};

TEST_F(Display, OnlyNotificationPacketsAreDisplayed) {
    Deliver(kCtlDataReceived, 5, 11);
    Deliver(kCtlDataReceived, 6, 0);
    Deliver(2, 7);
    EXPECT_FALSE(WasDisplayed(5));
    EXPECT_FALSE(WasDisplayed(6));
    EXPECT_FALSE(WasDisplayed(7));
    EXPECT_EQ(Window(), 0);
    CTL_CALLBACK empty;
    memset(&empty, 0, sizeof empty);
    EXPECT_EQ(ClientCallback(kCtlDataReceived, nullptr, &empty), 0);
}

} // namespace

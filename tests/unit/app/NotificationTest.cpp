// The application's callback: settings questions, the splitting of
// notification packets, duplicates and the window order.
#include <limits.h>

#include <memory>
#include <string>

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

// A literal's bytes, embedded NULs included, without its terminator.
template <size_t N> std::string Bytes(const char (&text)[N]) {
    return std::string(text, N - 1);
}

// Type 12, 17 header bytes, then the texts.
std::string Notification(const std::string& texts) {
    return Bytes("\x0c") + std::string(17, 'h') + texts;
}

TEST(GetMessageParameters, SplitsTheTextsAndNeverReadsOutsideThePacket) {
    using std::string;
    const struct {
        const char* name;
        string packet;
        int id;
        string message, caption, timeout, flags;
    } cases[] = {
        {"all three texts",
         Notification(Bytes("hello\0"
                            "30|Notice\0"
                            "5\0\0\0")),
         42, "hello", "Notice", "30", "5"},
        {"last byte not NUL: message only",
         Notification(Bytes("hello\0"
                            "30|Notice\0"
                            "5")),
         7, "hello", "keep", "keep", "0"},
        {"second text without |: all time-out",
         Notification(Bytes("hi\0"
                            "30\0\0\0")),
         1, "hi", "", "30", "0"},
        {"time-out and caption, no flags",
         Notification(Bytes("hi\0"
                            "9|Cap\0\0\0")),
         1, "hi", "Cap", "9", "0"},
        {"caption keeps later bars",
         Notification(Bytes("m\0"
                            "1|a|b\0"
                            "3\0")),
         1, "m", "a|b", "1", "3"},
        {"negative flags",
         Notification(Bytes("m\0"
                            "|\0"
                            "-7\0")),
         1, "m", "", "", "-7"},
        {"flags beyond int are clamped",
         Notification(Bytes("m\0"
                            "|\0"
                            "99999999999\0")),
         1, "m", "", "", std::to_string(INT_MAX)},
        {"message only, with the block's trailer", Notification(Bytes("hello\0\0")), -1, "hello",
         "keep", "keep", "0"},
        {"no NUL anywhere", Notification("abcdef"), 3, "abcdef", "keep", "keep", "0"},
        {"no NUL anywhere, header only", Bytes("\x0c") + string(17, 'h'), 3, "", "keep", "keep",
         "0"},
        {"shorter than the header, ends in NUL", Bytes("\x0c\0\0\0"), 3, "", "keep", "keep", "0"},
        {"single byte", Bytes("\x0c"), 3, "", "keep", "keep", "0"},
        {"empty packet", string(), 3, "", "keep", "keep", "0"},
        {"second text not terminated",
         Notification(Bytes("m\0"
                            "1|c")),
         2, "m", "keep", "keep", "0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Packet packet(c.packet);
        const CTL_CALLBACK cb = packet.Callback(c.id);
        string message, caption = "keep", timeout = "keep", flags, id;
        GetMessageParameters(&cb, message, caption, timeout, flags, id);
        EXPECT_EQ(message, c.message);
        EXPECT_EQ(caption, c.caption);
        EXPECT_EQ(timeout, c.timeout);
        EXPECT_EQ(flags, c.flags);
        EXPECT_EQ(id, std::to_string(c.id));
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
    const struct {
        const char* name;
        const char* section;
        const char* key;
        int buflen;
        std::string expected;
    } cases[] = {
        {"cut to buflen - 1", "HTTP", "GatewayAddress", 8, "0123456"},
        {"section in any case", "http", "GatewayAddress", 8, "0123456"},
        {"fits", "HTTP", "GatewayAddress", 64, "01234567890123456789"},
        {"exactly one short", "HTTP", "GatewayAddress", 20, "0123456789012345678"},
        {"absent key", "HTTP", "GSK", 16, ""},
        {"key compared exactly", "HTTP", "gatewayaddress", 16, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<char[]> buf(new char[size_t(c.buflen)]);
        memset(buf.get(), 'x', size_t(c.buflen));
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.configstr.section = c.section;
        cb.configstr.key = c.key;
        cb.configstr.buf = buf.get();
        cb.configstr.buflen = c.buflen;
        EXPECT_EQ(Ask(kCtlConfigString, cb), 0);
        EXPECT_EQ(std::string(buf.get()), c.expected);
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
        Packet packet(std::string(1, char(type)) + std::string(17, '\0') + Bytes("hi\0\0\0"));
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

// The creation record, and the back-off against a port that refuses, then accepts.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "app/AppTimings.h"
#include "app/Notification.h"
#include "app/TransportStartup.h"
#include "config/Preferences.h"
#include "transport/TransportTimings.h"

// LeakSanitizer's switches, present only in sanitizer builds.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

namespace {

// A short name, the type and the callback show in every registration end to end.
TEST(TransportStartup, CreationRecord) {
    tagCTLCREATEPARAMS params;
    memset(&params, 0xAB, sizeof params);
    FillCreateParams(params, "a-name-of-twenty-chs");
    EXPECT_EQ(std::string(params.name, sizeof params.name), "a-name-of-twenty"); // no NUL
    EXPECT_EQ(std::make_tuple(params.cbSize, params.sessions, params.slavetype, params.ctltype),
              std::make_tuple(64u, 10, 256, -1));
    EXPECT_EQ(params.iflags | params.oflags | unsigned(params.last_op), 0u);
}

// The recording wait: after kFailures waits the gateway starts listening.
constexpr size_t kFailures = 12;
std::vector<long long> gWaits;
int gListener = -1;
int gPort = 0;

void RecordWait(long long seconds) {
    gWaits.push_back(seconds);
    if (gWaits.size() == kFailures) {
        gListener = transport_test::ListenLoopback(gPort, 4);
    }
}

TEST(TransportStartup, RetriesWithTheBackOffUntilTheGatewayAnswers) {
    // A free port, closed again, so that connecting is refused at once.
    gListener = transport_test::ListenLoopback(0);
    ASSERT_NE(gListener, -1);
    gPort = transport_test::PortOf(gListener);
    close(gListener);

    vel::Preferences* prefs = vel::Preferences::getInstance();
    prefs->setConfigString("HTTP", "GatewayAddress", "127.0.0.1:" + std::to_string(gPort));
    prefs->setConfigString("HTTP", "GSK", "");
    const int connectSleep = vel::gTransportTimings.m_connectRetrySleepMs;
    vel::gTransportTimings.m_connectRetrySleepMs = 0;
    gAppTimings.m_retryWait = &RecordWait;

    testing::internal::CaptureStderr();
    // A link keeps its read-thread object after shutdown, by design.
    if (__lsan_disable != nullptr) {
        __lsan_disable();
    }
    EXPECT_TRUE(StartTransport());
    if (__lsan_enable != nullptr) {
        __lsan_enable();
    }
    testing::internal::GetCapturedStderr();

    EXPECT_NE(transport.load(), nullptr);
    EXPECT_EQ(gWaits, (std::vector<long long>{60, 120, 240, 480, 960, 1920, 3840, 7680, 15360,
                                              28800, 28800, 28800}));

    StopTransport();
    EXPECT_EQ(transport.load(), nullptr);
    close(gListener);
    gAppTimings.m_retryWait = &SleepSeconds;
    vel::gTransportTimings.m_connectRetrySleepMs = connectSleep;
    prefs->preferences.clear();
}

} // namespace

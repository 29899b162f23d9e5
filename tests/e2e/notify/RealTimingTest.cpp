// The shipped daemon with its real waits: the transport sleeps 10 s after its
// successful connection before registering, then a notification makes its
// round trip.
#include <iostream>

#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

TEST_F(NotifyTest, RealDaemonRegistersAndCarriesANotification) {
    const Clock::time_point started = Clock::now();
    ASSERT_GT(StartRegistered(kRealDaemon, 60, 30000), 0);
    const double registrationMs =
        std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    std::cout << "[measure] start-up to registration (real timing): " << registrationMs << " ms\n";
    RecordProperty("registration_ms", int(registrationMs));
    EXPECT_GT(registrationMs, 9000) << "Connect sleeps 10 s after its successful attempt";
    ASSERT_TRUE(WaitUntil([] { return CountInLog("Started up successfully.") == 1; }, 5000));
    ASSERT_TRUE(m_gateway->WaitForRequest("GETFILEINFO", 5000));

    WriteFile(kAnswerPath, "1 alice\n");
    const Clock::time_point sent = Clock::now();
    ASSERT_TRUE(m_gateway->SendNotification(77, "real", "10|Real", "2"));
    ASSERT_TRUE(m_gateway->WaitForRequest("MESSAGEACK", 5000));
    const double roundTripMs =
        std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
    std::cout << "[measure] notification to acknowledgement (real timing): " << roundTripMs
              << " ms\n";
    RecordProperty("round_trip_ms", int(roundTripMs));
    EXPECT_EQ(m_gateway->RequestsFor("MESSAGERECEIVED").at(0).body,
              "CMD=MESSAGERECEIVED\nID=77\nUF=0\nUN=alice\n");
    EXPECT_EQ(m_gateway->RequestsFor("MESSAGEACK").at(0).body,
              "CMD=MESSAGEACK\nID=77\nUF=1\nUN=alice\n");
    const std::vector<DisplayRun> runs = DisplayRunsFor(77);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].Env("MESSAGE"), "real");
    EXPECT_EQ(runs[0].Env("CAPTION"), "Real");
}

} // namespace
} // namespace notify_e2e

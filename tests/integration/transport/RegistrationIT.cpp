#include <chrono>
#include <string>
#include <thread>

#include "GatewayFixture.h"

namespace {

using gateway_it::GatewayTest;
using gateway_it::kControlType;
using gateway_it::kDaemonType;
using gateway_it::WaitUntil;

// The link keeps at most 15 characters of the stored key, upper-cased (the
// cut changes the first, as the unit tests of the key show).
TEST_F(GatewayTest, CreateTriesSixTimesSleepsAfterASuccessTooAndCutsTheKey) {
    app.text["GatewayAddress"] = "127.0.0.1:1"; // nothing listens there
    EXPECT_EQ(Create(kDaemonType), -1);
    EXPECT_TRUE(ctl->m_connections.empty());
    EXPECT_EQ(app.Of(kCtlConfigInt).size(), 6u); // *TcpNoDelay, asked at each attempt
    delete ctl;
    app.events.clear();

    StartGateway();
    app.text["GSK"] = e2e::StoredKey("0123456789abcdefXYZ");
    vel::gTransportTimings.m_connectRetrySleepMs = 300;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(Create(kDaemonType), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(app.Of(kCtlConfigInt).size(), 1u);
    EXPECT_EQ(Link().GetGatewayKey(), "4123456789ABCDE");
}

TEST_F(GatewayTest, CmpiSetsThePollCadence) {
    options.cmpi = "1";
    Start(kControlType);
    ASSERT_TRUE(WaitUntil([&] { return Period() == 1000; }));
    ASSERT_TRUE(gateway->WaitForRequest("POLL", 5000));
    const auto first = std::chrono::steady_clock::now();
    // Two periods later, the third: seeing the first late (a loaded machine)
    // shortens what is measured by up to a period and must not fail the test.
    ASSERT_TRUE(gateway->WaitForRequest("POLL", 5000, nullptr, 3));
    EXPECT_GE(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(1000));
}

// The read thread dispatches every whole message of one read, not the first.
TEST_F(GatewayTest, TwoResponsesInOneReadAreBothDispatched) {
    Start(kControlType);
    ASSERT_TRUE(gateway->SendRaw(devgw::WrapResponse("CMD=CONFIG_UPDATE\nCMPI=9\n") +
                                 devgw::WrapResponse("CMD=OPEN_REPLY\nFAILED_REASON=33\n")));
    EXPECT_TRUE(WaitUntil([&] { return ctl->GetFailedReason() == 33; }));
    EXPECT_EQ(Period(), 9000u);
    EXPECT_TRUE(Link().IsConnected());
}

// While a session is paused the read loop holds off: a CONFIG_UPDATE waits
// until the pause is released. The pause wait has no time limit, yet
// destruction still ends a paused read thread.
TEST_F(GatewayTest, PausedReadLoopHoldsOffUntilResumed) {
    Start(kControlType);
    Link().RequestPause();
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the loop reaches its wait
    gateway->SendConfigUpdate(7);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(Period(), 60000u);
    Link().ReleasePause();
    EXPECT_TRUE(WaitUntil([&] { return Period() == 7000; }));

    Link().RequestPause();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    delete ctl;
    ctl = nullptr;
    EXPECT_TRUE(WaitUntil([&] { return gateway->ClientCount() == 0; }));
}

} // namespace

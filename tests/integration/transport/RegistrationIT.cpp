#include <string>

#include "GatewayFixture.h"
#include "host/MachineDetails.h"

namespace {

using transport_it::GatewayTest;
using transport_it::WaitUntil;

TEST_F(GatewayTest, RegistrationRequestIsByteExact) {
    StartGateway();
    settings.text[{"client247", "CHATID"}] = "chat-9";
    settings.text[{"client247", "A1"}] = "first answer";
    settings.text[{"client247", "A2"}] = "second";
    settings.text[{"client247", "A4"}] = "never sent: A3 is empty";
    settings.text[{"HTTP", "*Dept"}] = "Accounts";
    ASSERT_EQ(Create(-1, "ws-Test"), 0);

    devgw::Request open;
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000, &open));
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    std::string mac;
    vel::GetMachineMacAddress(mac, -1);
    EXPECT_EQ(open.raw, transport_test::Post(
                            Target(), "CMD=OPEN\nCLIENT_VERSION=1.1\nPROTOCOL_VER=1.1\n"
                                      "MAXPACKET=928\nCLIENT_NAME=WS-TEST\nCLIENT_ADDR=>127.0.0.1\n"
                                      "HOSTNAME=" +
                                          std::string(host) + "\nMACADDRESS=" + mac +
                                          "\nGSK=t6sKKe8nHq7fFpFo0OrcQAAA\nCHATID=chat-9\n"
                                          "A1=first answer\nA2=second\nAPPTYPE=256\n"
                                          "DEPT=Accounts\n"));
    EXPECT_EQ(settings.Count(kCtlConfigInt), 1); // *TcpNoDelay, asked when connecting
}

TEST_F(GatewayTest, ConnectSleepsAfterASuccessfulAttemptToo) {
    StartGateway();
    vel::gTransportTimings.m_connectRetrySleepMs = 300;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(Create(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(settings.Count(kCtlConfigInt), 1); // one attempt
}

TEST_F(GatewayTest, UnreachableGatewayFailsCreate) {
    port = 1; // nothing listens there
    settings.text[{"HTTP", "GatewayAddress"}] = Target();
    EXPECT_EQ(Create(), -1);
    EXPECT_TRUE(ctl->m_connections.empty());
    EXPECT_EQ(ctl->m_sessions, nullptr);
    EXPECT_EQ(settings.Count(kCtlConfigInt), 6); // six attempts
}

TEST_F(GatewayTest, CmpiSetsThePollCadence) {
    options.cmpi = "1";
    StartGateway();
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(WaitUntil([&] { return Period() == 1000; }));
    ASSERT_TRUE(gateway->WaitForRequest("POLL", 5000));
    const auto first = std::chrono::steady_clock::now();
    ASSERT_TRUE(gateway->WaitForRequest("POLL", 5000, nullptr, 2));
    EXPECT_GE(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(800));
}

TEST_F(GatewayTest, WithoutCmpiThePeriodIsAMinute) {
    StartGateway();
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(WaitUntil([&] { return Registered(); }));
    EXPECT_EQ(Period(), 60000u);
    uint32_t ahead;
    {
        vel::CSingleLock lock(&Link().m_lock, TRUE);
        ahead = uint32_t(Link().m_next_poll_time - vel::NowMs());
    }
    EXPECT_LE(ahead, 60000u);
    EXPECT_GT(ahead, 50000u);
    EXPECT_TRUE(gateway->RequestsFor("POLL").empty());
}

TEST_F(GatewayTest, ReconnectsAfterADropAndRegistersWithTheNegotiatedVersion) {
    options.protocolVersion = "1.0";
    StartGateway();
    ASSERT_EQ(Create(-1), 0);
    ASSERT_TRUE(WaitUntil([&] { return Link().m_protocol_ver == 0x00000001u; }));
    gateway->DropClients();
    devgw::Request again;
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000, &again, 2));
    EXPECT_EQ(again.Field("PROTOCOL_VER"), "1.0");
    EXPECT_TRUE(WaitUntil([&] { return Link().IsConnected(); }));
    EXPECT_EQ(gateway->ClientCount(), 1);
}

TEST_F(GatewayTest, StaysDownWithoutReconnection) {
    StartGateway();
    ASSERT_EQ(Create(8), 0);
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000));
    gateway->DropClients();
    EXPECT_TRUE(WaitUntil([&] { return !Link().IsConnected(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(gateway->RequestsFor("OPEN").size(), 1u);
}

// The pause wait has no time limit; destruction must still end the thread
// (woken by the resume event, or cancelled there) and return.
TEST_F(GatewayTest, DestructionEndsAPausedReadThread) {
    StartGateway();
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(WaitUntil([&] { return Registered(); }));
    Link().RequestPause();
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // reader now waits
    gateway->SendConfigUpdate(3);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(Period(), 60000u); // nothing is read while paused
    delete ctl;
    ctl = nullptr;
    EXPECT_TRUE(WaitUntil([&] { return gateway->ClientCount() == 0; }));
}

} // namespace

#include <string>

#include "GatewayFixture.h"
#include "host/MachineDetails.h"

namespace {

using transport_it::GatewayTest;
using transport_it::WaitUntil;

std::string Header(const std::string& host, size_t bodyLength) {
    char length[16];
    snprintf(length, sizeof length, "%5d", int(bodyLength));
    return "POST http://" + host + "/fakeurl.htm HTTP/1.1\nUser-Agent: Corvane Manager/1.0\n" +
           "Content-Type: application/x-www-form-urlencoded\nContent-Length: " + length +
           "\nHost: " + host + "\nConnection: Keep-Alive\n\n";
}

TEST_F(GatewayTest, RegistrationRequestIsByteExact) {
    StartGateway();
    settings.Set("client247", "CHATID", "chat-9");
    settings.Set("client247", "A1", "first answer");
    settings.Set("client247", "A2", "second");
    settings.Set("client247", "A4", "never sent: A3 is empty");
    settings.Set("HTTP", "*Dept", "Accounts");
    ASSERT_EQ(Create(-1, "ws-Test"), 0);

    devgw::Request open;
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000, &open));
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    std::string mac;
    vel::GetMachineMacAddress(mac, -1);
    const std::string body = "CMD=OPEN\nCLIENT_VERSION=1.1\nPROTOCOL_VER=1.1\nMAXPACKET=928\n"
                             "CLIENT_NAME=WS-TEST\nCLIENT_ADDR=>127.0.0.1\nHOSTNAME=" +
                             std::string(host) + "\nMACADDRESS=" + mac +
                             "\nGSK=t6sKKe8nHq7fFpFo0OrcQAAA\n"
                             "CHATID=chat-9\nA1=first answer\nA2=second\nAPPTYPE=256\n"
                             "DEPT=Accounts\n";
    EXPECT_EQ(open.raw, Header(Target(), body.size()) + body);
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
    settings.Set("HTTP", "GatewayAddress", Target());
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
    const auto gap = std::chrono::steady_clock::now() - first;
    EXPECT_GE(gap, std::chrono::milliseconds(800));
    devgw::Request poll;
    gateway->WaitForRequest("POLL", 0, &poll);
    EXPECT_EQ(poll.body, "CMD=POLL\n");

    ASSERT_TRUE(gateway->SendConfigUpdate(7));
    EXPECT_TRUE(WaitUntil([&] { return Period() == 7000; }));
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

TEST_F(GatewayTest, FailedReasonReachesTheApplication) {
    options.failedReason = 1234;
    options.result = 5;
    StartGateway();
    ASSERT_EQ(Create(), 0);
    EXPECT_TRUE(WaitUntil([&] { return ctl->GetFailedReason() == 1234; }));
    EXPECT_EQ(Link().m_open_reply_err, 5);
}

TEST_F(GatewayTest, OlderGatewayLowersTheVersionForTheNextRegistration) {
    options.protocolVersion = "1.0";
    StartGateway();
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(WaitUntil([&] { return Link().m_protocol_ver == 0x00000001u; }));
    gateway->DropClients();
    devgw::Request again;
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000, &again, 2));
    EXPECT_EQ(again.Field("PROTOCOL_VER"), "1.0");
}

TEST_F(GatewayTest, ReconnectsAndRegistersAgainAfterADrop) {
    StartGateway();
    ASSERT_EQ(Create(-1), 0);
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000));
    gateway->DropClients();
    EXPECT_TRUE(gateway->WaitForRequest("OPEN", 5000, nullptr, 2));
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

} // namespace

namespace {

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

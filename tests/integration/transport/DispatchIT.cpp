#include <string>

#include "GatewayFixture.h"

namespace {

using transport_it::GatewayTest;
using transport_it::WaitUntil;

// A link that stays down once dropped (no automatic reconnection).
struct DroppedLink : GatewayTest {
    void SetUp() override {
        GatewayTest::SetUp();
        StartGateway();
        ASSERT_EQ(Create(8), 0);
        ASSERT_TRUE(WaitUntil([&] { return Registered(); }));
    }
    bool Dropped() {
        return WaitUntil([&] { return !Link().IsConnected() && gateway->ClientCount() == 0; });
    }
};

TEST_F(DroppedLink, TwoResponsesInOneReadAreBothDispatched) {
    ASSERT_TRUE(gateway->SendRaw(devgw::WrapResponse("CMD=CONFIG_UPDATE\nCMPI=9\n") +
                                 devgw::WrapResponse("CMD=OPEN_REPLY\nFAILED_REASON=33\n")));
    EXPECT_TRUE(WaitUntil([&] { return ctl->GetFailedReason() == 33; }));
    EXPECT_EQ(Period(), 9000u);
    EXPECT_TRUE(Link().IsConnected());
}

// Messages larger than one read are gathered across reads.
TEST_F(DroppedLink, LargeMessagesArriveWhole) {
    for (size_t size : {10u * 1024, 200u * 1024}) {
        std::string body = "CMD=CONFIG_UPDATE\n";
        while (body.size() < size) {
            body += "PAD=" + std::string(100, 'p') + "\n";
        }
        const unsigned cmpi = unsigned(size / 1024);
        body += "CMPI=" + std::to_string(cmpi) + "\n";
        ASSERT_TRUE(gateway->SendRaw(devgw::WrapResponse(body)));
        EXPECT_TRUE(WaitUntil([&] { return Period() == cmpi * 1000ul; })) << size;
    }
    EXPECT_TRUE(Link().IsConnected());
}

TEST_F(DroppedLink, GatewayClosingTheLinkIsNoticed) {
    gateway->Stop(); // an orderly close, not a reset
    EXPECT_TRUE(WaitUntil([&] { return !Link().IsConnected(); }));
}

TEST_F(DroppedLink, HeaderThatNeverEndsIsBounded) {
    // More than the receive limit without a whole message: the link goes.
    const std::string chunk(64 * 1024, 'h');
    for (int i = 0; i < 20 && Link().IsConnected(); ++i) {
        gateway->SendRaw(chunk);
    }
    EXPECT_TRUE(Dropped());
}

TEST_F(DroppedLink, LyingLengthSwallowsTheNextMessageAndDropsOnTheRest) {
    // Content-length promises more than comes: the client waits, then takes
    // the next message's first bytes as the rest of the body; what is left of
    // that message has no start line, and the link goes.
    gateway->SendRaw("HTTP/1.1 200 OK\r\nContent-length: 60\r\n\r\nCMD=CONFIG_UPDATE\nCMPI=2\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(Period(), 60000u);
    EXPECT_TRUE(Link().IsConnected());
    gateway->SendRaw(devgw::WrapResponse("CMD=CONFIG_UPDATE\nCMPI=3\n"));
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(Period(), 2000u);
}

// With reconnection enabled a dropped link comes back and registers again,
// whether the dispatcher or the pending check rejected the input (the kinds
// of bad input are the dispatch unit tests').
TEST_F(GatewayTest, ReconnectsAfterBadInput) {
    StartGateway();
    ASSERT_EQ(Create(-1), 0);
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000));
    const std::string bad[] = {
        "HTTP/1.1 404 Not Found\r\nContent-length: 8\r\n\r\nCMD=ACK\n",
        "HTTP/1.1 200 OK\r\nServer: dev\r\n\r\nCMD=ACK\n", // no Content-length
        std::string("\x01\xff garbage\0\0 no start line\n\n more", 33),
    };
    int opens = 1;
    for (const std::string& bytes : bad) {
        ASSERT_TRUE(WaitUntil([&] { return gateway->ClientCount() == 1; }));
        gateway->SendRaw(bytes);
        ++opens;
        EXPECT_TRUE(gateway->WaitForRequest("OPEN", 10000, nullptr, opens)) << opens;
    }
}

} // namespace

#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "SessionFixture.h"
#include "transport/gengsk.h"

namespace {

using sessions_it::Post;
using sessions_it::SessionTest;
using sessions_it::StoredKey;
using sessions_it::WaitUntil;

// Gateway 1 ("north") is the transport's own gateway: calls share its link.
struct Calls : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        Start(8, 3);
        app.text["Gateway_1"] = Host();
        app.text["Gateway_Name_1"] = "north";
        app.text["Gateway_Gsk_1"] = StoredKey("key1");
    }
    // Calls `target` on another thread; `answer` runs once the request is
    // seen (with it) and the call's result is returned.
    int PlaceCall(const char* target, const std::function<void(const devgw::Request&)>& answer) {
        std::atomic<int> result{-100};
        std::thread caller([&] { result = ctl->Call(target, 0, nullptr, nullptr); });
        devgw::Request request;
        if (gateway->WaitForRequest("CTL_CONNECT", 5000, &request, ++calls)) {
            answer(request);
        }
        caller.join();
        return result;
    }
    std::function<void(const devgw::Request&)> Reply(const std::string& fields) {
        return [this, fields](const devgw::Request&) {
            gateway->SendBody("CMD=CONNECT_REPLY\n" + fields);
        };
    }
    int calls = 0;
};

TEST_F(Calls, ConnectReplyEstablishesTheSession) {
    app.integers["CallByName"] = 1; // the target names the gateway
    devgw::Request request;
    EXPECT_EQ(PlaceCall("NORTH\\callee",
                        [&](const devgw::Request& r) {
                            request = r;
                            gateway->SendBody(
                                "CMD=CONNECT_REPLY\nRESULT=0\nCONNECTION_ID=77\n"
                                "CLIENT_NAME=CalleeWithALongName\nPROTOCOL_VER=1.0\n");
                        }),
              0);
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    char* gsk = GenWireGsk("KEY1");
    std::string body = "CMD=CTL_CONNECT\nPROTOCOL_VER=1.1\nCONTROL_NAME=WS-TEST\n"
                       "CLIENT_IP_ADDRESS=callee\n";
    body += host[0] != '\0' ? "HOSTNAME=" + std::string(host) + "\n" : "";
    body += request.Has("MACADDRESS") ? "MACADDRESS=" + request.Field("MACADDRESS") + "\n" : "";
    body += "GSK=" + std::string(gsk) + "\n";
    free(gsk);
    EXPECT_EQ(request.raw, Post(Host(), body));

    EXPECT_EQ(Session(0).m_inuse, 2);
    EXPECT_EQ(Session(0).m_connection, &Link());
    EXPECT_EQ(Session(0).m_connection_id, 77u);
    EXPECT_STREQ(Session(0).m_remote_name, "CalleeWithALong");
    EXPECT_EQ(Link().m_protocol_ver.load(), 0x00000001u); // lowered to 1.0: HTTP frames
    ctl->Send(1, "x", 1);
    devgw::Request frame;
    ASSERT_TRUE(gateway->WaitForRequest("NC_DATA", 5000, &frame));
    EXPECT_EQ(frame.Field("CONNECTION_ID"), "77");
    EXPECT_EQ(frame.Field("NC_SEQNO"), "1");
}

TEST_F(Calls, RefusedCallFreesTheSessionAndKeepsTheSharedLink) {
    EXPECT_EQ(PlaceCall("1\\callee", Reply("RESULT=3\nFAILED_REASON=44\n")), 3);
    EXPECT_EQ(ctl->GetFailedReason(), 44);
    EXPECT_EQ(Session(0).m_inuse, 0);
    EXPECT_TRUE(Link().IsConnected());
}

TEST_F(Calls, CancelledCallSendsTheCancelAndReturnsItsAnswer) {
    app.cancelAfter = 0;
    EXPECT_EQ(PlaceCall("1\\callee",
                        [&](const devgw::Request&) {
                            devgw::Request cancel;
                            ASSERT_TRUE(
                                gateway->WaitForRequest("CTL_CANCEL_CONNECT", 5000, &cancel));
                            EXPECT_EQ(cancel.raw,
                                      Post(Host(), "CMD=CTL_CANCEL_CONNECT\nCONTROL_NAME=WS-TEST\n"
                                                   "CLIENT_IP_ADDRESS=callee\n"));
                            gateway->SendBody("CMD=CONNECT_REPLY\nRESULT=9\n");
                        }),
              9);
    EXPECT_EQ(Session(0).m_inuse, 0);
}

TEST_F(Calls, BadTargets) {
    for (const char* target : {static_cast<const char*>(nullptr), "1", "7\\nobody", "x\\y"}) {
        EXPECT_EQ(ctl->Call(target, 0, nullptr, nullptr), 255) << (target ? target : "null");
    }
}

// Pausing an established session holds off the link's reading until every
// pause is released; repeated calls count once.
TEST_F(Calls, PauseHoldsTheReadLoopOff) {
    ASSERT_EQ(PlaceCall("1\\callee", Reply("RESULT=0\nCONNECTION_ID=5\n")), 0);
    EXPECT_EQ(ctl->Pause(1, true), 0);
    EXPECT_EQ(ctl->Pause(1, true), 0);
    EXPECT_EQ(Link().m_sessions_paused.load(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // the loop reaches its wait
    gateway->SendConfigUpdate(7);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(Link().m_comms_manage_pkt_period.load(), 60000u);
    EXPECT_EQ(ctl->Pause(1, false), 0);
    EXPECT_EQ(ctl->Pause(1, false), 0);
    EXPECT_EQ(Link().m_sessions_paused.load(), 0);
    EXPECT_TRUE(WaitUntil([&] { return Link().m_comms_manage_pkt_period.load() == 7000; }));
}

} // namespace

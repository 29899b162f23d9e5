#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "GatewayFixture.h"
#include "transport/gengsk.h"

namespace {

using gateway_it::GatewayTest;
using gateway_it::Post;

// Three sessions on the transport's own gateway, which is also gateway 1
// ("north"): calls share its link.
struct Sessions : GatewayTest {
    void SetUp() override {
        GatewayTest::SetUp();
        Start(8);
        app.text["Gateway_1"] = Host();
        app.text["Gateway_Name_1"] = "north";
        app.text["Gateway_Gsk_1"] = gateway_it::StoredKey("key1");
    }
    vel::CTL_HTTP_SESSION& Session(int index) { return ctl->m_sessions[index]; }
    // Calls `target` on another thread, answers the call with `reply` once the
    // gateway has seen the `last` request (stored in `seen`); the call's result.
    int PlaceCall(const char* target, const std::string& reply, devgw::Request* seen = nullptr,
                  const char* last = "CTL_CONNECT") {
        const int n = int(gateway->RequestsFor(last).size()) + 1;
        std::atomic<int> result{-100};
        std::thread caller([&] { result = ctl->Call(target, 0, nullptr, nullptr); });
        EXPECT_TRUE(gateway->WaitForRequest(last, 5000, seen, n));
        gateway->SendBody("CMD=CONNECT_REPLY\n" + reply);
        caller.join();
        return result;
    }
};

TEST_F(Sessions, CallByNameEstablishesTheSession) {
    app.integers["CallByName"] = 1; // the target names the gateway
    devgw::Request request;
    EXPECT_EQ(PlaceCall("NORTH\\callee",
                        "RESULT=0\nCONNECTION_ID=77\nCLIENT_NAME=CalleeWithALongName\n"
                        "PROTOCOL_VER=1.0\n",
                        &request),
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
    EXPECT_EQ(Session(0).m_connection, &Link()); // the shared link
    EXPECT_EQ(Session(0).m_connection_id, 77u);
    EXPECT_STREQ(Session(0).m_remote_name, "CalleeWithALong");
    EXPECT_EQ(Link().m_protocol_ver.load(), 0x00000001u); // lowered to 1.0: HTTP frames
}

TEST_F(Sessions, RefusedCancelledAndBadCalls) {
    EXPECT_EQ(PlaceCall("1\\callee", "RESULT=3\nFAILED_REASON=44\n"), 3);
    EXPECT_EQ(ctl->GetFailedReason(), 44);
    EXPECT_EQ(Session(0).m_inuse, 0);
    EXPECT_TRUE(Link().IsConnected()); // the shared link stays

    app.cancelAfter = 0; // the cancellation is sent and its answer returned
    devgw::Request cancel;
    EXPECT_EQ(PlaceCall("1\\callee", "RESULT=9\n", &cancel, "CTL_CANCEL_CONNECT"), 9);
    EXPECT_EQ(cancel.raw, Post(Host(), "CMD=CTL_CANCEL_CONNECT\nCONTROL_NAME=WS-TEST\n"
                                       "CLIENT_IP_ADDRESS=callee\n"));
    EXPECT_EQ(Session(0).m_inuse, 0);

    for (const char* target : {static_cast<const char*>(nullptr), "1", "7\\nobody", "x\\y"}) {
        EXPECT_EQ(ctl->Call(target, 0, nullptr, nullptr), 255) << (target ? target : "null");
    }
}

} // namespace

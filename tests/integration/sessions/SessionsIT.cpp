#include <errno.h>
#include <unistd.h>

#include <string>

#include "GatewayFixture.h"

namespace {

using gateway_it::GatewayTest;
using gateway_it::kControlType;
using gateway_it::Post;
using gateway_it::WaitUntil;

// The transport on its own gateway, and gateway 1 ("north") that calls and
// the directory operations connect to.
struct Directory : GatewayTest {
    devgw::DevGateway north;

    void SetUp() override {
        GatewayTest::SetUp();
        Start(kControlType, 2);
        ASSERT_GT(north.Start(), 0);
        app.text["Gateway_1"] = Target(north);
        app.text["Gateway_Name_1"] = "north";
        app.text["Gateway_Gsk_1"] = e2e::StoredKey("key1");
    }
    // Calls `target` on another thread, answers the call with `reply` once the
    // gateway has seen the `last` request (stored in `seen`); the call's result.
    int PlaceCall(const char* target, const std::string& reply, devgw::Request* seen = nullptr,
                  const char* last = "CTL_CONNECT") {
        const int n = int(north.RequestsFor(last).size()) + 1;
        std::atomic<int> result{-100};
        std::thread caller([&] { result = ctl->Call(target, 0, nullptr, nullptr); });
        EXPECT_TRUE(north.WaitForRequest(last, 5000, seen, n));
        north.SendBody("CMD=CONNECT_REPLY\n" + reply);
        caller.join();
        return result;
    }
};
struct Calls : Directory {};

// A browse block as the application receives it.
std::string Block(const std::string& name, bool online, const std::string& text,
                  size_t textsLength) {
    std::string block(textsLength + 37, '\0');
    block[0] = 2;
    block.replace(2, name.size(), name);
    block[20] = online ? 1 : 0;
    block[22] = 1;
    block.replace(26, text.size(), text);
    return block;
}

TEST_F(Directory, BrowseResultsArriveAsBlocksUntilNoMore) {
    std::atomic<bool> done{false};
    std::thread browse([&] {
        EXPECT_EQ(ctl->FindSlaves("1\\ws*", 4 | 8, 0), 0);
        done = true;
    });
    devgw::Request request;
    ASSERT_TRUE(north.WaitForRequest("CTL_BROWSE", 5000, &request));
    EXPECT_EQ(request.raw,
              Post(Target(north), "CMD=CTL_BROWSE\nMATCH_NAME=ws*\nWANTSHELP=1\n"
                                  "REQUSERNAME=1\nREQHOSTNAME=1\nGSK=" +
                                      e2e::WireKey("KEY1") + "\nCONTEXT=north\nCTLTYPE=8\n"));
    north.SendBody("CMD=BROWSE_REPLY\nMORE=1\nCLIENT_NAME=WS-ONE-WITH-LONG-NAME\n"
                   "CLIENT_IP_ADDRESS=10.0.0.7\nCONTEXT=north\nSTATUS=1\nHOSTNAME=h1\n"
                   "MACADDRESS=AA\nCHATID=c\nA1=x\nA2=\nA3=z\nA4=w\nEND_CLIENT\n");
    ASSERT_TRUE(WaitUntil([&] { return app.Of(kCtlDataReceived).size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_FALSE(done); // MORE=1: the browse goes on
    // A nameless client ends the reply; without MORE the browse is over.
    north.SendBody("CMD=BROWSE_REPLY\nCLIENT_NAME=WS-3\nCLIENT_IP_ADDRESS=10.0.0.9\n"
                   "CONTEXT=north\nSTATUS=0\nMACADDRESS=CC\nEND_CLIENT\nEND_CLIENT\n"
                   "CLIENT_NAME=NEVER\nEND_CLIENT\n");
    browse.join();

    const auto results = app.Of(kCtlDataReceived);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].data, Block("WS-ONE-WITH-LON", true, "h1|AA|c|x||z|w", 8));
    EXPECT_EQ(results[1].data, Block("WS-3", false, "", 2));
    EXPECT_EQ(results[0].addr, ">north/10.0.0.7");
    EXPECT_TRUE(WaitUntil([&] { return north.ClientCount() == 0; })); // its link closed
}

// A wait without a reply in time ends timed out, a cancelled one cancelled.
TEST_F(Directory, AddDomainResultTimeOutAndCancellation) {
    CTL_ADDDOMAIN_PARAMS params = {"g-1", "desc", "k"};
    const struct {
        const char* reply; // null: none
        int cancelAfter;
        int returned;
        long result;
        int error;
    } cases[] = {
        {"RESULT=5\nERROR=none\n", -1, 1, 1, 0},
        {nullptr, -1, 0, -7, kCtlErrorTimedOut},
        {nullptr, 2, 0, -7, kCtlErrorCancelled},
    };
    vel::gTransportTimings.m_replyTimeoutMs = 300;
    int asked = 0;
    for (const auto& c : cases) {
        app.cancelAfter = c.cancelAfter;
        app.cancelPolls = 0;
        long result = -7;
        int returned = -1;
        int error = 0;
        std::thread add([&] {
            returned = ctl->AddDomain("1", &params, &result);
            error = errno;
        });
        devgw::Request request;
        ASSERT_TRUE(north.WaitForRequest("ADDDOMAIN", 5000, &request, ++asked));
        EXPECT_EQ(request.raw,
                  Post(Target(north), "CMD=ADDDOMAIN\nGUID=g-1\nDESC=desc\nKEY=k\nGSK=********\n"));
        if (c.reply != nullptr) {
            north.SendBody(std::string("CMD=ADDDOMAIN_REPLY\n") + c.reply);
        }
        add.join();
        EXPECT_EQ(returned, c.returned);
        EXPECT_EQ(result, c.result);
        if (c.error != 0) {
            EXPECT_EQ(error, c.error);
        }
    }
    EXPECT_EQ(app.cancelPolls.load(), 3); // the third poll cancelled
    errno = 0;
    EXPECT_EQ(ctl->AddDomain("", &params, nullptr), 0);
    EXPECT_EQ(errno, kCtlErrorBadArgument);
}

TEST_F(Directory, UserStatusGoesOnTheFirstLink) {
    tagCTL_USERSTATUSINFO full = {0, "alice", "sales", 5};
    tagCTL_USERSTATUSINFO bare = {0, "bob", nullptr, 0};
    EXPECT_EQ(ctl->UserStatus(nullptr, &full), 0);
    EXPECT_EQ(ctl->UserStatus(nullptr, &bare), 0);
    ASSERT_TRUE(gateway->WaitForRequest("USERSTATUS", 5000, nullptr, 2));
    const auto sent = gateway->RequestsFor("USERSTATUS");
    EXPECT_EQ(sent[0].raw, Post(Host(), "CMD=USERSTATUS\nUSER=alice\nDEPT=sales\nAPPTYPE=5\n"));
    EXPECT_EQ(sent[1].body, "CMD=USERSTATUS\nUSER=bob\n");
}

TEST_F(Calls, CallByNameEstablishesTheSession) {
    app.integers["CallByName"] = 1; // the target names the gateway
    devgw::Request request;
    EXPECT_EQ(PlaceCall("NORTH\\callee",
                        "RESULT=0\nCONNECTION_ID=77\nCLIENT_NAME=CalleeWithALongName\n"
                        "PROTOCOL_VER=1.0\n",
                        &request),
              0);
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    std::string body = "CMD=CTL_CONNECT\nPROTOCOL_VER=1.1\nCONTROL_NAME=WS-TEST\n"
                       "CLIENT_IP_ADDRESS=callee\n";
    body += host[0] != '\0' ? "HOSTNAME=" + std::string(host) + "\n" : "";
    body += request.Has("MACADDRESS") ? "MACADDRESS=" + request.Field("MACADDRESS") + "\n" : "";
    body += "GSK=" + e2e::WireKey("KEY1") + "\n";
    EXPECT_EQ(request.raw, Post(Target(north), body));

    const vel::CTL_HTTP_SESSION& session = ctl->m_sessions[0];
    EXPECT_EQ(session.m_inuse, 2);
    EXPECT_EQ(session.m_connection_id, 77u);
    EXPECT_STREQ(session.m_remote_name, "CalleeWithALong");
    EXPECT_EQ(session.m_connection->m_protocol_ver.load(), 1u); // lowered to 1.0
}

TEST_F(Calls, RefusedCancelledAndBadCalls) {
    EXPECT_EQ(PlaceCall("1\\callee", "RESULT=3\nFAILED_REASON=44\n"), 3);
    EXPECT_EQ(ctl->GetFailedReason(), 44);
    EXPECT_EQ(ctl->m_sessions[0].m_inuse, 0);

    app.cancelAfter = 0; // the cancellation is sent and its answer returned
    devgw::Request cancel;
    EXPECT_EQ(PlaceCall("1\\callee", "RESULT=9\n", &cancel, "CTL_CANCEL_CONNECT"), 9);
    EXPECT_EQ(cancel.raw, Post(Target(north), "CMD=CTL_CANCEL_CONNECT\nCONTROL_NAME=WS-TEST\n"
                                              "CLIENT_IP_ADDRESS=callee\n"));
    EXPECT_EQ(ctl->m_sessions[0].m_inuse, 0);

    for (const char* target : {static_cast<const char*>(nullptr), "1", "7\\nobody", "x\\y"}) {
        EXPECT_EQ(ctl->Call(target, 0, nullptr, nullptr), kCtlCallBadTarget)
            << (target ? target : "null");
    }
}

} // namespace

#include <string>

#include "SessionFixture.h"

namespace {

using sessions_it::Post;
using sessions_it::SessionTest;
using sessions_it::WaitUntil;

// Three sessions on a link that stays down once lost.
struct Sessions : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        Start(8, 3);
    }
    std::string Hangup(unsigned id) {
        return Post(Host(), "CMD=HANGUP\nCONNECTION_ID=" + std::to_string(id) + "\n");
    }
};

TEST_F(Sessions, ConnectIsAnsweredThenReported) {
    app.newBuffers = 7;
    const devgw::Request reply = Connect(41, "ConsoleWithALongName", "10.1.2.3");
    EXPECT_EQ(reply.raw, Post(Host(), "CMD=CONNECT_REPLY\nCONNECTION_ID=41\n"
                                      "CLIENT_NAME=WS-TEST\nRESULT=0\n"));
    ASSERT_TRUE(WaitUntil([&] { return Session(0).m_nbufs == 7; })); // copied back
    const auto called = app.Of(kCtlCalled);
    ASSERT_EQ(called.size(), 1u);
    EXPECT_EQ(called[0].session, Session(0).m_session_id);
    EXPECT_EQ(called[0].name, "NC_ConsoleWithALon"); // 15 characters of the name
    EXPECT_EQ(called[0].addr, "10.1.2.3");
    EXPECT_EQ(called[0].count, 3);
    EXPECT_EQ(Session(0).m_inuse, 1);
    EXPECT_EQ(Session(0).m_connection_id, 41u);
}

TEST_F(Sessions, FullTableRefusesWithoutCallback) {
    for (unsigned id = 1; id <= 3; ++id) {
        Connect(id);
    }
    EXPECT_EQ(Connect(4).body,
              "CMD=CONNECT_REPLY\nCONNECTION_ID=4\nCLIENT_NAME=WS-TEST\nRESULT=2\n");
    EXPECT_EQ(app.Of(kCtlCalled).size(), 3u);
}

TEST_F(Sessions, HangupInBothDirections) {
    Connect(5);
    Connect(6);
    EXPECT_EQ(ctl->Hangup(1), 0);
    devgw::Request sent;
    ASSERT_TRUE(gateway->WaitForRequest("HANGUP", 5000, &sent));
    EXPECT_EQ(sent.raw, Hangup(5));
    EXPECT_EQ(Session(0).m_inuse, 0);

    // Number 0 and unknown numbers are ignored; the known one is reported.
    for (const char* id : {"0", "99", "6"}) {
        gateway->SendBody(std::string("CMD=HANGUP\nCONNECTION_ID=") + id + "\n");
    }
    ASSERT_TRUE(WaitUntil([&] { return Session(1).m_inuse == 0; }));
    const auto hungUp = app.Of(kCtlHungUp);
    ASSERT_EQ(hungUp.size(), 1u);
    EXPECT_EQ(hungUp[0].session, Session(1).m_session_id);
}

// CLOSE and a lost link clear a link's sessions with the settled pairing:
// entry i is checked and number i (entry i - 1) hung up, so the last entry
// stays and the check past the table finds nothing.
TEST_F(Sessions, CloseHangsUpWithTheSettledPairing) {
    for (unsigned id : {11u, 12u, 13u}) {
        Connect(id);
    }
    gateway->SendBody("CMD=CLOSE\nANY=thing\n");
    const auto hangups = Requests(*gateway, "HANGUP", 2);
    ASSERT_EQ(hangups.size(), 2u);
    EXPECT_EQ(hangups[0].raw, Hangup(11));
    EXPECT_EQ(hangups[1].raw, Hangup(12));
    ASSERT_TRUE(WaitUntil([&] { return Session(1).m_inuse == 0; }));
    EXPECT_EQ(Session(0).m_inuse, 0);
    EXPECT_EQ(Session(2).m_connection_id, 13u);
    EXPECT_TRUE(app.Of(kCtlHungUp).empty());
}

TEST_F(Sessions, LostLinkClearsItsSessions) {
    for (unsigned id : {11u, 12u, 13u}) {
        Connect(id);
    }
    // A response the client rejects: it drops the link. (A reset from the
    // gateway takes the socket out without telling the owner.)
    gateway->SendRaw("HTTP/1.1 404 Not Found\r\nContent-length: 1\r\n\r\nx");
    ASSERT_TRUE(WaitUntil([&] { return Session(0).m_inuse == 0 && Session(1).m_inuse == 0; }));
    EXPECT_FALSE(Link().IsConnected());
    EXPECT_EQ(Session(2).m_connection_id, 13u);
    EXPECT_TRUE(app.Of(kCtlHungUp).empty());
}

} // namespace

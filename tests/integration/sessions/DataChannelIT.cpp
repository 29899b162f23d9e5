#include <stdio.h>

#include <string>

#include "SessionFixture.h"

namespace {

using sessions_it::Crc;
using sessions_it::Post;
using sessions_it::SessionTest;
using sessions_it::WaitUntil;

const std::string kPayload("\x01\x02\x03", 3);

// One session (id 21) on a link at the gateway's protocol version.
struct Received : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        Start(8, 1);
        Connect(21);
    }
};

struct DataChannel : SessionTest, ::testing::WithParamInterface<const char*> {
    void SetUp() override {
        SessionTest::SetUp();
        options.protocolVersion = GetParam();
        Start(8, 1);
        Connect(21);
    }
    // Frames the client has sent so far, form B (no command) or form A.
    std::vector<devgw::Request> Frames(size_t n) {
        const bool bare = Link().m_protocol_ver.load() > 0x00010000;
        return Requests(*gateway, bare ? "" : "NC_DATA", n);
    }
    std::string Expected(unsigned id, unsigned seq) {
        const std::string crc = std::to_string(Crc(kPayload));
        if (Link().m_protocol_ver.load() <= 0x00010000) {
            return Post(Host(), "CMD=NC_DATA\nCONNECTION_ID=" + std::to_string(id) +
                                    "\nNC_SEQNO=" + std::to_string(seq) + "\nNC_CRC=" + crc +
                                    "\nNC_LEN=3\nNC_DATA=AQID\n");
        }
        const std::string body = "CID=" + std::to_string(id) + "\nSEQ=" + std::to_string(seq) +
                                 "\nCRC=" + crc + "\nLEN=3\nDATA=+,-\n";
        char length[8];
        snprintf(length, sizeof length, "%5d", int(body.size()));
        return std::string("NC_DATA\nContent-Length: ") + length + "\n\n" + body;
    }
};

// "1.1" keeps the link at 1.1 (bare frames); "1.0" lowers it (HTTP frames).
INSTANTIATE_TEST_SUITE_P(Forms, DataChannel, ::testing::Values("1.1", "1.0"));

TEST_P(DataChannel, FramesByteForByteWithSequenceRestartingPerAttach) {
    EXPECT_EQ(ctl->Send(1, kPayload.data(), 3), 0);
    EXPECT_EQ(ctl->Send(1, kPayload.data(), 3), 0);
    ctl->Hangup(1);
    Connect(22); // the same place again
    EXPECT_EQ(ctl->Send(1, kPayload.data(), 3), 0);
    const auto frames = Frames(3);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].raw, Expected(21, 1));
    EXPECT_EQ(frames[1].raw, Expected(21, 2));
    EXPECT_EQ(frames[2].raw, Expected(22, 1));
}

TEST_F(Received, FramesOfBothFormsReachTheApplication) {
    const std::string first("hello\0world", 11);
    const std::string second("\x00\x0A=.\r\t\xD6z", 8); // every escaped value
    gateway->SendNCDataA(21, first);
    gateway->SendNCDataA(99, "unknown session");
    gateway->SendNCDataB(0, "no session");
    gateway->SendNCDataB(21, second);
    ASSERT_TRUE(WaitUntil([&] { return app.Of(kCtlDataReceived).size() == 2; }));
    const auto data = app.Of(kCtlDataReceived);
    EXPECT_EQ(data[0].data, first);
    EXPECT_EQ(data[1].data, second);
    EXPECT_EQ(data[1].session, Session(0).m_session_id);
}

TEST_F(Received, TypeBytesDropAFrameOrSetTheBufferCount) {
    std::string counted(16, 'x');
    counted[0] = 0x04;
    counted[14] = 9;
    std::string tooShort(14, 'y'); // decodes with a padding byte at offset 14
    tooShort[0] = 0x04;
    const std::string dropped = "\x5C dropped";
    // One form at a time: a bare frame read together with a response behind
    // it would be taken for bytes before that response's start line.
    gateway->SendNCDataB(21, dropped);
    gateway->SendNCDataB(21, counted);
    ASSERT_TRUE(WaitUntil([&] { return app.Of(kCtlDataReceived).size() == 1; }));
    gateway->SendNCDataA(21, dropped);
    gateway->SendNCDataA(21, tooShort);
    ASSERT_TRUE(WaitUntil([&] { return app.Of(kCtlDataReceived).size() == 2; }));
    const auto data = app.Of(kCtlDataReceived);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[0].data, counted);
    EXPECT_EQ(data[1].data, tooShort);
    EXPECT_EQ(Session(0).m_nbufs, 9);
}

} // namespace

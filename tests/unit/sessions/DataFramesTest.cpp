// Sessions set up by the gateway, data frames out (the broadcast walk too),
// pause counting, and the bounds on frames in.
#include <atomic>
#include <regex>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::Harness;
using transport_test::kControlType;
using transport_test::Post;

TEST(Sessions, ConnectIsAnsweredReportedAndRefusedWhenTheTableIsFull) {
    Harness h(kControlType, 1);
    strcpy(h.ctl->m_name, "WS-TEST");
    for (unsigned id : {41u, 42u}) {
        h.Dispatch("CMD=CONNECT\nCONNECTION_ID=" + std::to_string(id) +
                   "\nCONTROL_NAME=ConsoleWithALongName\nCONTROL_ADDR=10.1.2.3\n");
    }
    EXPECT_EQ(h.Drain(), Post("gw.example:443", "CMD=CONNECT_REPLY\nCONNECTION_ID=41\n"
                                                "CLIENT_NAME=WS-TEST\nRESULT=0\n") +
                             Post("gw.example:443", "CMD=CONNECT_REPLY\nCONNECTION_ID=42\n"
                                                    "CLIENT_NAME=WS-TEST\nRESULT=2\n"));
    const auto called = h.app.Of(kCtlCalled);
    ASSERT_EQ(called.size(), 1u);
    EXPECT_EQ(called[0].session, 1);
    EXPECT_EQ(called[0].data, "NC_ConsoleWithALon"); // 15 characters of the name
    EXPECT_EQ(called[0].addr, "10.1.2.3");
    // The gateway's HANGUP: number 0 and unknown numbers are ignored.
    for (const char* id : {"0", "99", "41"}) {
        h.Dispatch(std::string("CMD=HANGUP\nCONNECTION_ID=") + id + "\n");
    }
    EXPECT_EQ(h.app.Of(kCtlHungUp).size(), 1u);
    EXPECT_EQ(h.ctl->m_sessions[0].m_inuse, 0);
}

// The form follows the link's protocol version: 1.1 and later bare frames,
// older ones requests. The sequence number starts again at each attach.
TEST(DataFrames, BothFormsByteForByte) {
    const std::string crc = "2856550370"; // of 01 02 03: reflected, from ~0, not inverted
    for (DWORD version : {0x00010001u, 0x00010000u}) {
        SCOPED_TRACE(version);
        Harness h(kControlType, 2);
        h.link->m_protocol_ver = version;
        const auto frame = [&](unsigned id, unsigned seq) {
            const std::string ids = std::to_string(id), seqs = std::to_string(seq);
            if (version <= 0x00010000) {
                return transport_test::Post(
                    "gw.example:443", "CMD=NC_DATA\nCONNECTION_ID=" + ids + "\nNC_SEQNO=" + seqs +
                                          "\nNC_CRC=" + crc + "\nNC_LEN=3\nNC_DATA=AQID\n");
            }
            const std::string body =
                "CID=" + ids + "\nSEQ=" + seqs + "\nCRC=" + crc + "\nLEN=3\nDATA=+,-\n";
            return "NC_DATA\nContent-Length:    " + std::to_string(body.size()) + "\n\n" + body;
        };
        h.Attach(0, 21, 1);
        EXPECT_EQ(h.ctl->Send(1, "\x01\x02\x03", 3), 0);
        EXPECT_EQ(h.ctl->Send(1, "\x01\x02\x03", 3), 0);
        h.Attach(0, 22, 1);
        EXPECT_EQ(h.ctl->Send(1, "\x01\x02\x03", 3), 0);
        EXPECT_EQ(h.Drain(), frame(21, 1) + frame(21, 2) + frame(22, 1));
        EXPECT_EQ(h.ctl->Send1(2, "ab", 2), -1); // no link
    }
}

// Sessions 1..5 carry ids 10..14, all established but number 3 (set up by
// the gateway); the subset holds table places 0, 1 and 4, the omit map place
// 1. Kept: the walk never reaches the last number.
TEST(DataFrames, BroadcastWalksTheSubsetsButNeverTheLastSession) {
    const struct {
        int selector;
        int ctltype;
        const char* ids;
    } cases[] = {{0, 8, "10 11 13 "}, {-3, 8, "10 11 13 "}, {-4, 8, "10 11 "},    {-5, 8, "10 "},
                 {-4, -1, ""},        {-5, -1, ""},         {-9, -1, "10 11 13 "}};
    for (const auto& c : cases) {
        Harness h(c.ctltype, 5);
        for (int i = 0; i < 5; ++i) {
            h.Attach(i, 10u + unsigned(i), i == 2 ? 1 : 2);
        }
        unsigned char subset = 0x13, omit = 0x02;
        CTL_SUBSET record = {1, &subset, &omit};
        h.ctl->Subset(&record);
        EXPECT_EQ(h.ctl->Send(c.selector, "x", 1), 0);
        const std::string sent = h.Drain();
        static const std::regex kId("\nCID=([0-9]+)");
        std::string ids;
        for (std::sregex_iterator it(sent.begin(), sent.end(), kId), end; it != end; ++it) {
            ids += (*it)[1].str() + " ";
        }
        EXPECT_EQ(ids, c.ids) << c.selector << " " << c.ctltype;
    }
}

// A pause counts once per session on its link, for sessions this side set up;
// Pause false, or hanging the session up, releases it.
TEST(Pause, CountsOncePerChangeAndOnlyForEstablishedSessions) {
    Harness h(kControlType, 3);
    h.Attach(0, 10, 2);
    h.Attach(1, 11, 1);
    // Session (2 was set up by the gateway: it takes no part), pause or
    // release, result, the link's count after it.
    const std::tuple<int, bool, int, int> steps[] = {
        {1, true, 0, 1}, {1, true, 0, 1}, {1, false, 0, 0}, {1, false, 0, 0},
        {1, true, 0, 1}, {2, true, 0, 1}, {0, true, -1, 1}, {4, true, -1, 1},
    };
    std::atomic<int>& paused = h.link->m_sessions_paused;
    for (const auto& [session, pause, result, count] : steps) {
        EXPECT_EQ(h.ctl->Pause(session, pause), result) << session << " " << pause;
        EXPECT_EQ(paused.load(), count) << session << " " << pause;
    }
    h.ctl->Hangup(1);
    EXPECT_EQ(paused.load(), 0);
    EXPECT_EQ(h.ctl->Pause(1, false), 0);
    EXPECT_EQ(paused.load(), 0);
}

// Never more than was decoded; 0x5C frames dropped, 0x04 sets the buffer count.
TEST(ReceivedFrames, DeclaredLengthIsBoundedByTheDecodedBytes) {
    std::string counted(15, 'c');
    counted[0] = 0x04;
    counted[14] = 6;
    const struct {
        std::string payload;
        std::string length; // as declared
        std::string delivered;
        int buffers;
    } cases[] = {
        {"\x01\x02\x03", "500", "\x01\x02\x03", 3},
        {"\x01\x02\x03", "2", "\x01\x02", 3},
        {counted, "15", counted, 6},
        {counted, "14", counted.substr(0, 14), 3}, // offset 14 is not part of it
        {"\x5C\x01", "2", "-", 3},                 // dropped
    };
    for (bool bare : {true, false}) {
        for (const auto& c : cases) {
            Harness h(kControlType, 1);
            h.Attach(0, 21, 1);
            if (bare) {
                std::string body = "CID=21\nSEQ=1\nCRC=0\nLEN=" + c.length +
                                   "\nDATA=" + transport_test::YEnc(c.payload) + "\n";
                EXPECT_EQ(h.ctl->ProcessNCData(&body[0], int(body.size()), *h.link), 1);
            } else {
                h.Dispatch("CMD=NC_DATA\nCONNECTION_ID=21\nNC_LEN=" + c.length +
                           "\nNC_DATA=" + transport_test::Base64(c.payload) + "\n");
            }
            const auto got = h.app.Of(kCtlDataReceived);
            ASSERT_EQ(got.size(), c.delivered == "-" ? 0u : 1u) << bare << " LEN=" << c.length;
            if (!got.empty()) {
                EXPECT_EQ(got[0].data, c.delivered) << bare << " LEN=" << c.length;
                EXPECT_EQ(got[0].session, 1);
            }
            EXPECT_EQ(h.ctl->m_sessions[0].m_nbufs, c.buffers) << bare << " LEN=" << c.length;
            h.ctl->m_sessions[0].m_inuse = 2; // only an established session reports it
            EXPECT_EQ(h.ctl->GetNumberOfClientBuffers(1), c.buffers);
        }
    }
}

} // namespace

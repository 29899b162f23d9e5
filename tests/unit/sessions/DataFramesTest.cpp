// Sessions set up by the gateway, data frames out, and the bounds on frames in.
#include <stdlib.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "transport/yenc.h"

namespace {

using transport_test::Harness;
using transport_test::Post;

TEST(Sessions, ConnectIsAnsweredReportedAndRefusedWhenTheTableIsFull) {
    Harness h(8, 1);
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
        Harness h(8, 2);
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

// Settled: the broadcast walk skips sessions the gateway set up (id 12) and
// never reaches the last number (id 14).
TEST(DataFrames, BroadcastWalksAllButTheLastSession) {
    Harness h(8, 5);
    for (int i = 0; i < 5; ++i) {
        h.Attach(i, 10u + unsigned(i), i == 2 ? 1 : 2);
    }
    EXPECT_EQ(h.ctl->Send(0, "x", 1), 0);
    const std::string sent = h.Drain();
    static const std::regex kId("\nCID=([0-9]+)");
    std::string ids;
    for (std::sregex_iterator it(sent.begin(), sent.end(), kId), end; it != end; ++it) {
        ids += (*it)[1].str() + " ";
    }
    EXPECT_EQ(ids, "10 11 13 ");
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
            Harness h(8, 1);
            h.Attach(0, 21, 1);
            const auto* bytes = reinterpret_cast<const unsigned char*>(c.payload.data());
            if (bare) {
                char* text = nullptr;
                yEncode(bytes, int(c.payload.size()), &text);
                std::string body =
                    "CID=21\nSEQ=1\nCRC=0\nLEN=" + c.length + "\nDATA=" + text + "\n";
                free(text);
                EXPECT_EQ(h.ctl->ProcessNCData(&body[0], int(body.size()), *h.link), 1);
            } else {
                char* text = Encode64(bytes, int(c.payload.size()));
                h.Dispatch("CMD=NC_DATA\nCONNECTION_ID=21\nNC_LEN=" + c.length +
                           "\nNC_DATA=" + text + "\n");
                free(text);
            }
            const auto got = h.app.Of(kCtlDataReceived);
            ASSERT_EQ(got.size(), c.delivered == "-" ? 0u : 1u) << bare << " LEN=" << c.length;
            if (!got.empty()) {
                EXPECT_EQ(got[0].data, c.delivered) << bare << " LEN=" << c.length;
                EXPECT_EQ(got[0].session, 1);
            }
            EXPECT_EQ(h.ctl->m_sessions[0].m_nbufs, c.buffers) << bare << " LEN=" << c.length;
        }
    }
}

} // namespace

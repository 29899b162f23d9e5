#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::PairedLink;
using vel::CHTCTL;

std::string Response(const std::string& body, const std::string& status = "200 OK",
                     const std::string& eol = "\r\n") {
    return "HTTP/1.1 " + status + eol + "Content-length: " + std::to_string(body.size()) + eol +
           eol + body;
}

// The read loop's buffer with some bytes in it.
struct Received {
    Received() { m_buf = {0, 0, 0, nullptr}; }
    ~Received() { FreeHttpBuf(&m_buf); }
    void Append(const std::string& bytes) {
        const int need = m_buf.datalen + int(bytes.size()) + 1;
        if (need > m_buf.buflen) {
            m_buf.data = static_cast<char*>(realloc(m_buf.data, size_t(need) + 1));
            m_buf.buflen = need;
        }
        memcpy(m_buf.data + m_buf.datalen, bytes.data(), bytes.size());
        m_buf.datalen += int(bytes.size());
        m_buf.data[m_buf.datalen] = '\0';
    }
    std::string Left() const { return std::string(m_buf.data, size_t(m_buf.datalen)); }
    tagHTTP_BUF m_buf;
};

struct Dispatch : ::testing::Test {
    CHTCTL ctl{443};
    PairedLink paired{&ctl};
    Received in;

    // Runs the read loop's inner step: dispatch while a whole message is there.
    // Returns false when the loop would drop the link.
    bool Pump() {
        while (ctl.MessagePending(in.m_buf, paired.link)) {
            if (!ctl.ProcessMessage(in.m_buf, paired.link)) {
                return false;
            }
        }
        return paired.link.IsConnected();
    }
    unsigned long Period() const { return paired.link.m_comms_manage_pkt_period; }
};

TEST_F(Dispatch, TwoResponsesInOneReadAreBothHandled) {
    in.Append(Response("CMD=CONFIG_UPDATE\nCMPI=5\n") +
              Response("CMD=OPEN_REPLY\nFAILED_REASON=17\n"));
    EXPECT_TRUE(Pump());
    EXPECT_EQ(Period(), 5000u);
    EXPECT_EQ(ctl.GetFailedReason(), 17);
    EXPECT_EQ(in.Left(), "");
}

TEST_F(Dispatch, SplitResponseWaitsForTheWholeBody) {
    const std::string message = Response("CMD=CONFIG_UPDATE\nCMPI=8\n");
    const size_t headerEnd = message.find("\r\n\r\n") + 4;
    in.Append(message.substr(0, 5));
    EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link));
    in.Append(message.substr(5, headerEnd - 5 + 3)); // the header and three body bytes
    EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link));
    EXPECT_TRUE(paired.link.IsConnected());
    in.Append(message.substr(headerEnd + 3) + "HTTP/1.1 2");
    EXPECT_TRUE(Pump());
    EXPECT_EQ(Period(), 8000u);
    EXPECT_EQ(in.Left(), "HTTP/1.1 2"); // the next message's start stays
}

TEST_F(Dispatch, AcceptedShapes) {
    const std::string body = "CMD=CONFIG_UPDATE\nCMPI=3\n";
    struct Case {
        const char* name;
        std::string bytes;
    } cases[] = {
        {"bare line feeds", Response(body, "200 OK", "\n")},
        {"lower-case keyword and command", Response("cmd=config_update\ncmpi=3\n")},
        {"bytes and NULs before the start line", std::string("junk\0\0", 6) + Response(body)},
        {"NUL inside the body", Response(body + std::string("\0X=1\n", 5))},
    };
    for (const Case& c : cases) {
        paired.link.m_comms_manage_pkt_period = 60000;
        Received fresh;
        fresh.Append(c.bytes);
        ASSERT_TRUE(ctl.MessagePending(fresh.m_buf, paired.link)) << c.name;
        EXPECT_TRUE(ctl.ProcessMessage(fresh.m_buf, paired.link)) << c.name;
        EXPECT_EQ(Period(), 3000u) << c.name;
        EXPECT_EQ(fresh.Left(), "") << c.name;
    }
}

TEST_F(Dispatch, FirstContentLengthSaysWholeLastOneIsUsed) {
    const std::string body = "CMD=CONFIG_UPDATE\nCMPI=3\n";
    in.Append("HTTP/1.1 200 OK\r\nContent-length: " + std::to_string(body.size() + 2) +
              "\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n\r\n" + body + "XY");
    EXPECT_TRUE(ctl.MessagePending(in.m_buf, paired.link));
    EXPECT_TRUE(ctl.ProcessMessage(in.m_buf, paired.link));
    EXPECT_EQ(Period(), 3000u);
    EXPECT_EQ(in.Left(), "XY");
}

TEST_F(Dispatch, IgnoredAndUnknownCommandsAreConsumed) {
    in.Append(Response("CMD=HEARTBEAT\nCMPI=1\n") + Response("CMD=ACK\n") +
              Response("CMD=NO_SUCH\nCMPI=1\n") + Response("NOCMD=1\n\nCMD=CONFIG_UPDATE\n") +
              Response("CMD=MESSAGE\nMSG=SGk\nID=4\n"));
    EXPECT_TRUE(Pump());
    EXPECT_EQ(Period(), 60000u);
    EXPECT_EQ(in.Left(), "");
}

TEST_F(Dispatch, DataBlockIsConsumed) {
    in.Append("NC_DATA\nContent-Length: 6\n\nCID=1\nHTTP/1.1 200");
    EXPECT_TRUE(Pump());
    EXPECT_EQ(in.Left(), "HTTP/1.1 200");
}

// What drops the link: MessagePending disconnects by itself, or ProcessMessage
// reports failure (the loop disconnects) leaving the message in place.
TEST_F(Dispatch, RejectedMessages) {
    struct Case {
        const char* name;
        std::string bytes;
        bool pendingDisconnects;
    } cases[] = {
        {"status 404", Response("CMD=ACK\n", "404 Not Found"), false},
        {"status line without a blank", "HTTP/1.1\r\nContent-length: 8\r\n\r\nCMD=ACK\n", false},
        {"missing Content-length", "HTTP/1.1 200 OK\r\nServer: x\r\n\r\nCMD=ACK\n", true},
        {"zero Content-length", "HTTP/1.1 200 OK\r\nContent-length: 0\r\n\r\nCMD=ACK\n", true},
        {"negative Content-length", "HTTP/1.1 200 OK\r\nContent-length: -8\r\n\r\nCMD=ACK\n", true},
        {"neither start line", "GARBAGE 200 OK\r\nContent-length: 8\r\n\r\nCMD=ACK\n", true},
        {"Content-length only in the body", "HTTP/1.1 200 OK\r\n\r\nContent-length: 3\n", true},
        {"data block with carriage returns", "NC_DATA\r\nContent-length: 5\r\n\r\nCID=1", false},
        {"later Content-length longer than the data",
         "HTTP/1.1 200 OK\r\nContent-length: 8\r\nContent-length: 50\r\n\r\nCMD=ACK\n", false},
    };
    for (const Case& c : cases) {
        PairedLink link(&ctl);
        Received fresh;
        fresh.Append(c.bytes);
        if (c.pendingDisconnects) {
            EXPECT_FALSE(ctl.MessagePending(fresh.m_buf, link.link)) << c.name;
            EXPECT_FALSE(link.link.IsConnected()) << c.name;
            continue;
        }
        ASSERT_TRUE(ctl.MessagePending(fresh.m_buf, link.link)) << c.name;
        const int before = fresh.m_buf.datalen;
        EXPECT_FALSE(ctl.ProcessMessage(fresh.m_buf, link.link)) << c.name;
        EXPECT_EQ(fresh.m_buf.datalen, before) << c.name; // not removed
    }
}

TEST_F(Dispatch, ShortOrHeaderlessBuffersAreNotPending) {
    for (const char* bytes : {"", "HTTP/1.", "HTTP/1.1 200 OK\r\nContent-length: 5\r\n"}) {
        Received fresh;
        fresh.Append(bytes);
        EXPECT_FALSE(ctl.MessagePending(fresh.m_buf, paired.link)) << bytes;
        EXPECT_TRUE(ctl.ProcessMessage(fresh.m_buf, paired.link)) << bytes; // nothing to do
    }
    EXPECT_TRUE(paired.link.IsConnected());
}

TEST_F(Dispatch, HugeContentLengthNeverReadsPastTheData) {
    in.Append("HTTP/1.1 200 OK\r\nContent-length: 99999999999999999999\r\n\r\nCMD=ACK\n");
    EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link));
    EXPECT_TRUE(paired.link.IsConnected());
}

TEST_F(Dispatch, BodyViewEndsAtTheContentLength) {
    // The body's last line has no line feed: the next message's bytes must
    // not be read as part of it.
    in.Append(Response("CMD=CONFIG_UPDATE\nCMPI=4") + Response("CMD=CONFIG_UPDATE\nCMPI=6\n"));
    EXPECT_TRUE(Pump());
    EXPECT_EQ(Period(), 6000u);
    EXPECT_EQ(in.Left(), "");
}

} // namespace

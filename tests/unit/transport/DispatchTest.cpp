#include <string>
#include <tuple>

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
    explicit Received(const std::string& bytes = "") { Append(bytes); }
    ~Received() { FreeHttpBuf(&m_buf); }
    void Append(const std::string& bytes) {
        m_buf.data = static_cast<char*>(realloc(m_buf.data, m_buf.datalen + bytes.size() + 2));
        memcpy(m_buf.data + m_buf.datalen, bytes.data(), bytes.size());
        m_buf.datalen += int(bytes.size());
        m_buf.buflen = m_buf.datalen + 1;
        m_buf.data[m_buf.datalen] = '\0';
    }
    std::string Left() const { return std::string(m_buf.data, size_t(m_buf.datalen)); }
    tagHTTP_BUF m_buf{0, 0, 0, nullptr};
};

struct Dispatch : ::testing::Test {
    CHTCTL ctl{443};
    PairedLink paired{&ctl};

    // The read loop's inner step: dispatch while a whole message is there.
    // False when the loop would drop the link.
    bool Pump(Received& in) {
        while (ctl.MessagePending(in.m_buf, paired.link)) {
            if (!ctl.ProcessMessage(in.m_buf, paired.link)) {
                return false;
            }
        }
        return paired.link.IsConnected();
    }
    unsigned long Period() const { return paired.link.m_comms_manage_pkt_period; }
};

TEST_F(Dispatch, SplitResponseWaitsForTheWholeBody) {
    const std::string message = Response("CMD=CONFIG_UPDATE\nCMPI=8\n");
    const size_t headerEnd = message.find("\r\n\r\n") + 4;
    Received in(message.substr(0, 5));
    EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link));
    in.Append(message.substr(5, headerEnd - 5 + 3)); // the header and three body bytes
    EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link));
    EXPECT_TRUE(paired.link.IsConnected());
    in.Append(message.substr(headerEnd + 3) + "HTTP/1.1 2");
    EXPECT_TRUE(Pump(in));
    EXPECT_EQ(Period(), 8000u);
    EXPECT_EQ(in.Left(), "HTTP/1.1 2"); // the next message's start stays
}

// Whole messages are taken off the front of the buffer, whatever they carry.
TEST_F(Dispatch, AcceptedMessagesAreConsumed) {
    const std::string body = "CMD=CONFIG_UPDATE\nCMPI=3\n";
    const std::tuple<const char*, std::string, unsigned long, std::string> cases[] = {
        {"bare line feeds", Response(body, "200 OK", "\n"), 3000, ""},
        {"lower-case keyword and command", Response("cmd=config_update\ncmpi=3\n"), 3000, ""},
        {"bytes and NULs before the start line", std::string("junk\0\0", 6) + Response(body), 3000,
         ""},
        {"NUL inside the body", Response(body + std::string("\0X=1\n", 5)), 3000, ""},
        {"first Content-length says whole, the last is used",
         "HTTP/1.1 200 OK\r\nContent-length: 27\r\nCONTENT-LENGTH: 25\r\n\r\n" + body + "XY", 3000,
         "XY"},
        // Its last line has no line feed: the next message must not be read
        // as part of it.
        {"body ends at its length",
         Response("CMD=CONFIG_UPDATE\nCMPI=4") + Response("CMD=CONFIG_UPDATE\nCMPI=6\n"), 6000, ""},
        {"ignored, unknown and command-less bodies",
         Response("CMD=HEARTBEAT\nCMPI=1\n") + Response("CMD=ACK\n") +
             Response("CMD=NO_SUCH\nCMPI=1\n") + Response("NOCMD=1\n\nCMD=CONFIG_UPDATE\n") +
             Response("CMD=MESSAGE\nMSG=SGk\nID=4\n"),
         60000, ""},
        {"data block", "NC_DATA\nContent-Length: 6\n\nCID=1\nHTTP/1.1 200", 60000, "HTTP/1.1 200"},
    };
    for (const auto& [name, bytes, period, left] : cases) {
        paired.link.m_comms_manage_pkt_period = 60000;
        Received in(bytes);
        EXPECT_TRUE(Pump(in)) << name;
        EXPECT_EQ(Period(), period) << name;
        EXPECT_EQ(in.Left(), left) << name;
    }
}

// What drops the link: MessagePending disconnects by itself, or ProcessMessage
// reports failure (the loop disconnects) leaving the message in place.
TEST_F(Dispatch, RejectedMessages) {
    const std::tuple<const char*, std::string, bool> cases[] = {
        // ..., pending disconnects
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
    for (const auto& [name, bytes, pendingDisconnects] : cases) {
        PairedLink link(&ctl);
        Received in(bytes);
        if (pendingDisconnects) {
            EXPECT_FALSE(ctl.MessagePending(in.m_buf, link.link)) << name;
            EXPECT_FALSE(link.link.IsConnected()) << name;
            continue;
        }
        ASSERT_TRUE(ctl.MessagePending(in.m_buf, link.link)) << name;
        EXPECT_FALSE(ctl.ProcessMessage(in.m_buf, link.link)) << name;
        EXPECT_EQ(size_t(in.m_buf.datalen), bytes.size()) << name; // not removed
    }
}

TEST_F(Dispatch, IncompleteBuffersWaitWithoutDroppingTheLink) {
    for (const char* bytes : {"", "HTTP/1.", "HTTP/1.1 200 OK\r\nContent-length: 5\r\n"}) {
        Received in(bytes);
        EXPECT_FALSE(ctl.MessagePending(in.m_buf, paired.link)) << bytes;
        EXPECT_TRUE(ctl.ProcessMessage(in.m_buf, paired.link)) << bytes; // no header end
    }
    Received huge("HTTP/1.1 200 OK\r\nContent-length: 99999999999999999999\r\n\r\nCMD=ACK\n");
    EXPECT_FALSE(ctl.MessagePending(huge.m_buf, paired.link));
    EXPECT_TRUE(paired.link.IsConnected());
}

} // namespace

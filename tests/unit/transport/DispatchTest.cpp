#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::PairedLink;

std::string Response(const std::string& body, const std::string& status = "200 OK",
                     const std::string& eol = "\r\n") {
    return "HTTP/1.1 " + status + eol + "Content-length: " + std::to_string(body.size()) + eol +
           eol + body;
}

// The read loop's inner step on a received buffer: dispatch while a whole
// message is there. What comes of it, the CMPI period applied, what is left.
enum Outcome { kDispatched, kWaits, kPendingDrops, kProcessFails };

TEST(Dispatch, WholeMessagesAreHandledPartOnesWaitAndBadHeadersDropTheLink) {
    const std::string body = "CMD=CONFIG_UPDATE\nCMPI=3\n";
    const std::string kHuge = "HTTP/1.1 200 OK\r\nContent-length: 99999999999999999999\r\n\r\n";
    const struct {
        const char* name;
        std::string bytes;
        Outcome outcome;
        unsigned long period = 60000; // kDispatched: the CMPI applied, the bytes left
        std::string left = "";
    } cases[] = {
        {"bare line feeds, lower case", Response("cmd=config_update\ncmpi=3\n", "200 OK", "\n"),
         kDispatched, 3000},
        {"bytes and NULs before the start line", std::string("junk\0\0", 6) + Response(body),
         kDispatched, 3000},
        {"NUL inside the body", Response(body + std::string("\0X=1\n", 5)), kDispatched, 3000},
        {"the last Content-length is used",
         "HTTP/1.1 200 OK\r\nContent-length: 27\r\nCONTENT-LENGTH: 25\r\n\r\n" + body + "XY",
         kDispatched, 3000, "XY"},
        // Its last line has no line feed: the next message is not part of it.
        {"body ends at its length",
         Response("CMD=CONFIG_UPDATE\nCMPI=4") + Response("CMD=CONFIG_UPDATE\nCMPI=6\n"),
         kDispatched, 6000, ""},
        {"ignored, unknown and command-less bodies",
         Response("CMD=HEARTBEAT\nCMPI=1\n") + Response("CMD=NO_SUCH\nCMPI=1\n") +
             Response("NOCMD=1\n\nCMD=CONFIG_UPDATE\n") + Response("CMD=MESSAGE\nMSG=SGk\nID=4\n"),
         kDispatched},
        {"data block", "NC_DATA\nContent-Length: 6\n\nCID=1\nHTTP/1.1 200", kDispatched, 60000,
         "HTTP/1.1 200"},
        {"header not ended", "HTTP/1.1 200 OK\r\nContent-length: 5\r\n", kWaits},
        {"body not whole", Response(body).substr(0, 40), kWaits},
        {"huge Content-length", kHuge, kWaits},
        {"status 404", Response("CMD=ACK\n", "404 Not Found"), kProcessFails},
        {"data block with carriage returns", "NC_DATA\r\nContent-length: 5\r\n\r\nCID=1",
         kProcessFails},
        {"later Content-length longer than the data",
         "HTTP/1.1 200 OK\r\nContent-length: 8\r\nContent-length: 50\r\n\r\nCMD=ACK\n",
         kProcessFails},
        {"missing Content-length", "HTTP/1.1 200 OK\r\nServer: x\r\n\r\nCMD=ACK\n", kPendingDrops},
        {"negative Content-length", "HTTP/1.1 200 OK\r\nContent-length: -8\r\n\r\nCMD=ACK\n",
         kPendingDrops},
        {"neither start line", "GARBAGE 200 OK\r\nContent-length: 8\r\n\r\nCMD=ACK\n",
         kPendingDrops},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        vel::CHTCTL ctl(vel::kDefaultGatewayPort);
        PairedLink paired(&ctl);
        std::string bytes = c.bytes;
        tagHTTP_BUF in = {int(bytes.size()) + 1, int(bytes.size()), 0, nullptr};
        in.data = static_cast<char*>(malloc(bytes.size() + 1));
        memcpy(in.data, bytes.c_str(), bytes.size() + 1);
        bool processed = true;
        while (processed && ctl.MessagePending(in, paired.link)) {
            processed = ctl.ProcessMessage(in, paired.link);
        }
        EXPECT_EQ(paired.link.IsConnected(), c.outcome != kPendingDrops);
        EXPECT_EQ(processed, c.outcome != kProcessFails);
        if (c.outcome == kProcessFails) {
            EXPECT_EQ(size_t(in.datalen), bytes.size()) << "the message stays";
        } else if (c.outcome == kWaits) {
            EXPECT_EQ(std::string(in.data, size_t(in.datalen)), bytes);
        } else if (c.outcome == kDispatched) {
            EXPECT_EQ(paired.link.m_comms_manage_pkt_period, c.period);
            EXPECT_EQ(std::string(in.data, size_t(in.datalen)), c.left);
        }
        FreeHttpBuf(&in);
    }
}

} // namespace

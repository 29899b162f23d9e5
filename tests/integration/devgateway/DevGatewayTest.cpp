// The development gateway driven over loopback TCP by a raw client: replies,
// recorded requests and every pushed message checked byte for byte.
#include "DevGateway.h"
#include "RawClient.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <tuple>

using namespace std::string_literals;
using devgw::DevGateway;
using devgw::Options;
using devgw::Request;

namespace {

std::string Response(const std::string& body) {
    return devgw::WrapResponse(body);
}

const std::string kOpen = ClientRequest("CMD=OPEN\nCLIENT_VERSION=1.1\nMAXPACKET=928\n");

} // namespace

// The packet texts as the daemon splits them (all three are pushed byte for
// byte below).
TEST(DevGatewayWire, NotificationTextLeavesOutOnlyTrailingParts) {
    EXPECT_EQ(devgw::NotificationText("hi", "", ""), "hi");
    EXPECT_EQ(devgw::NotificationText("hi", "30|X", ""), "hi\0"s + "30|X\0"s);
    EXPECT_EQ(devgw::NotificationText("hi", "", "7"), "hi\0\0"s + "7\0"s);
}

TEST(DevGatewayOpen, AnswersOpenWithTheConfiguredReply) {
    Options tuned;
    tuned.cmpi = "30";
    tuned.result = 3;
    tuned.failedReason = 7;
    tuned.serverVersion = "gw 9";
    tuned.protocolVersion = "";
    Options older;
    older.protocolVersion = "1.0";
    older.failedReason = 0;
    const std::tuple<Options, std::string> cases[] = {
        {Options(), "HTTP/1.1 200 OK\r\nContent-length: 85\r\n\r\nCMD=OPEN_REPLY\n"
                    "SERVER_VERSION=devgateway 1.0\nRESULT=0\nPROTOCOL_VER=1.1\nMAXPACKET=928\n"},
        {tuned, Response("CMD=OPEN_REPLY\nSERVER_VERSION=gw 9\nRESULT=3\nCMPI=30\n"
                         "FAILED_REASON=7\nMAXPACKET=928\n")},
        {older, Response("CMD=OPEN_REPLY\nSERVER_VERSION=devgateway 1.0\nRESULT=0\n"
                         "PROTOCOL_VER=1.0\nFAILED_REASON=0\nMAXPACKET=928\n")},
    };
    for (const auto& [options, reply] : cases) {
        SCOPED_TRACE(reply);
        DevGateway gateway(options);
        int port = gateway.Start();
        ASSERT_GT(port, 0);
        RawClient client(port);
        ASSERT_TRUE(client.Send(kOpen));
        EXPECT_EQ(client.Read(reply.size()), reply);
    }
}

TEST(DevGatewayOpen, AcknowledgesOtherRequestsAndCanLeaveOpenUnanswered) {
    Options options;
    options.answerOpen = false;
    options.ackRequests = true;
    DevGateway gateway(options);
    RawClient client(gateway.Start());
    ASSERT_TRUE(client.Send(kOpen + ClientRequest("CMD=POLL\n")));
    const std::string ack = Response("CMD=ACK\n");
    EXPECT_EQ(client.Read(ack.size()), ack); // the first answer is the POLL's
}

TEST(DevGatewayRequests, RecordsRequestsWholeAndInOrder) {
    DevGateway gateway;
    RawClient client(gateway.Start());
    // Two requests in one write.
    ASSERT_TRUE(client.Send(kOpen + ClientRequest("CMD=POLL\n")));
    ASSERT_TRUE(gateway.WaitForRequest("POLL", 2000));
    // One request split inside the header, at its end and inside the body.
    const std::string ack = ClientRequest("CMD=MESSAGEACK\nID=7\nUF=0\nUN=alice\nUF=2\n");
    const size_t headerEnd = ack.find("\n\n") + 2;
    size_t from = 0;
    for (size_t cut : {size_t(10), headerEnd - 1, headerEnd + 5, ack.size()}) {
        ASSERT_TRUE(client.Send(ack.substr(from, cut - from)));
        from = cut;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Request request;
    ASSERT_TRUE(gateway.WaitForRequest("messageack", 2000, &request));
    EXPECT_EQ(request.client, 1);
    EXPECT_EQ(request.raw, ack);
    EXPECT_EQ(request.header, ack.substr(0, headerEnd));
    EXPECT_EQ(request.body, "CMD=MESSAGEACK\nID=7\nUF=0\nUN=alice\nUF=2\n");
    EXPECT_EQ(request.command, "MESSAGEACK");
    const std::vector<std::pair<std::string, std::string>> fields = {
        {"CMD", "MESSAGEACK"}, {"ID", "7"}, {"UF", "0"}, {"UN", "alice"}, {"UF", "2"}};
    EXPECT_EQ(request.fields, fields);
    EXPECT_EQ(request.Field("UF"), "2");
    EXPECT_EQ(request.Field("XX"), "");
    EXPECT_TRUE(request.Has("UN"));
    EXPECT_FALSE(request.Has("un"));

    std::vector<std::string> commands;
    for (const auto& r : gateway.Requests()) {
        commands.push_back(r.command);
    }
    EXPECT_EQ(commands, (std::vector<std::string>{"OPEN", "POLL", "MESSAGEACK"}));
    EXPECT_EQ(gateway.RequestsFor("poll").size(), 1u);
    EXPECT_FALSE(gateway.WaitForRequest("POLL", 50, nullptr, 2));
    gateway.ClearRequests();
    EXPECT_TRUE(gateway.Requests().empty());
}

TEST(DevGatewayRequests, AcceptsHeaderVariants) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"POST / HTTP/1.1\r\ncontent-length: 9\r\n\r\nCMD=PING\n", "CMD=PING\n", "PING"},
        {"POST / HTTP/1.1\nCONTENT-LENGTH:11\n\r\ncmd=x\nA\nB=\n", "cmd=x\nA\nB=\n", "x"},
        {"POST / HTTP/1.1\n\n", "", ""},
    };
    for (const auto& [raw, body, command] : cases) {
        SCOPED_TRACE(raw);
        DevGateway gateway;
        RawClient client(gateway.Start());
        ASSERT_TRUE(client.Send(raw + kOpen));
        ASSERT_TRUE(gateway.WaitForRequest("OPEN", 2000));
        const Request first = gateway.Requests().front();
        EXPECT_EQ(first.raw, raw);
        EXPECT_EQ(first.body, body);
        EXPECT_EQ(first.command, command);
    }
    DevGateway gateway;
    RawClient client(gateway.Start());
    ASSERT_TRUE(client.Send("POST / HTTP/1.1\nContent-Length: 12\n\ncmd=x\nA\nB=\r\n"));
    Request request;
    ASSERT_TRUE(gateway.WaitForRequest("X", 2000, &request));
    const std::vector<std::pair<std::string, std::string>> fields = {
        {"cmd", "x"}, {"A", ""}, {"B", ""}};
    EXPECT_EQ(request.fields, fields);
}

TEST(DevGatewayPush, EveryPushIsByteExact) {
    DevGateway gateway;
    RawClient client(gateway.Start());
    ASSERT_TRUE(gateway.WaitForClients(1, 2000));
    const std::tuple<const char*, std::function<bool()>, std::string> pushes[] = {
        {"message", [&] { return gateway.SendMessage(42, "hello", "admin"); },
         Response("CMD=MESSAGE\nID=42\nSENDER=admin\nMSG=aGVsbG8A\n")},
        {"notification", [&] { return gateway.SendNotification(7, "hello", "30|Notice", "5"); },
         Response("CMD=MESSAGE\nID=7\nSENDER=admin\nMSG=aGVsbG8AMzB8Tm90aWNlADUA\n")},
        {"config update", [&] { return gateway.SendConfigUpdate(45); },
         Response("CMD=CONFIG_UPDATE\nCMPI=45\n")},
        {"file info",
         [&] {
             return gateway.SendFileInfoReply("notify-customization.lnk", "sxa-custom.dat",
                                              5000000000ull, 12);
         },
         Response("CMD=GETFILEINFO_REPLY\nRESULT=0\nLINK=notify-customization.lnk\n"
                  "FNAME=sxa-custom.dat\nSUB=\nFSIZE=12\nLWT=5000000000\n")},
        {"file info error", [&] { return gateway.SendFileInfoReply("l", "f", 1, 0, 5); },
         Response("CMD=GETFILEINFO_REPLY\nRESULT=5\nLINK=l\nFNAME=f\nSUB=\nFSIZE=0\nLWT=1\n")},
        {"data A", [&] { return gateway.SendNCDataA(9, "\x01\x02\x03", 4); },
         Response("CMD=NC_DATA\nCONNECTION_ID=9\nNC_SEQNO=4\nNC_CRC=2856550370\nNC_LEN=3\n"
                  "NC_DATA=AQID\n")},
        {"data A binary", [&] { return gateway.SendNCDataA(2, "\0\xFB\xFF"s); },
         Response("CMD=NC_DATA\nCONNECTION_ID=2\nNC_SEQNO=1\nNC_CRC=3673485590\nNC_LEN=3\n"
                  "NC_DATA=APv)\n")},
        {"data B", [&] { return gateway.SendNCDataB(9, "\x01\x02\x03"); },
         "NC_DATA\nContent-length: 42\n\nCID=9\nSEQ=1\nCRC=2856550370\nLEN=3\nDATA=+,-\n"},
        {"data B escapes",
         [&] { return gateway.SendNCDataB(1, "\xD6\xE0\x04\x13\xE3\xDF\xD7", 2); },
         "NC_DATA\nContent-length: 52\n\nCID=1\nSEQ=2\nCRC=3193676691\nLEN=7\n"
         "DATA==@=J=n=}=M=I\x01\n"},
        {"body", [&] { return gateway.SendBody("CMD=HEARTBEAT\n"); }, Response("CMD=HEARTBEAT\n")},
        {"raw", [&] { return gateway.SendRaw("any\0thing"s); }, "any\0thing"s},
    };
    for (const auto& [name, send, bytes] : pushes) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(send());
        EXPECT_EQ(client.Read(bytes.size()), bytes);
    }
}

TEST(DevGatewayPush, ReachesTheChosenClientOrAll) {
    DevGateway gateway;
    EXPECT_FALSE(gateway.SendConfigUpdate(1)); // not started, nobody there
    const int port = gateway.Start();
    RawClient first(port), second(port);
    Request a, b;
    ASSERT_TRUE(first.Send(ClientRequest("CMD=POLL\n")));
    ASSERT_TRUE(gateway.WaitForRequest("POLL", 2000, &a));
    ASSERT_TRUE(second.Send(ClientRequest("CMD=POLL\n")));
    ASSERT_TRUE(gateway.WaitForRequest("POLL", 2000, &b, 2));
    EXPECT_EQ(a.client, 1);
    EXPECT_EQ(b.client, 2);
    EXPECT_EQ(gateway.ClientIds(), (std::vector<int>{1, 2}));

    EXPECT_TRUE(gateway.SendConfigUpdate(5, b.client));
    EXPECT_FALSE(gateway.SendConfigUpdate(5, 99));
    EXPECT_TRUE(gateway.SendConfigUpdate(6));
    const std::string five = Response("CMD=CONFIG_UPDATE\nCMPI=5\n");
    const std::string six = Response("CMD=CONFIG_UPDATE\nCMPI=6\n");
    EXPECT_EQ(first.Read(six.size()), six);
    EXPECT_EQ(second.Read(five.size() + six.size()), five + six);
}

TEST(DevGatewayPush, ConcurrentPushesArriveWhole) {
    DevGateway gateway;
    RawClient client(gateway.Start());
    ASSERT_TRUE(gateway.WaitForClients(1, 2000));
    constexpr int kEach = 200;
    auto pusher = [&](unsigned seconds) {
        for (int i = 0; i < kEach; ++i) {
            gateway.SendConfigUpdate(seconds);
        }
    };
    std::thread one(pusher, 1), two(pusher, 2);
    const std::string a = Response("CMD=CONFIG_UPDATE\nCMPI=1\n");
    const std::string b = Response("CMD=CONFIG_UPDATE\nCMPI=2\n");
    std::string stream = client.Read(2 * kEach * a.size(), 5000);
    one.join();
    two.join();
    ASSERT_EQ(stream.size(), 2 * kEach * a.size());
    int ones = 0;
    for (size_t at = 0; at < stream.size(); at += a.size()) {
        const std::string piece = stream.substr(at, a.size());
        ASSERT_TRUE(piece == a || piece == b) << piece;
        ones += piece == a;
    }
    EXPECT_EQ(ones, kEach);
}

TEST(DevGatewayFiles, ServesGetAndCloses) {
    DevGateway gateway;
    gateway.ServeFile("notify-customization.lnk", "LOGO\0DATA"s);
    gateway.ServeFile("/other", "x");
    const int port = gateway.Start();
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                           "Content-Length: ";
    {
        RawClient get(port);
        ASSERT_TRUE(get.Send("GET /notify-customization.lnk HTTP/1.1\r\nHost: x\r\n\r\n"));
        EXPECT_EQ(get.ReadToEnd(), ok + "9\r\nConnection: close\r\n\r\nLOGO\0DATA"s);
        EXPECT_TRUE(get.Ended());
        EXPECT_FALSE(get.WasReset());
    }
    {
        RawClient get(port);
        ASSERT_TRUE(
            get.Send("GET http://127.0.0.1:" + std::to_string(port) + "/other HTTP/1.0\r\n\r\n"));
        EXPECT_EQ(get.ReadToEnd(), ok + "1\r\nConnection: close\r\n\r\nx");
    }
    {
        RawClient get(port); // split inside "GET ", bare line feeds
        ASSERT_TRUE(get.Send("GE"));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(get.Send("T /missing HTTP/1.0\n\n"));
        EXPECT_EQ(get.ReadToEnd().substr(0, 23), "HTTP/1.1 404 Not Found\r");
        EXPECT_TRUE(get.Ended());
    }
    EXPECT_EQ(gateway.GetRequests(),
              (std::vector<std::string>{"notify-customization.lnk", "other", "missing"}));
    EXPECT_EQ(gateway.ClientCount(), 0);
    EXPECT_FALSE(gateway.WaitForConnectionsEver(1, 50)); // file requests are not clients
    EXPECT_TRUE(gateway.Requests().empty());
}

TEST(DevGatewayLimits, OversizedRequestsDropTheClientOnly) {
    const std::string endless(64 * 1024, 'A');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"header without end", "POST / HTTP/1.1\nX: ", endless},
        {"huge length", "POST / HTTP/1.1\nContent-Length: 99999999999\n\n", endless},
    };
    DevGateway gateway;
    const int port = gateway.Start();
    for (const auto& [name, head, repeat] : cases) {
        SCOPED_TRACE(name);
        RawClient hog(port);
        bool sent = hog.Send(head);
        for (int i = 0; sent && i < 40; ++i) { // at most 2.5 MiB
            sent = hog.Send(repeat);
        }
        hog.ReadToEnd(3000);
        EXPECT_TRUE(hog.Ended());
    }
    RawClient fine(port);
    ASSERT_TRUE(fine.Send(kOpen));
    EXPECT_EQ(fine.Read(9), "HTTP/1.1 ");
    EXPECT_EQ(gateway.ClientCount(), 1);
}

TEST(DevGatewayLifecycle, DropResetsAndStopRestarts) {
    DevGateway gateway;
    const int port = gateway.Start();
    ASSERT_GT(port, 0);
    EXPECT_EQ(gateway.Port(), port);
    RawClient first(port);
    ASSERT_TRUE(first.Send(kOpen));
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", 2000));

    gateway.DropClients();
    EXPECT_EQ(gateway.ClientCount(), 0);
    first.ReadToEnd();
    EXPECT_TRUE(first.WasReset()); // the client must see ECONNRESET

    RawClient second(port);
    ASSERT_TRUE(gateway.WaitForConnectionsEver(2, 2000));
    ASSERT_TRUE(second.Send(kOpen));
    Request request;
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", 2000, &request, 2));
    EXPECT_EQ(request.client, 2);
    ASSERT_TRUE(second.Send("POST / HTTP/1.1\nContent-Le")); // left mid-header

    gateway.Stop();
    EXPECT_EQ(gateway.Port(), -1);
    second.ReadToEnd();
    EXPECT_TRUE(second.Ended());
    gateway.Stop(); // twice is harmless

    ASSERT_EQ(gateway.Start(uint16_t(port)), port);
    RawClient third(port);
    ASSERT_TRUE(third.Send(kOpen));
    EXPECT_EQ(third.Read(9), "HTTP/1.1 ");
    EXPECT_EQ(gateway.RequestsFor("OPEN").size(), 3u);
    // The destructor stops with a client still connected.
}

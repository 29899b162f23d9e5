// The development gateway over loopback TCP: what it sends, byte for byte, the
// requests it records, and bad input (files served over GET: the end-to-end
// customisation test).
#include "DevGateway.h"
#include "TransportFixtures.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>
#include <tuple>

using namespace std::string_literals;
using devgw::DevGateway;
using devgw::WrapResponse;

namespace {

// A loopback client; every send and every wait for data is bounded.
class Client {
public:
    explicit Client(int port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        timeval bounded{3, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &bounded, sizeof bounded);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(uint16_t(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(m_fd); }
    bool Send(const std::string& bytes) {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
    // Until n bytes came, the peer closed, or nothing came for 3 s.
    std::string Read(size_t n = size_t(1) << 30) {
        std::string data;
        pollfd readable{m_fd, POLLIN, 0};
        char chunk[4096];
        while (data.size() < n && !ended && poll(&readable, 1, 3000) > 0) {
            const ssize_t got = recv(m_fd, chunk, std::min(sizeof chunk, n - data.size()), 0);
            ended = got <= 0;
            data.append(chunk, size_t(std::max<ssize_t>(got, 0)));
        }
        return data;
    }
    bool ended = false;

private:
    int m_fd;
};

// A request as the daemon builds it: bare line feeds, padded length.
std::string ClientRequest(const std::string& body) {
    return transport_test::Post("127.0.0.1", body);
}

const std::string kOpen = ClientRequest("CMD=OPEN\nCLIENT_VERSION=1.1\nMAXPACKET=928\n");

} // namespace

TEST(DevGatewayWire, EveryFrameIsByteExact) {
    devgw::Options tuned;
    tuned.cmpi = "30";
    tuned.failedReason = 7;
    tuned.protocolVersion = "";
    const std::pair<devgw::Options, std::string> replies[] = {
        {devgw::Options(), "HTTP/1.1 200 OK\r\nContent-length: 85\r\n\r\nCMD=OPEN_REPLY\n"
                           "SERVER_VERSION=devgateway 1.0\nRESULT=0\nPROTOCOL_VER=1.1\n"
                           "MAXPACKET=928\n"},
        {tuned, WrapResponse("CMD=OPEN_REPLY\nSERVER_VERSION=devgateway 1.0\nRESULT=0\n"
                             "CMPI=30\nFAILED_REASON=7\nMAXPACKET=928\n")},
    };
    for (const auto& [options, reply] : replies) {
        DevGateway gateway(options);
        Client client(gateway.Start());
        ASSERT_TRUE(client.Send(kOpen));
        EXPECT_EQ(client.Read(reply.size()), reply);
    }

    DevGateway gateway;
    Client client(gateway.Start());
    ASSERT_TRUE(gateway.WaitForClients(1, 2000));
    const std::tuple<const char*, std::function<bool()>, std::string> pushes[] = {
        {"message", [&] { return gateway.SendMessage(42, "hello", "admin"); },
         WrapResponse("CMD=MESSAGE\nID=42\nSENDER=admin\nMSG=aGVsbG8A\n")},
        {"notification", [&] { return gateway.SendNotification(7, "hello", "30|Notice", "5"); },
         WrapResponse("CMD=MESSAGE\nID=7\nSENDER=admin\nMSG=aGVsbG8AMzB8Tm90aWNlADUA\n")},
        {"config update", [&] { return gateway.SendConfigUpdate(45); },
         WrapResponse("CMD=CONFIG_UPDATE\nCMPI=45\n")},
        {"file info",
         [&] {
             return gateway.SendFileInfoReply("notify-customization.lnk", "sxa-custom.dat",
                                              5000000000ull, 12);
         },
         WrapResponse("CMD=GETFILEINFO_REPLY\nRESULT=0\nLINK=notify-customization.lnk\n"
                      "FNAME=sxa-custom.dat\nSUB=\nFSIZE=12\nLWT=5000000000\n")},
        {"data A", [&] { return gateway.SendNCDataA(2, "\0\xFB\xFF"s); },
         WrapResponse("CMD=NC_DATA\nCONNECTION_ID=2\nNC_SEQNO=1\nNC_CRC=3673485590\nNC_LEN=3\n"
                      "NC_DATA=APv)\n")},
        {"data B", [&] { return gateway.SendNCDataB(1, "\xD6\xE0\x04\x13\xE3\xDF\xD7", 2); },
         "NC_DATA\nContent-length: 52\n\nCID=1\nSEQ=2\nCRC=3193676691\nLEN=7\n"
         "DATA==@=J=n=}=M=I\x01\n"},
        {"raw", [&] { return gateway.SendRaw("any\0thing"s); }, "any\0thing"s},
    };
    for (const auto& [name, push, bytes] : pushes) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(push());
        EXPECT_EQ(client.Read(bytes.size()), bytes);
    }
}

TEST(DevGatewayRequests, RecordsRequestsWholeAndInOrder) {
    DevGateway gateway;
    Client client(gateway.Start());
    ASSERT_TRUE(client.Send(kOpen + ClientRequest("CMD=POLL\n"))); // two in one write
    ASSERT_TRUE(gateway.WaitForRequest("POLL", 2000));
    // One request split inside the header, at its end and inside the body.
    const std::string body = "CMD=MESSAGEACK\nID=7\nUF=0\nUN=alice\nUF=2\n";
    const std::string ack = ClientRequest(body);
    const size_t headerEnd = ack.find("\n\n") + 2;
    size_t from = 0;
    for (size_t cut : {size_t(10), headerEnd - 1, headerEnd + 5, ack.size()}) {
        ASSERT_TRUE(client.Send(ack.substr(from, cut - from)));
        from = cut;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    devgw::Request request;
    ASSERT_TRUE(gateway.WaitForRequest("messageack", 2000, &request));
    EXPECT_EQ(request.raw, ack);
    EXPECT_EQ(request.fields,
              (std::vector<std::pair<std::string, std::string>>{
                  {"CMD", "MESSAGEACK"}, {"ID", "7"}, {"UF", "0"}, {"UN", "alice"}, {"UF", "2"}}));
    std::vector<std::string> commands;
    for (const auto& r : gateway.Requests()) {
        commands.push_back(r.command);
    }
    EXPECT_EQ(commands, (std::vector<std::string>{"OPEN", "POLL", "MESSAGEACK"}));
}

// Each bad client is dropped when its input grows past the limit; the
// gateway goes on serving the others.
TEST(DevGatewayLimits, BadInputDropsOnlyThatClient) {
    const std::string endless(64 * 1024, 'A');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"header without end", "POST / HTTP/1.1\nX: ", endless},
        {"huge length", "POST / HTTP/1.1\nContent-Length: 99999999999\n\n", endless},
        {"file request without end", "GET /x", endless},
        {"binary garbage", "\0\xff\x80\n\n"s, std::string(64 * 1024, '\xfe')},
    };
    DevGateway gateway;
    const int port = gateway.Start();
    for (const auto& [name, head, repeat] : cases) {
        SCOPED_TRACE(name);
        Client hog(port);
        bool sent = hog.Send(head);
        for (int i = 0; sent && i < 40; ++i) { // at most 2.5 MiB
            sent = hog.Send(repeat);
        }
        hog.Read();
        EXPECT_TRUE(hog.ended);
    }
    Client fine(port);
    ASSERT_TRUE(fine.Send(kOpen));
    EXPECT_EQ(fine.Read(9), "HTTP/1.1 ");
    EXPECT_EQ(gateway.ClientCount(), 1);
}

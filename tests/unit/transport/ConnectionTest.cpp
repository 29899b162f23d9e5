#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>

#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "transport/TransportTimings.h"
#include "transport/htctlconnection.h"

namespace {

using transport_test::PairedLink;
using vel::CTL_HTTP_CONNECTION;

std::string Dotted(const in_addr& a) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

TEST(ParseTarget, AddressAndPort) {
    struct Case {
        const char* target;
        int defaultPort;
        const char* address;
        int port;
    } cases[] = {
        {"10.0.0.5:8443", 443, "10.0.0.5", 8443},
        {"10.0.0.5:0", 443, "10.0.0.5", 443}, // 0 keeps the default
        {"10.0.0.5", 443, "10.0.0.5", 443},   // gateway default
        {"10.0.0.5", 80, "10.0.0.5", 80},     // proxy default
        {"10.0.0.5:abc", 443, "10.0.0.5", 443},
        {"localhost:99", 443, "127.0.0.1", 99}, // no dot: resolver
    };
    for (const Case& c : cases) {
        in_addr address{};
        int port = c.defaultPort;
        EXPECT_EQ(vel::ParseTarget(c.target, &address, &port), 0) << c.target;
        EXPECT_EQ(Dotted(address), c.address) << c.target;
        EXPECT_EQ(port, c.port) << c.target;
    }
}

TEST(ParseTarget, UnresolvableNamesReturnTheResolverError) {
    for (const char* target : {":0", "gw.invalid", "no-such-host.invalid:8080"}) {
        in_addr address{};
        address.s_addr = 0x01020304;
        int port = 443;
        EXPECT_NE(vel::ParseTarget(target, &address, &port), 0) << target;
        EXPECT_EQ(address.s_addr, 0x01020304u) << target;
    }
    in_addr address{};
    int port = 443;
    vel::ParseTarget("gw.invalid:8080", &address, &port);
    EXPECT_EQ(port, 8080); // the port is taken before resolving
}

TEST(ProxyReply, StatusTwoHundredOnly) {
    struct Case {
        const char* reply;
        int result;
    } cases[] = {
        {"HTTP/1.0 200 Connection established\r\n\r\n", 0},
        {"http/1.1 200\r\n\r\n", 0},
        {"HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", -1},
        {"HTTP/1.1\r\n\r\n", -1},
        {"SSH-2.0 200\r\n\r\n", -1},
        {"", -1},
    };
    for (const Case& c : cases) {
        errno = 0;
        EXPECT_EQ(vel::ParseProxyReply(c.reply), c.result) << c.reply;
        if (c.result != 0) {
            EXPECT_EQ(errno, ECONNABORTED) << c.reply;
        }
    }
}

// The handshake itself, run on a socket the test put in place.
TEST(ProxyHandshake, RequestAndReplies) {
    struct Case {
        std::string reply;
        bool closeAfter;
        int result;
        int error;
    } cases[] = {
        {"HTTP/1.0 200 Connection established\r\n\r\nleft", false, 0, 0},
        {"HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", false, -1, ECONNABORTED},
        {"HTTP/1.1 200 OK\r\n", true, -1, ECONNABORTED}, // closed before the end
        {std::string(3000, 'x'), false, -1, ENOBUFS},
    };
    for (const Case& c : cases) {
        PairedLink paired(nullptr, "10.0.0.5:8443");
        vel::ParseTarget("10.0.0.5:8443", &paired.link.m_gateway_address,
                         &paired.link.m_gateway_port);
        send(paired.peer, c.reply.data(), c.reply.size(), 0);
        if (c.closeAfter) {
            shutdown(paired.peer, SHUT_WR);
        }
        errno = 0;
        EXPECT_EQ(paired.link.ConnectByWebProxy(), c.result) << c.reply.substr(0, 20);
        EXPECT_EQ(errno, c.error) << c.reply.substr(0, 20);
        EXPECT_EQ(paired.Drain(), "CONNECT 10.0.0.5:8443 HTTP/1.1\r\nHost:10.0.0.5:8443\r\n\r\n");
        if (c.result == 0) {
            char rest[8] = {};
            EXPECT_EQ(recv(paired.link.GetSocket(), rest, sizeof rest, MSG_DONTWAIT), 4); // "left"
        }
    }
}

// The settled order of TryToConnect: the handshake runs while m_socket is
// still -1, so it fails at its first send.
TEST(ProxyHandshakeSettled, FailsWithoutASocket) {
    CTL_HTTP_CONNECTION link("10.0.0.5:8443", "key", nullptr, "127.0.0.1:3128");
    EXPECT_TRUE(link.m_connect_by_web_proxy);
    errno = 0;
    EXPECT_EQ(link.ConnectByWebProxy(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Connection, ClosedLinkRefusesIo) {
    CTL_HTTP_CONNECTION link("gw:1", "k", nullptr, nullptr);
    EXPECT_EQ(link.Write("x", 1), -1);
    tagHTTP_BUF buf = {16, 0, 0, static_cast<char*>(calloc(17, 1))};
    EXPECT_EQ(link.Read(buf), 0);
    EXPECT_FALSE(link.IsReadable());
    EXPECT_EQ(link.getlocaladdress(), "");
    EXPECT_EQ(link.GetConnectionAddress(), "");
    link.Disconnect(); // nothing to do
    FreeHttpBuf(&buf);
}

TEST(Connection, WriteReadAndKeepAliveDeadline) {
    PairedLink paired(nullptr);
    CTL_HTTP_CONNECTION& link = paired.link;
    const uint32_t before = vel::NowMs();
    EXPECT_EQ(link.Write("POLL", 4), 0);
    EXPECT_EQ(paired.Drain(), "POLL");
    EXPECT_GE(uint32_t(link.m_next_poll_time - before), 60000u); // postponed a period

    send(paired.peer, "abcdef", 6, 0);
    EXPECT_TRUE(link.IsReadable());
    tagHTTP_BUF buf = {5, 0, 0, static_cast<char*>(malloc(6))};
    EXPECT_EQ(link.Read(buf), 4); // at most buflen - datalen - 1 bytes
    EXPECT_STREQ(buf.data, "abcd");
    buf.datalen = 0;
    EXPECT_EQ(link.Read(buf), 2);
    EXPECT_STREQ(buf.data, "ef");
    FreeHttpBuf(&buf);
}

TEST(Connection, ShortOrFailedWriteReturnsErrno) {
    PairedLink paired(nullptr);
    close(paired.peer);
    paired.peer = -1;
    EXPECT_EQ(paired.link.Write("x", 1), EPIPE);
}

TEST(Connection, SocketClosesAtTheLastUsersDisconnect) {
    PairedLink paired(nullptr, "127.0.0.1:9");
    CTL_HTTP_CONNECTION& link = paired.link;
    EXPECT_EQ(link.TryToConnect(), 0); // already open: one more user
    EXPECT_EQ(link.m_use_count, 2u);
    link.Disconnect();
    EXPECT_TRUE(link.IsConnected());
    link.Disconnect();
    EXPECT_FALSE(link.IsConnected());
    EXPECT_EQ(link.m_use_count, 0u);
    char c;
    EXPECT_EQ(recv(paired.peer, &c, 1, 0), 0); // the peer sees the close
}

TEST(KeepAlive, DueComparisonWrapsUnsigned) {
    struct Case {
        uint32_t next, now;
        unsigned long period;
        bool due;
    } cases[] = {
        {1000, 1000, 60000, false},      // due exactly now: not yet
        {999, 1000, 60000, true},        // passed
        {61000, 1000, 60000, false},     // one period ahead
        {61001, 1000, 60000, true},      // more than a period ahead
        {10, 0xFFFFFFF0u, 60000, false}, // ahead across the wrap
        {0xFFFFFFF0u, 10, 60000, true},  // passed across the wrap
        {5, 5, 0, false},                // CMPI 0 ...
        {4, 5, 0, true},                 // ... polls at every check after the time
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vel::PollDue(c.next, c.now, c.period), c.due) << c.next << " " << c.now;
    }
}

} // namespace

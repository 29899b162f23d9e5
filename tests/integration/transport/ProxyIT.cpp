#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <string>

#include "GatewayFixture.h"

namespace {

using transport_it::GatewayTest;

// Settled: the handshake runs before the socket is stored, so a link through
// a proxy fails at the handshake's first send and never completes. The
// "proxy" is a bare listening socket: connections land in its backlog.
TEST_F(GatewayTest, ProxiedConnectionNeverCompletes) {
    StartGateway();
    const int proxy = transport_test::ListenLoopback(0);
    ASSERT_NE(proxy, -1);
    const std::string proxyTarget = "127.0.0.1:" + std::to_string(transport_test::PortOf(proxy));
    ctl = new vel::CHTCTL(443);
    vel::CTL_HTTP_CONNECTION link(Target().c_str(), "key", ctl, proxyTarget.c_str());
    EXPECT_EQ(link.TryToConnect(), EBADF);
    EXPECT_FALSE(link.IsConnected());
    EXPECT_EQ(link.Connect(), 0); // six more attempts, all failing the same way
    EXPECT_FALSE(link.IsConnected());

    int accepted = 0;
    fcntl(proxy, F_SETFL, O_NONBLOCK);
    for (int client; (client = accept(proxy, nullptr, nullptr)) >= 0; ++accepted) {
        char byte;
        EXPECT_EQ(recv(client, &byte, 1, MSG_DONTWAIT), 0) << "no CONNECT ever reaches the proxy";
        close(client);
    }
    close(proxy);
    EXPECT_EQ(accepted, 7);
    EXPECT_EQ(gateway->ClientCount(), 0);
    EXPECT_TRUE(gateway->Requests().empty());
}

TEST_F(GatewayTest, ConnectToGatewayFindsOrAddsALink) {
    StartGateway();
    devgw::DevGateway second;
    const int secondPort = second.Start();
    ASSERT_GT(secondPort, 0);
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000));

    vel::CTL_HTTP_CONNECTION* link = nullptr;
    EXPECT_EQ(ctl->ConnectToGateway(Target().c_str(), "key", link, nullptr), 0);
    EXPECT_EQ(link, &Link());
    EXPECT_EQ(Link().m_use_count, 2u);
    EXPECT_TRUE(ctl->m_lock.Lock()); // the list lock is free again
    ctl->m_lock.Unlock();

    link = nullptr;
    EXPECT_NE(ctl->ConnectToGateway("gw.invalid:443", "key", link, nullptr), 0);
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(ctl->m_connections.size(), 1u);

    const std::string target = "127.0.0.1:" + std::to_string(secondPort);
    EXPECT_EQ(ctl->ConnectToGateway(target.c_str(), "key", link, nullptr), 0);
    ASSERT_NE(link, nullptr);
    EXPECT_TRUE(link->IsConnected());
    EXPECT_EQ(ctl->m_connections.size(), 2u);
    EXPECT_TRUE(second.WaitForClients(1, 5000));
    delete ctl; // stops both links' read threads before the gateways go
    ctl = nullptr;
}

} // namespace

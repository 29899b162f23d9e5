#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>

#include "GatewayFixture.h"

namespace {

using transport_it::GatewayTest;

// A web proxy on loopback that answers every CONNECT with 200 and records
// what each connection sent it. Stops by itself after its deadline.
class TinyProxy {
public:
    TinyProxy() {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(m_listen, 16);
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~TinyProxy() {
        m_stop = true;
        m_thread.join();
        close(m_listen);
    }
    int Port() const { return m_port; }
    int Accepted() const { return m_accepted; }
    size_t BytesReceived() const { return m_bytes; }

private:
    void Serve() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!m_stop && std::chrono::steady_clock::now() < end) {
            pollfd p = {m_listen, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) {
                continue;
            }
            const int client = accept(m_listen, nullptr, nullptr);
            if (client < 0) {
                continue;
            }
            ++m_accepted;
            // Read what the client sends until it closes (bounded), answering
            // a CONNECT as an open proxy would.
            char buf[512];
            for (int i = 0; i < 50; ++i) {
                pollfd c = {client, POLLIN, 0};
                if (poll(&c, 1, 20) <= 0) {
                    continue;
                }
                const ssize_t n = recv(client, buf, sizeof buf, 0);
                if (n <= 0) {
                    break;
                }
                m_bytes += size_t(n);
                const char ok[] = "HTTP/1.0 200 Connection established\r\n\r\n";
                send(client, ok, sizeof ok - 1, MSG_NOSIGNAL);
            }
            close(client);
        }
    }
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    std::atomic<size_t> m_bytes{0};
    std::thread m_thread;
};

// Settled: the handshake runs before the socket is stored, so a link through
// a proxy fails at the handshake's first send and never completes.
TEST_F(GatewayTest, ProxiedConnectionNeverCompletes) {
    StartGateway();
    TinyProxy proxy;
    const std::string proxyTarget = "127.0.0.1:" + std::to_string(proxy.Port());
    ctl = new vel::CHTCTL(443);
    vel::CTL_HTTP_CONNECTION link(Target().c_str(), "key", ctl, proxyTarget.c_str());
    EXPECT_EQ(link.TryToConnect(), EBADF);
    EXPECT_FALSE(link.IsConnected());

    EXPECT_EQ(link.Connect(), 0); // six more attempts, all failing the same way
    EXPECT_FALSE(link.IsConnected());
    ASSERT_TRUE(transport_it::WaitUntil([&] { return proxy.Accepted() == 7; }));
    EXPECT_EQ(proxy.BytesReceived(), 0u); // no CONNECT ever reached the proxy
    EXPECT_EQ(gateway->ClientCount(), 0);
    EXPECT_TRUE(gateway->Requests().empty());
}

TEST_F(GatewayTest, ConnectToGatewayFindsTheExistingLink) {
    StartGateway();
    ASSERT_EQ(Create(), 0);
    ASSERT_TRUE(gateway->WaitForRequest("OPEN", 5000));
    vel::CTL_HTTP_CONNECTION* link = nullptr;
    EXPECT_EQ(ctl->ConnectToGateway(Target().c_str(), "key", link, nullptr), 0);
    EXPECT_EQ(link, &Link());
    EXPECT_EQ(Link().m_use_count, 2u);
    EXPECT_EQ(ctl->m_connections.size(), 1u);
    // The list lock is free again.
    EXPECT_TRUE(ctl->m_lock.Lock());
    ctl->m_lock.Unlock();

    link = nullptr;
    EXPECT_NE(ctl->ConnectToGateway("gw.invalid:443", "key", link, nullptr), 0);
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(ctl->m_connections.size(), 1u);
}

TEST_F(GatewayTest, ConnectToGatewayAddsANewLink) {
    StartGateway();
    devgw::DevGateway second;
    const int secondPort = second.Start();
    ASSERT_GT(secondPort, 0);
    ASSERT_EQ(Create(), 0);
    vel::CTL_HTTP_CONNECTION* link = nullptr;
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

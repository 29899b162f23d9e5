// The real transport, created as the daemon creates it (slavetype 256), with
// short timings against development gateways on loopback.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "DevGateway.h"
#include "E2E.h"
#include "TransportFixtures.h"
#include "transport/TransportTimings.h"

namespace gateway_it {

using transport_test::App;
using transport_test::kControlType;
using transport_test::kDaemonType;
using transport_test::Post;

using e2e::StoredKey;
using e2e::WaitUntil;

struct GatewayTest : ::testing::Test {
    devgw::Options options;
    std::unique_ptr<devgw::DevGateway> gateway;
    App app;
    vel::CHTCTL* ctl = nullptr;

    void SetUp() override {
        vel::gTransportTimings.m_connectRetrySleepMs = 10;
        vel::gTransportTimings.m_idleSleepMs = 10;
        vel::gTransportTimings.m_readablePollMs = 20;
        vel::gTransportTimings.m_checkIntervalMs = 10;
        vel::gTransportTimings.m_replyTimeoutMs = 5000;
    }
    void TearDown() override {
        delete ctl; // its links and read threads first, then the gateways they use
        ctl = nullptr;
        gateway.reset();
    }
    static std::string Target(devgw::DevGateway& g) {
        return "127.0.0.1:" + std::to_string(g.Port());
    }
    std::string Host() { return Target(*gateway); }
    void StartGateway() {
        gateway = std::make_unique<devgw::DevGateway>(options);
        ASSERT_GT(gateway->Start(), 0);
        app.text["GatewayAddress"] = Host();
        app.text["GSK"] = StoredKey("secretkey");
    }
    int Create(int ctltype, int sessions = 3) {
        ctl = new vel::CHTCTL(vel::kDefaultGatewayPort);
        tagCTLCREATEPARAMS p = {};
        strncpy(p.name, "ws-test", sizeof p.name);
        p.ctltype = ctltype;
        p.slavetype = 256;
        p.sessions = sessions;
        p.callback = &App::Callback;
        p.cbdata = &app;
        return ctl->Create(&p);
    }
    vel::CTL_HTTP_CONNECTION& Link() { return *ctl->m_connections.at(0); }
    // Starts the gateway and the transport, and waits until the OPEN_REPLY has
    // been applied (its SERVER_VERSION stored).
    void Start(int ctltype, int sessions = 3) {
        ASSERT_NO_FATAL_FAILURE(StartGateway());
        ASSERT_EQ(Create(ctltype, sessions), 0);
        ASSERT_TRUE(WaitUntil([&] {
            vel::CSingleLock lock(&Link().m_lock, TRUE);
            return !Link().m_server_version.empty();
        }));
    }
    unsigned long Period() { return Link().m_comms_manage_pkt_period.load(); }
};

} // namespace gateway_it

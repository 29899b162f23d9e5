// The real transport against development gateways on loopback, created as
// the daemon creates it (slavetype 256), with short timings. The test thread
// drives; read threads and waiting operations raise the callbacks.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "DevGateway.h"
#include "TransportFixtures.h"
#include "transport/TransportTimings.h"
#include "transport/password.h"

namespace gateway_it {

using transport_test::App;
using transport_test::Post;

// Polls `done` every 5 ms, at most `timeoutMs` of sleeping.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    for (int waited = 0; !done(); waited += 5) {
        if (waited > timeoutMs) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline std::string StoredKey(const char* clear) {
    char stored[128] = {};
    _EncryptPassword(kPasswordSeed, clear, stored, sizeof stored);
    return stored;
}

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
        ctl = new vel::CHTCTL(443);
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

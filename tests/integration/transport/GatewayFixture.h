// The real transport against the development gateway on loopback: short
// timings for the test process and a transport created as the daemon creates
// it. The test thread drives; the transport's read thread raises the
// callbacks.
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

namespace transport_it {

// Polls `done` every 5 ms for at most `timeoutMs`.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

struct GatewayTest : ::testing::Test {
    devgw::Options options;
    std::unique_ptr<devgw::DevGateway> gateway;
    transport_test::FakeSettings settings; // filled before Create
    vel::CHTCTL* ctl = nullptr;
    int port = -1;

    void SetUp() override {
        vel::gTransportTimings.m_connectRetrySleepMs = 10;
        vel::gTransportTimings.m_idleSleepMs = 10;
        vel::gTransportTimings.m_readablePollMs = 20;
        vel::gTransportTimings.m_checkIntervalMs = 10;
    }
    void TearDown() override {
        delete ctl;
        gateway.reset();
    }
    void StartGateway() {
        gateway = std::make_unique<devgw::DevGateway>(options);
        port = gateway->Start();
        ASSERT_GT(port, 0);
        settings.text[{"HTTP", "GatewayAddress"}] = Target();
        char stored[128] = {};
        _EncryptPassword(kPasswordSeed, "secretkey", stored, sizeof stored);
        settings.text[{"HTTP", "GSK"}] = stored;
    }
    std::string Target() const { return "127.0.0.1:" + std::to_string(port); }
    // Creates the transport as the daemon does (slavetype 256).
    int Create(int ctltype = -1, const char* name = "ws-test") {
        ctl = new vel::CHTCTL(443);
        tagCTLCREATEPARAMS p;
        memset(&p, 0, sizeof p);
        p.cbSize = 64;
        strncpy(p.name, name, sizeof p.name);
        p.ctltype = ctltype;
        p.slavetype = 256;
        p.sessions = 10;
        p.callback = &transport_test::FakeSettings::Callback;
        p.cbdata = &settings;
        return ctl->Create(&p);
    }
    vel::CTL_HTTP_CONNECTION& Link() { return *ctl->m_connections.at(0); }
    // True once the OPEN_REPLY has been applied (its SERVER_VERSION stored).
    bool Registered() {
        vel::CSingleLock lock(&Link().m_lock, TRUE);
        return !Link().m_server_version.empty();
    }
    unsigned long Period() { return Link().m_comms_manage_pkt_period.load(); }
};

} // namespace transport_it

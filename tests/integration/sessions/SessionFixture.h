// The real transport against development gateways on loopback, with an
// application callback that records every event by value (the records'
// pointers die with the callback). The test thread drives; the transport's
// read threads and the waiting operations raise the callbacks, so the record
// is guarded by its own mutex.
#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "DevGateway.h"
#include "transport/TransportTimings.h"
#include "transport/htctl.h"
#include "transport/password.h"

namespace sessions_it {

struct Event {
    int code = 0;
    int session = 0;
    std::string name; // code 10: ctlname
    std::string addr;
    std::string data; // code 1: exactly datalen bytes
    int count = 0;    // code 1: datalen; code 10: n_bufs
};

struct App {
    std::mutex mutex;
    std::map<std::string, std::string> text; // section "HTTP" / key
    std::map<std::string, int> integers;
    std::vector<Event> events;
    int newBuffers = -1;              // code 10: written back into n_bufs
    std::atomic<int> cancelAfter{-1}; // code 4: cancel from this many polls on
    std::atomic<int> cancelPolls{0};

    static int Callback(int code, void* cbdata, CTL_CALLBACK* cb) {
        auto* self = static_cast<App*>(cbdata);
        if (code == kCtlCheckCancel) {
            const int polls = self->cancelPolls++;
            return self->cancelAfter >= 0 && polls >= self->cancelAfter ? 1 : 0;
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        Event e;
        e.code = code;
        if (code == kCtlConfigString) {
            auto it = self->text.find(cb->configstr.key);
            if (it != self->text.end()) {
                strncpy(cb->configstr.buf, it->second.c_str(), size_t(cb->configstr.buflen));
            }
            return 0;
        }
        if (code == kCtlConfigInt) {
            auto it = self->integers.find(cb->configint.key);
            return it != self->integers.end() ? it->second : cb->configint.dflt;
        }
        if (code == kCtlDataReceived) {
            e.session = cb->data.session;
            e.addr = cb->data.addr != nullptr ? cb->data.addr : "";
            e.data.assign(reinterpret_cast<const char*>(cb->data.data), size_t(cb->data.datalen));
            e.count = cb->data.datalen;
        } else if (code == kCtlCalled) {
            e.session = cb->called.session;
            e.name = cb->called.ctlname;
            e.addr = cb->called.addr;
            e.count = cb->called.n_bufs;
            if (self->newBuffers >= 0) {
                cb->called.n_bufs = self->newBuffers;
            }
        } else if (code == kCtlHungUp) {
            e.session = cb->hungup.session;
        }
        self->events.push_back(e);
        return 0;
    }
    std::vector<Event> Of(int code) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Event> out;
        for (const Event& e : events) {
            if (e.code == code) {
                out.push_back(e);
            }
        }
        return out;
    }
};

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

inline std::string StoredKey(const char* clear) {
    char stored[128] = {};
    _EncryptPassword(kPasswordSeed, clear, stored, sizeof stored);
    return stored;
}

// The bytes of a request the transport sends to `host`.
inline std::string Post(const std::string& host, const std::string& body) {
    char length[16];
    snprintf(length, sizeof length, "%5d", int(body.size()));
    return "POST http://" + host + "/fakeurl.htm HTTP/1.1\nUser-Agent: Corvane Manager/1.0\n" +
           "Content-Type: application/x-www-form-urlencoded\nContent-Length: " + length +
           "\nHost: " + host + "\nConnection: Keep-Alive\n\n" + body;
}

// Reflected CRC-32 from 0xFFFFFFFF without final inversion, bit by bit.
inline uint32_t Crc(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (unsigned char b : bytes) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) {
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        }
    }
    return crc;
}

struct SessionTest : ::testing::Test {
    devgw::Options options;
    std::unique_ptr<devgw::DevGateway> gateway;
    App app;
    vel::CHTCTL* ctl = nullptr;
    int repliesSeen = 0;

    void SetUp() override {
        vel::gTransportTimings.m_connectRetrySleepMs = 10;
        vel::gTransportTimings.m_idleSleepMs = 10;
        vel::gTransportTimings.m_readablePollMs = 20;
        vel::gTransportTimings.m_checkIntervalMs = 10;
        vel::gTransportTimings.m_replyTimeoutMs = 5000;
    }
    void TearDown() override {
        delete ctl;
        gateway.reset();
    }
    static std::string Target(devgw::DevGateway& g) {
        return "127.0.0.1:" + std::to_string(g.Port());
    }
    std::string Host() { return Target(*gateway); }
    // Starts the gateway, creates the transport on it (as the daemon does,
    // slavetype 256) and waits for the registration's answer.
    void Start(int ctltype, int sessions) {
        gateway = std::make_unique<devgw::DevGateway>(options);
        ASSERT_GT(gateway->Start(), 0);
        app.text["GatewayAddress"] = Host();
        app.text["GSK"] = StoredKey("secretkey");
        ctl = new vel::CHTCTL(443);
        tagCTLCREATEPARAMS p;
        memset(&p, 0, sizeof p);
        strncpy(p.name, "ws-test", sizeof p.name);
        p.ctltype = ctltype;
        p.slavetype = 256;
        p.sessions = sessions;
        p.callback = &App::Callback;
        p.cbdata = &app;
        ASSERT_EQ(ctl->Create(&p), 0);
        ASSERT_TRUE(WaitUntil([&] {
            vel::CSingleLock lock(&Link().m_lock, TRUE);
            return !Link().m_server_version.empty();
        }));
    }
    vel::CTL_HTTP_CONNECTION& Link() { return *ctl->m_connections.at(0); }
    vel::CTL_HTTP_SESSION& Session(int index) { return ctl->m_sessions[index]; }
    // The gateway sets up a session; returns the client's CONNECT_REPLY.
    devgw::Request Connect(unsigned id, const std::string& name = "console",
                           const std::string& addr = "10.1.2.3") {
        gateway->SendBody("CMD=CONNECT\nCONNECTION_ID=" + std::to_string(id) +
                          "\nCONTROL_NAME=" + name + "\nCONTROL_ADDR=" + addr + "\n");
        devgw::Request reply;
        EXPECT_TRUE(gateway->WaitForRequest("CONNECT_REPLY", 5000, &reply, ++repliesSeen));
        return reply;
    }
    std::vector<devgw::Request> Requests(devgw::DevGateway& g, const std::string& command,
                                         size_t n) {
        EXPECT_TRUE(g.WaitForRequest(command, 5000, nullptr, int(n)));
        return g.RequestsFor(command);
    }
};

} // namespace sessions_it

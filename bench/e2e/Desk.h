// The workstation for the end-to-end benchmarks, inside the sandbox: a desktop
// log-in for "alice" on ":0", an X server stand-in, the timing display
// program, the development gateway on loopback, the settings file and the
// daemon started and killed by pid. The harness's main thread drives it; the
// gateway's IO thread feeds the event record, which m_mutex guards; a watcher
// thread notes the first accept (atomic).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DevGateway.h"

namespace bench {

// Monotonic clock in nanoseconds: the same clock in every process of the run.
long long NowNs();
void SleepMs(int milliseconds);

constexpr int kDeskReplyTimeoutMs = 10000;

// One notification's trip, in milliseconds from the gateway's write.
struct Trip {
    double display = 0;  // -> the display program's main
    double received = 0; // -> CMD=MESSAGERECEIVED at the gateway
    double acked = 0;    // -> CMD=MESSAGEACK at the gateway
};

struct Programs {
    std::string stub;    // X server and login-record stand-in
    std::string display; // bench_display
    std::string realDaemon;
    std::string fastDaemon; // the daemon with the test timing seam
};

// A request seen by the gateway, with the time it was recorded.
struct GatewayEvent {
    long long ns = 0;
    std::string command; // the CMD field; empty for other events
    int id = -1;         // the ID field, when there is one
};

class Desk {
public:
    explicit Desk(Programs programs);
    ~Desk(); // kills the daemon, its display programs and the X server

    // The sandbox's desktop: a login record and an X server stand-in for
    // "alice" on ":0", then ListenForDisplays().
    bool SetUpDesktop();
    // Installs the timing display program and listens for its reports.
    bool ListenForDisplays();
    // A gateway on a free port; its port.
    int StartGateway();
    void StopGateway();
    devgw::DevGateway& Gateway() { return *m_gateway; }
    // The settings file for the gateway on `port`; `uiLines` join [UI].
    void WriteSettings(int port, const std::string& uiLines = "");

    // Copies the binary to the install path and starts it; the daemon's pid
    // once the pid file names it, else -1. m_spawnNs is when it was started.
    pid_t StartDaemon(const std::string& binary);
    void StopDaemon();
    pid_t DaemonPid() const { return m_daemon; }
    long long SpawnNs() const { return m_spawnNs; }
    // When the gateway accepted the daemon's first connection (the gateway
    // reports a client only once it has sent something); 0 if it never did.
    long long AcceptNs();

    // The time of the first event of this command (and id, unless -1)
    // recorded at or after `since`; 0 when none came within the timeout.
    long long WaitForEvent(const std::string& command, int id, long long since, int timeoutMs);
    int CountEvents(const std::string& command, long long since, long long until);
    void ForgetEvents();

    // Sends notification `id` and waits for its display program, receipt and
    // acknowledgement; false (with a line on stderr) when one is missing.
    bool Notify(int id, Trip& trip);

    // Start time the display program reported for a message id; 0 on timeout.
    long long WaitForDisplay(int id, int timeoutMs);
    void ForgetDisplays();

    void ReapChildren();

private:
    void OnGatewayEvent(const std::string& line);
    void ReadDisplayReports(int timeoutMs);

    Programs m_programs;
    std::unique_ptr<devgw::DevGateway> m_gateway;
    pid_t m_daemon = -1;
    pid_t m_xServer = -1;
    long long m_spawnNs = 0;
    int m_displaySocket = -1;
    std::map<int, long long> m_displays; // main thread only
    std::thread m_acceptWatch;           // waits for the first accept
    std::atomic<long long> m_acceptNs{0};

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<GatewayEvent> m_events;
};

} // namespace bench

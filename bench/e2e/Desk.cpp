#include "Desk.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "BenchPaths.h"
#include "E2E.h"
#include "Stats.h"

namespace bench {

namespace {

using e2e::kConfigPath;
using e2e::kInstalledDaemon;
using e2e::kPidPath;
using e2e::ReadFile;
using e2e::Spawn;
using e2e::WaitUntil;

constexpr const char* kClearKey = "BENCHKEY";
constexpr int kStartTimeoutMs = 10000;
constexpr int kWatchTimeoutMs = 30000;

// Installs a program (mode 0755); false when it did not arrive.
bool CopyExecutable(const std::string& from, const std::string& to) {
    e2e::Install(from, to);
    return access(to.c_str(), X_OK) == 0;
}

// "client 3: CMD=MESSAGERECEIVED ID=12 UF=0 UN=alice"; other events (a client
// come or gone) have no command.
GatewayEvent ParseEvent(const std::string& line, long long ns) {
    GatewayEvent event;
    event.ns = ns;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        if (word.compare(0, 4, "CMD=") == 0 && event.command.empty()) {
            event.command = word.substr(4);
        } else if (word.compare(0, 3, "ID=") == 0) {
            event.id = atoi(word.c_str() + 3);
        }
    }
    return event;
}

} // namespace

long long NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void SleepMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Desk::Desk(Programs programs) : m_programs(std::move(programs)) {}

Desk::~Desk() {
    StopDaemon();
    AcceptNs();
    m_gateway.reset();
    if (m_xServer > 0) {
        kill(m_xServer, SIGKILL);
        waitpid(m_xServer, nullptr, 0);
    }
    if (m_displaySocket != -1) {
        close(m_displaySocket);
    }
}

bool Desk::SetUpDesktop() {
    // The detached daemon and its orphans become our children, to be reaped.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        return false;
    }
    const pid_t login = Spawn(m_programs.stub, {m_programs.stub, "--login", kDesktopUser});
    int status = 0;
    if (login <= 0 || waitpid(login, &status, 0) != login || status != 0) {
        return false;
    }
    m_xServer = Spawn(m_programs.stub, {"/usr/bin/X", ":0", "-auth", kAuthorityPath});
    // Until it has exec'd, ps would show our own command line.
    const pid_t xServer = m_xServer;
    const auto execd = [xServer] {
        return ReadFile("/proc/" + std::to_string(xServer) + "/cmdline")
                   .compare(0, 10, "/usr/bin/X") == 0;
    };
    return m_xServer > 0 && WaitUntil(execd, 5000) && ListenForDisplays();
}

bool Desk::ListenForDisplays() {
    mkdir(kBenchDir, 0755);
    if (!CopyExecutable(m_programs.display, e2e::kDisplayPath)) {
        return false;
    }
    m_displaySocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, kDisplaySocket, sizeof address.sun_path - 1);
    unlink(kDisplaySocket);
    return m_displaySocket != -1 &&
           bind(m_displaySocket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

int Desk::StartGateway() {
    m_gateway.reset(new devgw::DevGateway());
    m_gateway->SetEventSink([this](const std::string& line) { OnGatewayEvent(line); });
    return m_gateway->Start(0);
}

void Desk::StopGateway() {
    AcceptNs(); // the watcher uses the gateway
    m_gateway.reset();
}

void Desk::OnGatewayEvent(const std::string& line) {
    const long long ns = NowNs();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(ParseEvent(line, ns));
    m_changed.notify_all();
}

void Desk::WriteSettings(int port, const std::string& uiLines) {
    e2e::WriteSettings(
        port, kClearKey,
        "department=Benchmarks\n[agent]\nUpdateInterval=60\n"
        "[UI]\nFullScreen=0\nFullScreenTimeout=30\nLargeLogoPath=/usr/sxa/logo.png\n" +
            uiLines);
}

bool Desk::Notify(int id, Trip& trip) {
    const std::string text = "Benchmark notification " + std::to_string(id);
    const long long sent = NowNs();
    if (!m_gateway->SendNotification(id, text, "30|Benchmark", "1")) {
        return false;
    }
    const long long received = WaitForEvent("MESSAGERECEIVED", id, sent, kDeskReplyTimeoutMs);
    const long long shown = WaitForDisplay(id, kDeskReplyTimeoutMs);
    const long long acked = WaitForEvent("MESSAGEACK", id, sent, kDeskReplyTimeoutMs);
    if (received == 0 || shown == 0 || acked == 0) {
        fprintf(stderr, "bench: notification %d: no %s\n", id,
                received == 0 ? "receipt"
                : shown == 0  ? "display"
                              : "acknowledgement");
        return false;
    }
    trip = {Ms(shown - sent), Ms(received - sent), Ms(acked - sent)};
    return true;
}

pid_t Desk::StartDaemon(const std::string& binary) {
    unlink(kPidPath);
    if (!CopyExecutable(binary, kInstalledDaemon)) {
        return -1;
    }
    AcceptNs(); // an earlier watch is over
    m_acceptNs = 0;
    if (m_gateway) {
        devgw::DevGateway* gateway = m_gateway.get();
        m_acceptWatch = std::thread([this, gateway] {
            if (gateway->WaitForConnectionsEver(1, kWatchTimeoutMs)) {
                m_acceptNs = NowNs();
            }
        });
    }
    m_spawnNs = NowNs();
    const pid_t launched = Spawn(kInstalledDaemon, {kInstalledDaemon});
    // The launched process exits at once; the daemon is its grandchild.
    if (launched <= 0 || waitpid(launched, nullptr, 0) != launched) {
        return -1;
    }
    const auto named = [] { return atoi(ReadFile(kPidPath).c_str()) > 0; };
    if (!WaitUntil(named, kStartTimeoutMs)) {
        return -1;
    }
    m_daemon = atoi(ReadFile(kPidPath).c_str());
    return m_daemon;
}

long long Desk::AcceptNs() {
    if (m_acceptWatch.joinable()) {
        m_acceptWatch.join();
    }
    return m_acceptNs;
}

void Desk::StopDaemon() {
    if (m_daemon > 0) {
        kill(m_daemon, SIGKILL);
        const pid_t daemon = m_daemon;
        const auto gone = [daemon] { return waitpid(daemon, nullptr, WNOHANG) != 0; };
        WaitUntil(gone, kStartTimeoutMs);
        m_daemon = -1;
    }
    ReapChildren();
}

void Desk::ReapChildren() {
    // Only ended ones: the X server keeps running.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

long long Desk::WaitForEvent(const std::string& command, int id, long long since, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t checked = 0;
    for (;;) {
        for (; checked < m_events.size(); ++checked) {
            const GatewayEvent& e = m_events[checked];
            if (e.ns >= since && e.command == command && (id == -1 || e.id == id)) {
                return e.ns;
            }
        }
        if (m_changed.wait_until(lock, deadline) == std::cv_status::timeout &&
            checked == m_events.size()) {
            return 0;
        }
    }
}

int Desk::CountEvents(const std::string& command, long long since, long long until) {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const GatewayEvent& e : m_events) {
        n += e.command == command && e.ns >= since && e.ns < until;
    }
    return n;
}

void Desk::ForgetEvents() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
    if (m_gateway) {
        m_gateway->ClearRequests();
    }
}

void Desk::ReadDisplayReports(int timeoutMs) {
    pollfd p = {m_displaySocket, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) {
        return;
    }
    char text[64];
    ssize_t n;
    while ((n = recv(m_displaySocket, text, sizeof text - 1, MSG_DONTWAIT)) > 0) {
        text[n] = '\0';
        int id = 0;
        long long ns = 0;
        if (sscanf(text, "%d %lld", &id, &ns) == 2) {
            m_displays[id] = ns;
        }
    }
}

long long Desk::WaitForDisplay(int id, int timeoutMs) {
    const long long end = NowNs() + timeoutMs * 1000000LL;
    for (;;) {
        auto it = m_displays.find(id);
        if (it != m_displays.end()) {
            return it->second;
        }
        const long long left = (end - NowNs()) / 1000000;
        if (left <= 0) {
            return 0;
        }
        ReadDisplayReports(int(left));
    }
}

void Desk::ForgetDisplays() {
    ReadDisplayReports(0);
    m_displays.clear();
}

} // namespace bench

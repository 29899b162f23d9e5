// Wakes on systemd-logind's own change notification (sessions, seats, users)
// instead of polling. One thread owns a monitor and waits on it; Wake may be
// called from any thread (it only writes to an eventfd). No lock.
#pragma once

struct sd_login_monitor;

namespace vel {

class LoginMonitor {
public:
    enum class Event { kTimeout, kLoginChange, kWake };

    // Without `watchLogins`, or without logind, only Wake and the time-out
    // end a wait.
    explicit LoginMonitor(bool watchLogins);
    ~LoginMonitor();
    LoginMonitor(const LoginMonitor&) = delete;
    LoginMonitor& operator=(const LoginMonitor&) = delete;

    bool WatchesLogins() const { return m_monitor != nullptr; }
    // Waits at most timeoutMs for a change of logind's state or a Wake; a
    // change is reported once (the monitor is flushed).
    Event Wait(int timeoutMs);
    void Wake();

private:
    ::sd_login_monitor* m_monitor = nullptr;
    int m_wakeFd = -1;
};

} // namespace vel

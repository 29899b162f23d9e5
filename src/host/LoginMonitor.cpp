#include "host/LoginMonitor.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <systemd/sd-login.h>
#include <unistd.h>

namespace vel {

LoginMonitor::LoginMonitor(bool watchLogins) {
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // Every category: a graphical login changes sessions, seats and users.
    if (watchLogins && sd_login_monitor_new(nullptr, &m_monitor) < 0) {
        m_monitor = nullptr;
    }
}

LoginMonitor::~LoginMonitor() {
    if (m_monitor != nullptr) {
        sd_login_monitor_unref(m_monitor);
    }
    if (m_wakeFd != -1) {
        close(m_wakeFd);
    }
}

LoginMonitor::Event LoginMonitor::Wait(int timeoutMs) {
    struct pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {-1, 0, 0}};
    if (m_monitor != nullptr) {
        fds[1].fd = sd_login_monitor_get_fd(m_monitor);
        const int events = sd_login_monitor_get_events(m_monitor);
        fds[1].events = short(events > 0 ? events : POLLIN);
    }
    if (poll(fds, 2, timeoutMs) <= 0) {
        return Event::kTimeout; // EINTR counts as a time-out: the caller loops
    }
    if (fds[1].revents != 0) {
        sd_login_monitor_flush(m_monitor);
        return Event::kLoginChange;
    }
    if (fds[0].revents != 0) {
        uint64_t count = 0;
        while (read(m_wakeFd, &count, sizeof count) == ssize_t(sizeof count)) {
        }
        return Event::kWake;
    }
    return Event::kTimeout;
}

void LoginMonitor::Wake() {
    const uint64_t one = 1;
    ssize_t written;
    do {
        written = write(m_wakeFd, &one, sizeof one);
    } while (written == -1 && errno == EINTR);
}

} // namespace vel

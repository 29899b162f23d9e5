// Finds the desktop session a notification is for: systemd-logind's sessions
// (sd-login, and logind's D-Bus interface for the session leader and start
// time), then the display environment from that session's own processes.
// Nothing is cached: each call asks afresh. Called from the notification path
// (the transport's read thread) and once at start-up (the main thread); it
// keeps no state, so no lock is needed.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/SessionEnvironment.h"

namespace vel {

// Entries of /proc looked at per notification.
constexpr int kMaxProcessesScanned = 4096;

struct DesktopSession {
    std::string id;
    uid_t uid = 0;
    std::string user;
    SessionEnvironment environment;
};

// True when the machine runs systemd with logind's seats.
bool LogindRunning();

// The target session and its verified environment; false with the reason
// (for the log) when there is none with a usable display. Each rejected
// variable is logged with the session's id.
bool DiscoverDesktopSession(DesktopSession& session, std::string& why,
                            const SessionPaths& paths = SessionPaths());

} // namespace vel

// Which logind session a notification goes to, as a pure function over the
// sessions' records (so it is testable without logind). Re-entrant; no state.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vel {

// What logind says about one session.
struct SessionRecord {
    std::string id;
    std::string seat;  // "" when the session has none (remote, XRDP)
    std::string type;  // "x11", "wayland", "tty", "unspecified", ...
    std::string klass; // "user", "greeter", "lock-screen", "background"
    std::string state; // "active", "online", "closing"
    bool remote = false;
    uid_t uid = 0;
    uint64_t startedUsec = 0; // when logind created it; 0 when unknown
};

// A user's graphical session (x11 or wayland, class user) in state "active".
bool IsActiveGraphical(const SessionRecord& session);

// seat0's active session when it is graphical; otherwise the most recently
// started active graphical session, remote ones included (ties: the first
// listed). `seat0Active` is the id logind names as seat0's active session ("":
// none). Returns the index into `sessions`, or -1 when none qualifies.
int ChooseTargetSession(const std::vector<SessionRecord>& sessions, const std::string& seat0Active);

} // namespace vel

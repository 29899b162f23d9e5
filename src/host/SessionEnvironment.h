// A desktop session's display environment, taken from its processes'
// /proc/PID/environ and verified before the display program sees it. All of
// it is hostile input: a session's user writes those bytes. Re-entrant; no
// state; the log is written through vel::Log (its own lock).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace vel {

// At most this much of one process's environment is read.
constexpr size_t kEnvironLimit = 256 * 1024;
// A longer value of a wanted variable is dropped.
constexpr size_t kEnvironValueLimit = 4096;
// Bound on a display authority file's size.
constexpr off_t kAuthorityFileLimit = 64 * 1024;
// Highest X display number accepted (":N").
constexpr long kMaxDisplayNumber = 65535;

constexpr const char* kVarDisplay = "DISPLAY";
constexpr const char* kVarAuthority = "XAUTHORITY";
constexpr const char* kVarWaylandDisplay = "WAYLAND_DISPLAY";
constexpr const char* kVarRuntimeDir = "XDG_RUNTIME_DIR";
constexpr const char* kVarSessionBus = "DBUS_SESSION_BUS_ADDRESS";

// Where the checks look; tests point them at scratch directories.
struct SessionPaths {
    std::string runtimeRoot = "/run/user/";
    std::string x11SocketDir = "/tmp/.X11-unix/";
    // A root-owned authority file is accepted only beneath one of these.
    std::vector<std::string> displayManagerDirs = {"/run/lightdm/", "/var/run/lightdm/",
                                                   "/run/sddm/", "/var/run/sddm/"};
};

// The five variables above as found in one process's environment: the first
// occurrence of each wins (as getenv does). Entries without "=" and an
// unterminated last entry are skipped; a value longer than kEnvironValueLimit
// is left out and its name added to `tooLong`.
std::map<std::string, std::string> ParseEnviron(const std::string& block,
                                                std::vector<std::string>& tooLong);

// The verified display environment of a session's user.
struct SessionEnvironment {
    std::string display;        // ":N" or ":N.M"
    std::string authority;      // resolved path
    std::string waylandDisplay; // a name within runtimeDir
    std::string runtimeDir;     // resolved path
    std::string sessionBus;     // "unix:path=/run/user/UID/bus"

    bool HasDisplay() const { return !display.empty() || !waylandDisplay.empty(); }
};

// Keeps each variable that passes its check, for the user `uid`; every one
// rejected is named in `rejected` with the reason and (a printable, shortened
// copy of) its value, one text each, ready to log.
SessionEnvironment VerifySessionEnvironment(const std::map<std::string, std::string>& found,
                                            uid_t uid, const SessionPaths& paths,
                                            std::vector<std::string>& rejected);

// A value as it may appear in the log: at most 64 bytes, control and
// non-ASCII bytes as "?", and "..." when shortened.
std::string LoggableValue(const std::string& value);

// The display program's whole environment: `inherited` (the daemon's own,
// null-terminated) without any name set below, then the session's variables
// (XAUTHLOCALHOSTNAME=localhost with an X display), then `entries` in order,
// then NOTIFY_DESKTOP_USER=`user`.
std::vector<std::string> BuildSessionLaunchEnvironment(char* const* inherited,
                                                       const SessionEnvironment& session,
                                                       const std::vector<std::string>& entries,
                                                       const std::string& user);

} // namespace vel

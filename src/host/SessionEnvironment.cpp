#include "host/SessionEnvironment.h"

#include "host/DisplayProgramInterface.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <iterator>
#include <set>

namespace vel {

namespace {

constexpr size_t kLoggedValueLength = 64;
// Longest name accepted for a Wayland socket (a socket path's room).
constexpr size_t kMaxWaylandName = 100;

const char* const kWantedVariables[] = {kVarDisplay, kVarAuthority, kVarWaylandDisplay,
                                        kVarRuntimeDir, kVarSessionBus};

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The path with every link and "..", resolved; "" when it does not resolve.
std::string Resolved(const std::string& path) {
    char buffer[PATH_MAX];
    return realpath(path.c_str(), buffer) != nullptr ? std::string(buffer) : std::string();
}

bool IsDigits(const std::string& text) {
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

// An empty result means accepted; otherwise the reason.
std::string CheckRuntimeDir(const std::string& value, uid_t uid, const SessionPaths& paths,
                            std::string& resolved) {
    struct stat info;
    if (value.empty() || value[0] != '/') {
        return "not an absolute path";
    }
    if (lstat(value.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return "not a directory (links are not followed)";
    }
    if (info.st_uid != uid) {
        return "not owned by the session's user";
    }
    resolved = Resolved(value);
    if (resolved.empty() || !StartsWith(resolved + "/", paths.runtimeRoot) ||
        resolved + "/" == paths.runtimeRoot) {
        return "not beneath " + paths.runtimeRoot;
    }
    return std::string();
}

std::string CheckWaylandDisplay(const std::string& value, uid_t uid,
                                const std::string& runtimeDir) {
    if (value.empty() || value.size() > kMaxWaylandName ||
        value.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") !=
            std::string::npos ||
        value.find("..") != std::string::npos) {
        return "not a plain socket name";
    }
    if (runtimeDir.empty()) {
        return "no verified XDG_RUNTIME_DIR to find it in";
    }
    struct stat info;
    const std::string socketPath = runtimeDir + "/" + value;
    if (lstat(socketPath.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return "no such socket in the runtime directory";
    }
    return info.st_uid == uid ? std::string() : "socket not owned by the session's user";
}

std::string CheckDisplay(const std::string& value, const SessionPaths& paths) {
    const size_t dot = value.find('.');
    const std::string number =
        value.substr(value.empty() ? 0 : 1, dot == std::string::npos ? dot : dot - 1);
    if (value.empty() || value[0] != ':' || !IsDigits(number) ||
        (dot != std::string::npos && !IsDigits(value.substr(dot + 1))) ||
        strtol(number.c_str(), nullptr, 10) > kMaxDisplayNumber) {
        return "not of the form :N or :N.M";
    }
    struct stat info;
    const std::string socketPath = paths.x11SocketDir + "X" + number;
    if (lstat(socketPath.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return "no X server socket " + socketPath;
    }
    return std::string();
}

std::string CheckAuthority(const std::string& value, uid_t uid, const SessionPaths& paths,
                           std::string& resolved) {
    struct stat info;
    if (value.empty() || value[0] != '/') {
        return "not an absolute path";
    }
    if (lstat(value.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return "not a regular file (links are not followed)";
    }
    if (info.st_size > kAuthorityFileLimit) {
        return "too large for an authority file";
    }
    resolved = Resolved(value);
    if (resolved.empty()) {
        return "does not resolve";
    }
    if (info.st_uid == uid) {
        return std::string();
    }
    if (info.st_uid == 0) {
        for (const std::string& dir : paths.displayManagerDirs) {
            if (StartsWith(resolved, dir)) {
                return std::string();
            }
        }
        return "owned by root outside a display manager's folder";
    }
    return "owned by another user";
}

} // namespace

std::map<std::string, std::string> ParseEnviron(const std::string& block,
                                                std::vector<std::string>& tooLong) {
    std::map<std::string, std::string> found;
    size_t at = 0;
    while (at < block.size()) {
        const size_t end = block.find('\0', at);
        if (end == std::string::npos) {
            break; // unterminated: cut short or forged
        }
        const size_t equals = block.find('=', at);
        if (equals < end) {
            const std::string name = block.substr(at, equals - at);
            for (const char* wanted : kWantedVariables) {
                if (name != wanted || found.count(name) != 0) {
                    continue;
                }
                if (end - equals - 1 > kEnvironValueLimit) {
                    found[name]; // first occurrence decides, even when dropped
                    tooLong.push_back(name);
                } else {
                    found[name] = block.substr(equals + 1, end - equals - 1);
                }
            }
        }
        at = end + 1;
    }
    for (const std::string& name : tooLong) {
        found.erase(name);
    }
    return found;
}

std::string LoggableValue(const std::string& value) {
    std::string text = value.substr(0, kLoggedValueLength);
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) {
            c = '?';
        }
    }
    return value.size() > kLoggedValueLength ? text + "..." : text;
}

SessionEnvironment VerifySessionEnvironment(const std::map<std::string, std::string>& found,
                                            uid_t uid, const SessionPaths& paths,
                                            std::vector<std::string>& rejected) {
    SessionEnvironment env;
    auto check = [&](const char* name, std::string& into,
                     const std::function<std::string(const std::string&)>& why) {
        const auto it = found.find(name);
        if (it == found.end()) {
            return;
        }
        const std::string reason = why(it->second);
        if (reason.empty()) {
            if (into.empty()) {
                into = it->second;
            }
        } else {
            into.clear();
            rejected.push_back(std::string(name) + " rejected (" + reason + "): \"" +
                               LoggableValue(it->second) + "\"");
        }
    };
    check(kVarRuntimeDir, env.runtimeDir, [&](const std::string& value) {
        return CheckRuntimeDir(value, uid, paths, env.runtimeDir);
    });
    check(kVarWaylandDisplay, env.waylandDisplay, [&](const std::string& value) {
        return CheckWaylandDisplay(value, uid, env.runtimeDir);
    });
    check(kVarDisplay, env.display,
          [&](const std::string& value) { return CheckDisplay(value, paths); });
    check(kVarAuthority, env.authority, [&](const std::string& value) {
        return CheckAuthority(value, uid, paths, env.authority);
    });
    const std::string bus = "unix:path=" + paths.runtimeRoot + std::to_string(uid) + "/bus";
    check(kVarSessionBus, env.sessionBus,
          [&](const std::string& value) { return value == bus ? std::string() : "not " + bus; });
    return env;
}

std::vector<std::string> BuildSessionLaunchEnvironment(char* const* inherited,
                                                       const SessionEnvironment& session,
                                                       const std::vector<std::string>& entries,
                                                       const std::string& user) {
    std::vector<std::string> added;
    auto add = [&added](const char* name, const std::string& value) {
        if (!value.empty()) {
            added.push_back(std::string(name) + "=" + value);
        }
    };
    add(kVarDisplay, session.display);
    add(kVarAuthority, session.authority);
    add("XAUTHLOCALHOSTNAME", session.display.empty() ? std::string() : "localhost");
    add(kVarWaylandDisplay, session.waylandDisplay);
    add(kVarRuntimeDir, session.runtimeDir);
    add(kVarSessionBus, session.sessionBus);
    added.insert(added.end(), entries.begin(), entries.end());
    add(kEntryDesktopUser, user);

    // Names the session or the notification sets are never inherited, so
    // that the daemon's own DISPLAY or a stale entry cannot slip through.
    std::set<std::string> setHere(std::begin(kWantedVariables), std::end(kWantedVariables));
    setHere.insert({"XAUTHLOCALHOSTNAME", kEntryDesktopUser});
    for (const std::string& entry : entries) {
        setHere.insert(entry.substr(0, entry.find('=')));
    }
    std::vector<std::string> all;
    for (char* const* entry = inherited; entry != nullptr && *entry != nullptr; ++entry) {
        const char* equals = strchr(*entry, '=');
        if (equals != nullptr && setHere.count(std::string(*entry, size_t(equals - *entry))) == 0) {
            all.push_back(*entry);
        }
    }
    all.insert(all.end(), added.begin(), added.end());
    return all;
}

} // namespace vel

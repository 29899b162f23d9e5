#include "host/SessionDiscovery.h"

#include "host/SessionChoice.h"
#include "log/Log.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace vel {

namespace {

constexpr const char* kLogindService = "org.freedesktop.login1";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";
constexpr const char* kSessionPathPrefix = "/org/freedesktop/login1/session";
constexpr int kMaxSessions = 1024;
// Environments read at most per notification (each up to kEnvironLimit).
constexpr int kMaxEnvironmentsRead = 64;
constexpr size_t kPasswordBufferSize = 16384;

// Takes over a string sd-login allocated.
std::string Owned(char* text) {
    std::string value = text != nullptr ? text : "";
    free(text);
    return value;
}

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;

// One property of a session object; false when logind does not answer.
template <typename T>
bool SessionProperty(sd_bus* bus, const std::string& id, const char* name, char type, T& value) {
    char* path = nullptr;
    if (sd_bus_path_encode(kSessionPathPrefix, id.c_str(), &path) < 0) {
        return false;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result = sd_bus_get_property_trivial(bus, kLogindService, path, kSessionInterface,
                                                   name, &error, type, &value);
    sd_bus_error_free(&error);
    free(path);
    return result >= 0;
}

std::vector<SessionRecord> ListSessions() {
    std::vector<SessionRecord> sessions;
    char** ids = nullptr;
    const int count = sd_get_sessions(&ids);
    for (int i = 0; i < count && ids != nullptr; ++i) {
        if (i < kMaxSessions) {
            SessionRecord record;
            record.id = ids[i];
            char* text = nullptr;
            record.seat = sd_session_get_seat(ids[i], &text) >= 0 ? Owned(text) : "";
            text = nullptr;
            record.type = sd_session_get_type(ids[i], &text) >= 0 ? Owned(text) : "";
            text = nullptr;
            record.klass = sd_session_get_class(ids[i], &text) >= 0 ? Owned(text) : "";
            text = nullptr;
            record.state = sd_session_get_state(ids[i], &text) >= 0 ? Owned(text) : "";
            record.remote = sd_session_is_remote(ids[i]) > 0;
            if (sd_session_get_uid(ids[i], &record.uid) < 0) {
                record.state.clear(); // unusable without its user
            }
            sessions.push_back(record);
        }
        free(ids[i]);
    }
    free(ids);
    return sessions;
}

std::string UserName(uid_t uid) {
    std::vector<char> buffer(kPasswordBufferSize);
    passwd entry;
    passwd* result = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) != 0 || result == nullptr) {
        return std::string();
    }
    return entry.pw_name;
}

// Where a process stands towards the target session.
enum class Membership { kNone, kScope, kUserManager };

// Desktops double-fork their clients (reparented to PID 1) and GNOME runs its
// shell under the user's service manager, so descent from the leader misses
// them; logind's own cgroup placement says which processes are the session's.
Membership SessionMembership(pid_t pid, const std::string& id, uid_t uid) {
    char* text = nullptr;
    if (sd_pid_get_session(pid, &text) >= 0) {
        return Owned(text) == id ? Membership::kScope : Membership::kNone;
    }
    uid_t owner = 0;
    if (sd_pid_get_user_unit(pid, &text) >= 0) {
        free(text);
        if (sd_pid_get_owner_uid(pid, &owner) >= 0 && owner == uid) {
            return Membership::kUserManager;
        }
    }
    return Membership::kNone;
}

// The session's processes owned by `uid`, with their group: the leader, the
// rest of its scope by pid, then the user's service manager's (which the
// user's other sessions share, so only as a fall-back). At most
// kMaxProcessesScanned entries of /proc are looked at.
std::vector<std::pair<pid_t, gid_t>> SessionProcesses(pid_t leader, const std::string& id,
                                                      uid_t uid) {
    std::vector<std::pair<pid_t, gid_t>> scope;
    std::vector<std::pair<pid_t, gid_t>> manager;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return scope;
    }
    int scanned = 0;
    while (const dirent* entry = readdir(proc)) {
        if (++scanned > kMaxProcessesScanned) {
            break;
        }
        char* end = nullptr;
        const long pid = strtol(entry->d_name, &end, 10);
        struct stat info;
        if (pid <= 0 || *end != '\0' || fstatat(dirfd(proc), entry->d_name, &info, 0) != 0 ||
            info.st_uid != uid) {
            continue;
        }
        switch (SessionMembership(pid_t(pid), id, uid)) {
        case Membership::kScope:
            scope.emplace_back(pid_t(pid), info.st_gid);
            break;
        case Membership::kUserManager:
            manager.emplace_back(pid_t(pid), info.st_gid);
            break;
        case Membership::kNone:
            break;
        }
    }
    closedir(proc);
    const auto byPid = [leader](const std::pair<pid_t, gid_t>& a,
                                const std::pair<pid_t, gid_t>& b) {
        return (a.first == leader) != (b.first == leader) ? a.first == leader : a.first < b.first;
    };
    std::sort(scope.begin(), scope.end(), byPid);
    std::sort(manager.begin(), manager.end(), byPid);
    scope.insert(scope.end(), manager.begin(), manager.end());
    return scope;
}

// Another user's environment may be read only with CAP_SYS_PTRACE, which the
// service's confinement does not grant; with this thread's file-system ids
// set to the process's own, the kernel lets its owner's rights suffice. Only
// the open is done so; the ids are restored at once.
int OpenEnviron(pid_t pid, uid_t uid, gid_t gid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/environ";
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0 || (errno != EACCES && errno != EPERM)) {
        return fd;
    }
    const int oldGid = setfsgid(gid);
    const int oldUid = setfsuid(uid);
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    setfsuid(uid_t(oldUid));
    setfsgid(gid_t(oldGid));
    return fd;
}

std::string ReadEnviron(pid_t pid, uid_t uid, gid_t gid) {
    const int fd = OpenEnviron(pid, uid, gid);
    if (fd < 0) {
        return std::string();
    }
    std::string block(kEnvironLimit, '\0');
    size_t filled = 0;
    while (filled < block.size()) {
        const ssize_t got = read(fd, &block[filled], block.size() - filled);
        if (got <= 0) {
            break;
        }
        filled += size_t(got);
    }
    close(fd);
    block.resize(filled);
    return block;
}

// The first of the session's processes whose environment names a display.
bool SessionVariables(pid_t leader, uid_t uid, const std::string& id,
                      std::map<std::string, std::string>& found) {
    int read = 0;
    for (const auto& [pid, gid] : SessionProcesses(leader, id, uid)) {
        if (++read > kMaxEnvironmentsRead) {
            break;
        }
        std::vector<std::string> tooLong;
        std::map<std::string, std::string> variables =
            ParseEnviron(ReadEnviron(pid, uid, gid), tooLong);
        for (const std::string& name : tooLong) {
            Log("Session " + id + ": " + name + " rejected (longer than " +
                std::to_string(kEnvironValueLimit) + " bytes)");
        }
        const auto named = [&variables](const char* name) {
            const auto it = variables.find(name);
            return it != variables.end() && !it->second.empty();
        };
        if (named(kVarDisplay) || named(kVarWaylandDisplay) || !tooLong.empty()) {
            found.swap(variables);
            return true;
        }
    }
    return false;
}

} // namespace

bool LogindRunning() {
    return sd_booted() > 0 && access("/run/systemd/seats", F_OK) == 0;
}

bool DiscoverDesktopSession(DesktopSession& session, std::string& why, const SessionPaths& paths) {
    sd_bus* opened = nullptr;
    if (sd_bus_open_system(&opened) < 0) {
        why = "the system bus cannot be reached";
        return false;
    }
    const Bus bus(opened);
    std::vector<SessionRecord> sessions = ListSessions();
    char* active = nullptr;
    const std::string seat0Active =
        sd_seat_get_active("seat0", &active, nullptr) >= 0 ? Owned(active) : "";
    int chosen = ChooseTargetSession(sessions, seat0Active);
    if (chosen >= 0 && sessions[size_t(chosen)].id != seat0Active) {
        // Not seat0's: the start times decide, asked only now.
        for (SessionRecord& record : sessions) {
            if (IsActiveGraphical(record)) {
                SessionProperty(bus.get(), record.id, "Timestamp", 't', record.startedUsec);
            }
        }
        chosen = ChooseTargetSession(sessions, seat0Active);
    }
    if (chosen < 0) {
        why = "no active graphical session";
        return false;
    }
    const SessionRecord& record = sessions[size_t(chosen)];
    session.id = record.id;
    session.uid = record.uid;
    session.user = UserName(record.uid);
    const std::string described =
        "session " + record.id + " of user id " + std::to_string(record.uid);
    uint32_t leader = 0;
    if (record.uid == 0 || session.user.empty()) {
        why = described + (record.uid == 0 ? " is root's" : " has no account name");
        return false;
    }
    if (!SessionProperty(bus.get(), record.id, "Leader", 'u', leader) || leader == 0) {
        why = described + " has no leader process";
        return false;
    }
    std::map<std::string, std::string> found;
    if (!SessionVariables(pid_t(leader), record.uid, record.id, found)) {
        why = described + ": no process of its user names a display";
        return false;
    }
    std::vector<std::string> rejected;
    session.environment = VerifySessionEnvironment(found, record.uid, paths, rejected);
    for (const std::string& line : rejected) {
        Log("Session " + record.id + ": " + line);
    }
    if (!session.environment.HasDisplay()) {
        why = described + " has no usable display";
        return false;
    }
    return true;
}

} // namespace vel

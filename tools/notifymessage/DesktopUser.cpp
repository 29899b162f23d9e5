#include "DesktopUser.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace notifymsg {

namespace {

// Descriptors above this are not looked at when close_range is missing.
constexpr int kMaxDescriptorScan = 65536;
// Login records read at most (the file is another program's).
constexpr int kMaxLoginRecords = 4096;

bool Account(uid_t uid, DesktopUser& user, std::string& error) {
    errno = 0;
    const passwd* entry = getpwuid(uid);
    if (entry == nullptr) {
        error = "no account for user id " + std::to_string(uid);
        return false;
    }
    user.uid = entry->pw_uid;
    user.gid = entry->pw_gid;
    user.name = entry->pw_name;
    user.home = entry->pw_dir != nullptr ? entry->pw_dir : "/";
    return true;
}

void CloseRange(unsigned first, unsigned last) {
    if (first > last || close_range(first, last, 0) == 0) {
        return;
    }
    const long max = sysconf(_SC_OPEN_MAX);
    const unsigned limit = unsigned(max > 0 && max < kMaxDescriptorScan ? max : kMaxDescriptorScan);
    for (unsigned fd = first; fd <= last && fd < limit; ++fd) {
        close(int(fd));
    }
}

} // namespace

bool RunningWithRoot() {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return getresuid(&real, &effective, &saved) != 0 || real == 0 || effective == 0 || saved == 0;
}

void CloseInheritedDescriptors(int keep) {
    if (keep > 3) {
        CloseRange(3, unsigned(keep) - 1);
    }
    CloseRange(unsigned(keep < 3 ? 3 : keep + 1), UINT_MAX);
}

bool PathOwner(const char* path, bool directory, uid_t& owner, std::string& error) {
    struct stat info;
    if (path == nullptr || *path == '\0' || lstat(path, &info) != 0) {
        error = std::string("cannot examine ") + (path != nullptr ? path : "(unset)");
        return false;
    }
    if (directory ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
        error = std::string(path) + (directory ? " is not a directory" : " is not a regular file") +
                " (links are not followed)";
        return false;
    }
    owner = info.st_uid;
    return true;
}

bool UserById(uid_t uid, DesktopUser& user, std::string& error) {
    if (uid == 0) {
        error = "the desktop user would be root";
        return false;
    }
    return Account(uid, user, error);
}

bool UserByName(const std::string& name, DesktopUser& user, std::string& error) {
    const passwd* entry = name.empty() ? nullptr : getpwnam(name.c_str());
    if (entry == nullptr) {
        error = "no account named " + name;
        return false;
    }
    return UserById(entry->pw_uid, user, error);
}

bool UserOfDisplay(const std::string& display, const char* utmpPath, DesktopUser& user,
                   std::string& error) {
    const std::string screenless = display.substr(0, display.find('.', display.rfind(':')));
    std::string name;
    if (utmpname(utmpPath) != 0) {
        error = "cannot use the login records";
        return false;
    }
    setutent();
    for (int count = 0; count < kMaxLoginRecords; ++count) {
        const utmp* entry = getutent();
        if (entry == nullptr) {
            break;
        }
        if (entry->ut_type != USER_PROCESS) {
            continue;
        }
        const std::string line(entry->ut_line, strnlen(entry->ut_line, sizeof entry->ut_line));
        const std::string host(entry->ut_host, strnlen(entry->ut_host, sizeof entry->ut_host));
        if (line == screenless || line == display || host == screenless || host == display) {
            name.assign(entry->ut_user, strnlen(entry->ut_user, sizeof entry->ut_user));
        }
    }
    endutent();
    utmpname(_PATH_UTMP);
    if (name.empty()) {
        error = "nobody is logged in on display " + display;
        return false;
    }
    return UserByName(name, user, error);
}

bool CurrentUser(DesktopUser& user, std::string& error) {
    return Account(getuid(), user, error);
}

bool BecomeUser(const DesktopUser& user, std::string& error) {
    if (user.uid == 0 || user.gid == 0) {
        error = "the desktop user has root's user or group id";
        return false;
    }
    if (initgroups(user.name.c_str(), user.gid) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0) {
        error = std::string("cannot become ") + user.name + ": " + strerror(errno);
        return false;
    }
    uid_t ruid, euid, suid;
    gid_t rgid, egid, sgid;
    if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0 ||
        ruid != user.uid || euid != user.uid || suid != user.uid || rgid != user.gid ||
        egid != user.gid || sgid != user.gid || setuid(0) == 0 || seteuid(0) == 0 ||
        setgid(0) == 0) {
        error = "root could still be regained after changing user";
        return false;
    }
    setenv("HOME", user.home.c_str(), 1);
    setenv("USER", user.name.c_str(), 1);
    setenv("LOGNAME", user.name.c_str(), 1);
    uid_t owner = 0;
    std::string ignored;
    const char* given = getenv("XDG_RUNTIME_DIR");
    if (given == nullptr || !PathOwner(given, true, owner, ignored) || owner != user.uid) {
        const std::string own = "/run/user/" + std::to_string(user.uid);
        if (PathOwner(own.c_str(), true, owner, ignored) && owner == user.uid) {
            setenv("XDG_RUNTIME_DIR", own.c_str(), 1);
        } else {
            unsetenv("XDG_RUNTIME_DIR");
        }
    }
    return true;
}

} // namespace notifymsg

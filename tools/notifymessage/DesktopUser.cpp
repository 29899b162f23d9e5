#include "DesktopUser.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace notifymsg {

namespace {

// Descriptors above this are not looked at when close_range is missing.
constexpr int kMaxDescriptorScan = 65536;

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

bool FindDesktopUser(const char* xauthority, DesktopUser& user, std::string& error) {
    if (xauthority == nullptr || *xauthority == '\0') {
        error = "XAUTHORITY is not set, so the desktop user is unknown";
        return false;
    }
    // Not followed through a link: whoever owns the link's directory must not
    // be able to choose whom this program becomes.
    struct stat info;
    if (lstat(xauthority, &info) != 0) {
        error = std::string("cannot examine the X authority file: ") + strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "the X authority file is not a regular file (links are not followed)";
        return false;
    }
    if (info.st_uid == 0) {
        error = "the X authority file belongs to root, not to a desktop user";
        return false;
    }
    return Account(info.st_uid, user, error);
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
    return true;
}

} // namespace notifymsg

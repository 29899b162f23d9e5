// Leaving root before anything from the network is drawn: the daemon starts
// this program as root, and the desktop user is who it becomes, for good.
// Single-threaded, called before GTK is touched.
#pragma once

#include <sys/types.h>

#include <string>

namespace notifymsg {

struct DesktopUser {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;
};

// True when the real, effective or saved user id is root.
bool RunningWithRoot();

// Closes every inherited descriptor except 0, 1, 2 and keep (the daemon's
// other sockets must not reach a process that the desktop user owns).
void CloseInheritedDescriptors(int keep);

// The owner of a regular file or directory (never followed through a link).
bool PathOwner(const char* path, bool directory, uid_t& owner, std::string& error);

// The account with this id or name; root's is refused.
bool UserById(uid_t uid, DesktopUser& user, std::string& error);
bool UserByName(const std::string& name, DesktopUser& user, std::string& error);

// The user logged in on this X display by the login records at `utmpPath`: the
// last user process whose line or host names the display (":0", ":0.0").
bool UserOfDisplay(const std::string& display, const char* utmpPath, DesktopUser& user,
                   std::string& error);

// The account this process already runs as (started without root).
bool CurrentUser(DesktopUser& user, std::string& error);

// Takes the user's groups, group and user id (real, effective and saved), then
// checks that root cannot be regained; sets HOME, USER and LOGNAME, and
// XDG_RUNTIME_DIR to the user's own runtime directory (unset when there is
// none, so that nothing of root's is used).
bool BecomeUser(const DesktopUser& user, std::string& error);

} // namespace notifymsg

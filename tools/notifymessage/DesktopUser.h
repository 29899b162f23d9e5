// Leaving root before anything from the network is drawn: the daemon starts
// this program as root, and the desktop user (the owner of the X authority
// file it was given) is who it becomes, for good. Single-threaded, called
// before the display is opened.
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

// The owner of the X authority file. Refused: no path, not a regular file (a
// symbolic link included), owned by root, or an owner without an account.
bool FindDesktopUser(const char* xauthority, DesktopUser& user, std::string& error);

// The account this process already runs as (started without root).
bool CurrentUser(DesktopUser& user, std::string& error);

// Takes the user's groups, group and user id (real, effective and saved), then
// checks that root cannot be regained; sets HOME, USER and LOGNAME.
bool BecomeUser(const DesktopUser& user, std::string& error);

} // namespace notifymsg

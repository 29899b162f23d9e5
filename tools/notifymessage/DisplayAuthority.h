// Handing a root-owned X authority (a display manager's, such as
// /var/run/lightdm/root/:0) to the desktop user: only the cookie of the one
// display is read, while still root, and written into a fresh file that the
// user owns in the user's runtime directory. Single-threaded, before GTK.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace notifymsg {

// An authority file larger than this, or with more entries, is refused.
constexpr size_t kMaxAuthorityFileBytes = 256 * 1024;
constexpr int kMaxAuthorityEntries = 1024;
// The family that matches any host, as xauth writes for "*".
constexpr uint16_t kFamilyWild = 65535;

struct AuthorityEntry {
    uint16_t family = 0;
    std::string address;
    std::string number; // the display number, as text
    std::string name;   // the protocol, e.g. "MIT-MAGIC-COOKIE-1"
    std::string data;   // the cookie
};

// The display number of a DISPLAY value (":0", ":0.0", "unix:1", "host:10.0");
// -1 when it names none.
int DisplayNumber(const std::string& display);

// The entries for this display number from a regular file owned by root (not
// followed through a link), bounded in size and count.
bool ReadDisplayCookies(const std::string& path, int displayNumber,
                        std::vector<AuthorityEntry>& entries, std::string& error);

// Writes the entries, valid for any host, into a new file (0600, never through
// a link, never over an existing file) in `directory`, which must be the
// user's own; the file then belongs to uid/gid. Sets `path` to it.
bool WriteUserAuthority(const std::vector<AuthorityEntry>& entries, const std::string& directory,
                        uid_t uid, gid_t gid, std::string& path, std::string& error);

} // namespace notifymsg

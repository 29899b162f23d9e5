// notifymessage: shows one notification on the desktop and reports the user's
// acknowledgement to the daemon that started it. Single-threaded (GTK's own
// threads aside).
//
// Input is the environment the daemon sets: MESSAGE, CAPTION, TIMEOUT (seconds
// until the window closes by itself, unacknowledged; 0 or empty: never),
// MESSAGE_ID, WINDOW_ORDER (slot 0..9, so stacked windows do not cover each
// other), FULLSCREEN (1: full-screen), FULLSCREEN_TIMEOUT (seconds until a
// full-screen window shrinks to its slot; 0 or empty: never), LARGE_LOGO_PATH
// (an image gdk-pixbuf reads), plus DISPLAY and XAUTHORITY, or WAYLAND_DISPLAY
// and XDG_RUNTIME_DIR. FLAGS is not used. NOTIFY_DESKTOP_USER, when given,
// names the account to become.
//
// Started as root (as the daemon does), it first closes every inherited
// descriptor but 0-2 and 60, then becomes the desktop user for good, before
// GTK is touched and before the logo is read: NOTIFY_DESKTOP_USER if given,
// else the owner of the X authority file; a display manager's root-owned file
// gives the user logged in on that display, and that display's cookie is
// handed over in a file of the user's own. Nothing is ever drawn by root.
//
// When the user presses "Acknowledge", one record goes to descriptor 60 in one
// write. Closing the window or its time-out sends nothing.
//
// Exit status: 0 shown (acknowledged, timed out or closed); 1 display or
// acknowledgement failure; 2 refused to run as root.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdio>
#include <cstdlib>

#include "Acknowledgement.h"
#include "DesktopUser.h"
#include "DisplayAuthority.h"
#include "LogoLoader.h"
#include "NotificationRequest.h"
#include "NotificationWindow.h"

namespace {

using namespace notifymsg;

constexpr int kExitFailed = 1;
constexpr int kExitRefused = 2;

const char* Lookup(const char* name) {
    return getenv(name);
}

// Signals blocked or ignored in the daemon's thread survive exec; start clean,
// except that a closed acknowledgement channel must be an error, not a kill.
void ResetSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGHUP, SIGINT, SIGTERM, SIGCHLD}) {
        signal(sig, SIG_DFL);
    }
    signal(SIGPIPE, SIG_IGN);
}

void Complain(const std::string& text) {
    fprintf(stderr, "notifymessage: %s\n", text.c_str());
}

// The authority file handed to the user, removed once the display is open.
std::string gHandedAuthority;

void RemoveHandedAuthority() {
    if (!gHandedAuthority.empty()) {
        unlink(gHandedAuthority.c_str());
        gHandedAuthority.clear();
    }
}

// Who to become, and (for a root-owned X authority) that display's cookie in a
// file of the user's own. False with the reason when nobody fits.
// The user to become; for a display manager's root-owned authority file also
// that display's cookie, read now while still root.
bool ChooseUser(const NotificationRequest& request, DesktopUser& user,
                std::vector<AuthorityEntry>& cookies, std::string& error) {
    const char* authority = getenv("XAUTHORITY");
    const char* display = getenv("DISPLAY");
    uid_t owner = 0;
    const bool hasAuthority =
        authority != nullptr && *authority != '\0' && PathOwner(authority, false, owner, error);
    bool found = false;
    if (!request.desktopUser.empty()) {
        found = UserByName(request.desktopUser, user, error);
    } else if (hasAuthority && owner != 0) {
        found = UserById(owner, user, error);
    } else if (hasAuthority) {
        found = UserOfDisplay(display != nullptr ? display : "", _PATH_UTMP, user, error);
    } else if (getenv("WAYLAND_DISPLAY") != nullptr) {
        // Native Wayland: the owner of the session's runtime directory.
        found = PathOwner(getenv("XDG_RUNTIME_DIR"), true, owner, error) &&
                UserById(owner, user, error);
    } else if (authority == nullptr || *authority == '\0') {
        error = "XAUTHORITY is not set, so the desktop user is unknown";
    }
    if (!found || !hasAuthority || owner != 0) {
        return found;
    }
    return ReadDisplayCookies(authority, DisplayNumber(display != nullptr ? display : ""), cookies,
                              error);
}

// Written as the user, not as root: root would need to override the
// permissions of the user's private folder (the service's confinement takes
// that right away), and a file made by the user cannot be a planted link.
bool HandOver(const std::vector<AuthorityEntry>& cookies, const DesktopUser& user,
              std::string& error) {
    const std::string runtime = "/run/user/" + std::to_string(user.uid);
    if (!WriteUserAuthority(cookies, runtime, user.uid, user.gid, gHandedAuthority, error)) {
        return false;
    }
    setenv("XAUTHORITY", gHandedAuthority.c_str(), 1);
    return true;
}

} // namespace

int main() {
    ResetSignals();
    const NotificationRequest request = ReadNotificationRequest(Lookup);
    CloseInheritedDescriptors(kAcknowledgeDaemonPort);

    DesktopUser user;
    std::string error;
    if (RunningWithRoot()) {
        std::vector<AuthorityEntry> cookies;
        if (!ChooseUser(request, user, cookies, error) || !BecomeUser(user, error)) {
            Complain(error + "; refusing to run as root");
            return kExitRefused;
        }
        if (!cookies.empty() && !HandOver(cookies, user, error)) {
            Complain(error);
            return kExitFailed;
        }
    } else if (!CurrentUser(user, error)) {
        Complain(error);
        user.name.clear(); // the record then carries an empty name
    }

    GdkPixbuf* logo = nullptr;
    if (!request.logoPath.empty()) {
        logo = LoadLogo(request.logoPath, kLargeLogoBox * 2, error);
        if (logo == nullptr) {
            Complain("logo " + request.logoPath + " not shown: " + error);
        }
    }

    const Outcome outcome = ShowNotification(request, logo, RemoveHandedAuthority, error);
    RemoveHandedAuthority();
    if (outcome == Outcome::Failed) {
        Complain(error);
        return kExitFailed;
    }
    if (outcome != Outcome::Acknowledged) {
        return 0;
    }
    if (!request.messageId) {
        Complain("acknowledged, but MESSAGE_ID is missing or not a number: nothing sent");
        return kExitFailed;
    }
    const std::string record =
        BuildAcknowledgement(*request.messageId, kAcknowledgedFlags, user.name);
    if (!SendAcknowledgement(kAcknowledgeDaemonPort, record, error)) {
        Complain("cannot send the acknowledgement: " + error);
        return kExitFailed;
    }
    return 0;
}

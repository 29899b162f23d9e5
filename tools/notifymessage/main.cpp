// notifymessage: shows one notification on the desktop and reports the user's
// acknowledgement to the daemon that started it. Single-threaded.
//
// Input is the environment the daemon sets: MESSAGE, CAPTION, TIMEOUT (seconds
// until the window closes by itself, unacknowledged; 0 or empty: never),
// MESSAGE_ID, WINDOW_ORDER (slot 0..9, so stacked windows do not cover each
// other), FULLSCREEN (1: full-screen), FULLSCREEN_TIMEOUT (seconds until a
// full-screen window shrinks to a normal one; 0 or empty: never),
// LARGE_LOGO_PATH (a binary PPM or PGM image; other formats are ignored),
// plus DISPLAY and XAUTHORITY. FLAGS is not used.
//
// Started as root (as the daemon does), it first closes every inherited
// descriptor but 0-2 and 60, then becomes the desktop user, the owner of the
// XAUTHORITY file, for good; only then does it read the logo, open the display
// or draw any text. If that user cannot be found (XAUTHORITY unset, a link or
// not a regular file, owned by root, no account) it refuses to run: nothing
// from the network is ever drawn by root. Started without root it runs as it
// is.
//
// When the user presses "Acknowledge", one record goes to descriptor 60 in one
// write: message id, user flags 1, user name length, user name and NUL (padded
// to 16 bytes). Closing the window or its time-out sends nothing.
//
// Exit status: 0 shown (acknowledged, timed out or closed); 1 display or
// acknowledgement failure; 2 refused to run as root.
#include "Acknowledgement.h"
#include "DesktopUser.h"
#include "LogoImage.h"
#include "NotificationRequest.h"
#include "NotificationWindow.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>

namespace {

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
    for (int sig : {SIGHUP, SIGINT, SIGTERM}) {
        signal(sig, SIG_DFL);
    }
    signal(SIGPIPE, SIG_IGN);
}

void Complain(const std::string& text) {
    fprintf(stderr, "notifymessage: %s\n", text.c_str());
}

} // namespace

int main() {
    using namespace notifymsg;
    ResetSignals();
    const NotificationRequest request = ReadNotificationRequest(Lookup);
    CloseInheritedDescriptors(kAcknowledgeDaemonPort);

    DesktopUser user;
    std::string error;
    if (RunningWithRoot()) {
        if (!FindDesktopUser(getenv("XAUTHORITY"), user, error) || !BecomeUser(user, error)) {
            Complain(error + "; refusing to run as root");
            return kExitRefused;
        }
    } else if (!CurrentUser(user, error)) {
        Complain(error);
        user.name.clear(); // the record then carries an empty name
    }

    RgbImage logo;
    if (!request.logoPath.empty() && !LoadLogo(request.logoPath, logo, error)) {
        Complain("logo " + request.logoPath + " not shown: " + error);
        logo = RgbImage();
    }

    const Outcome outcome = ShowNotification(request, logo, error);
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

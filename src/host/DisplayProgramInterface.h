// What the daemon and the display program (tools/notifymessage) agree on, in
// one place: the environment entries that carry a notification, the inherited
// descriptor the answer goes back on, the answer's record and the number of
// window slots. Constants only; any thread may use them.
#pragma once

#include <stddef.h>

namespace vel {

// The nine entries, in the order the daemon sets them.
constexpr const char* kEntryMessage = "MESSAGE";
constexpr const char* kEntryCaption = "CAPTION";
constexpr const char* kEntryTimeout = "TIMEOUT";
constexpr const char* kEntryFlags = "FLAGS";
constexpr const char* kEntryMessageId = "MESSAGE_ID";
constexpr const char* kEntryWindowOrder = "WINDOW_ORDER";
constexpr const char* kEntryFullscreen = "FULLSCREEN";
constexpr const char* kEntryFullscreenTimeout = "FULLSCREEN_TIMEOUT";
constexpr const char* kEntryLargeLogoPath = "LARGE_LOGO_PATH";

// Optional: the account the display program becomes when started as root.
// Absent: the owner of the X authority file (or, for a root-owned one, the
// user logged in on that display).
constexpr const char* kEntryDesktopUser = "NOTIFY_DESKTOP_USER";

// WINDOW_ORDER cycles through this many slots (0 .. 9).
constexpr int kWindowSlotCount = 10;

// The display program's end of the acknowledgement channel (inherited across
// exec); the daemon reads the other end, kAcknowledgeClientPort.
constexpr int kAcknowledgeDaemonPort = 60;

// One record per write, host byte order; the NUL-terminated user name
// follows at kUserNameOffset. A read shorter than kMinAcknowledgementSize is
// no record; the daemon reads at most kAcknowledgementBufferSize at once.
struct NotificationAcknowledgement {
    int message_id;
    int user_flags; // 0: not acknowledged
    unsigned user_name_length;
};
constexpr int kUserNameOffset = 12;
constexpr int kMinAcknowledgementSize = 16;
constexpr int kAcknowledgementBufferSize = 4096;
static_assert(sizeof(NotificationAcknowledgement) == size_t(kUserNameOffset),
              "the name follows the three fields directly");

} // namespace vel

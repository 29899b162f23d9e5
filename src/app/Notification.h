// The transport's callback into the application and the display of received
// notifications. Everything here runs on the transport's read thread, except
// that the acknowledgement thread also reads gReceivedMessages: both take
// gReceivedMessagesLock, which guards gReceivedMessages and current_window_num.
#pragma once

#include <mutex>
#include <string>

#include "app/KeptFormat.h"
#include "host/DisplayProgramInterface.h"
#include "host/SessionDiscovery.h"
#include "transport/ICTL.h"

constexpr unsigned char kNotificationPacketType = 12;
constexpr int kNotificationTextOffset = 18;
constexpr int kWindowOrderCount = vel::kWindowSlotCount;
constexpr const char* kDisplayProgram = "notifymessage";
constexpr const char* kDisplaySubdirectory = "gui/message";

extern std::mutex gReceivedMessagesLock;

// Codes 1 and 15: a notification packet (type 12) is displayed; 7 and 8:
// settings from the preferences store; 16: file information. Anything else,
// or a code outside 0..16, is answered with 0.
int ClientCallback(int code, void* cbdata, CTL_CALLBACK* cb);

// Displays a notification once (a repeated id is dropped), then reports its
// reception with the desktop user's name. With gSessionDiscovery and logind,
// the display is that of the session logind names, and so is the user; with
// no such session the log says why it was not shown (and, with
// gKeepUndelivered, it is kept for the next login) and the reception is
// still reported.
void MessageCallback(const CTL_CALLBACK* cb);

// Splits the packet's texts: the message, "timeout|caption" and the flags.
// Never reads outside the datalen bytes of the packet. The caption and the
// time-out are left as they are when the packet has no second text; a second
// text without "|" is all time-out.
void GetMessageParameters(const CTL_CALLBACK* cb, std::string& message_str,
                          std::string& caption_str, std::string& timeout_str,
                          std::string& flags_str, std::string& id_str);

// Shows a kept notification in `session` with the next window order; its id
// counts as displayed. The thread showing kept notifications.
void ShowInSession(const KeptNotification& notification, const vel::DesktopSession& session);

// True when the id was displayed by this daemon (thread-safe).
bool WasDisplayed(int messageId);

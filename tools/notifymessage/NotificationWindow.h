// The notification on the desktop through GTK 4: caption as title and
// heading, the message (wrapped, selectable, scrolling past two thirds of the
// monitor's height), an optional logo and a real "Acknowledge" button. X11
// first (slot placement, kept above, urgency, no focus taken on map), native
// Wayland when no X display opens. Main thread only, after leaving root.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <functional>
#include <string>

#include "NotificationRequest.h"

namespace notifymsg {

enum class Outcome {
    Acknowledged, // the user pressed the button
    TimedOut,     // TIMEOUT passed first
    Closed,       // the window was closed
    Failed,       // no display could be opened; error says why
};

constexpr const char* kButtonLabel = "Acknowledge";
constexpr const char* kDefaultTitle = "Notification";
// Logo boxes of the normal and the full-screen look, in logical pixels.
constexpr int kLogoBox = 48;
constexpr int kLargeLogoBox = 256;

// Opens the display (X11, else Wayland), calls displayOpened once it is open,
// and shows the window until one of the outcomes. logo may be null.
Outcome ShowNotification(const NotificationRequest& request, GdkPixbuf* logo,
                         const std::function<void()>& displayOpened, std::string& error);

} // namespace notifymsg

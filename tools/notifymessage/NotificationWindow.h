// The notification on the X display: caption, message, optional logo and an
// "Acknowledge" button, placed by its window slot, optionally full-screen for
// a while, closing by itself after its time-out. Runs on the main thread only
// and must be called after the program has left root.
#pragma once

#include "LogoImage.h"
#include "NotificationRequest.h"

#include <string>

namespace notifymsg {

enum class Outcome {
    Acknowledged, // the user pressed the button
    TimedOut,     // TIMEOUT passed first
    Closed,       // the window manager closed the window
    Failed,       // no display or no font; error says why
};

constexpr const char* kWindowClass = "notifymessage";
constexpr const char* kButtonLabel = "Acknowledge";

// Opens the display named by DISPLAY, shows the window until one of the
// outcomes, then closes the display. An empty logo shows none.
Outcome ShowNotification(const NotificationRequest& request, const RgbImage& logo,
                         std::string& error);

} // namespace notifymsg

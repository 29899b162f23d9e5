// The notification as the daemon hands it over: environment entries read once
// at start, bounded and checked. Single-threaded.
#pragma once

#include <optional>
#include <string>

#include "host/DisplayProgramInterface.h"

namespace notifymsg {

// Longer texts are cut (the window could not show them anyway).
constexpr size_t kMaxCaptionBytes = 1024;
constexpr size_t kMaxMessageBytes = 64 * 1024;
constexpr size_t kMaxPathBytes = 4096;
constexpr size_t kMaxUserNameBytes = 255;
// Time-outs are capped at a week so that deadline arithmetic cannot overflow.
constexpr int kMaxTimeoutSeconds = 7 * 24 * 3600;
// Stacked windows take these slots in turn (WINDOW_ORDER cycles through them).
constexpr int kWindowSlots = vel::kWindowSlotCount;

struct NotificationRequest {
    std::string caption;
    std::string message;
    std::optional<int> messageId; // absent or not a number: nothing to acknowledge
    int timeoutSeconds = 0;       // 0: stays until acknowledged or closed
    int windowOrder = 0;          // 0 .. kWindowSlots - 1
    bool fullscreen = false;
    int fullscreenSeconds = 0; // 0: full-screen until it closes
    std::string logoPath;      // empty: no logo
    std::string desktopUser;   // empty: found from the X authority file
};

// Looks an environment entry up; null when absent.
using EnvironmentLookup = const char* (*)(const char* name);

NotificationRequest ReadNotificationRequest(EnvironmentLookup lookup);

// Runs longer than this many characters without a space get a zero-width
// space after every such stretch: Pango breaks long words character by
// character, which for one 64 KiB word takes half a minute; addresses up to
// this length stay whole when copied.
constexpr size_t kMaxUnbrokenRun = 128;
// The text (valid UTF-8) with those break opportunities.
std::string WithBreakOpportunities(const std::string& text);

// A whole decimal integer with optional sign and surrounding blanks, in range.
std::optional<long long> ParseInteger(const std::string& text);

} // namespace notifymsg

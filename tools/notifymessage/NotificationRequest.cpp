#include "NotificationRequest.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "host/DisplayProgramInterface.h"

namespace notifymsg {

namespace {

std::string Entry(EnvironmentLookup lookup, const char* name, size_t limit) {
    const char* value = lookup(name);
    if (value == nullptr) {
        return std::string();
    }
    std::string text(value);
    if (text.size() > limit) {
        text.resize(limit); // a cut UTF-8 sequence is shown as a replacement character
    }
    return text;
}

// Seconds from 0 to the cap; anything else (negative, not a number) is 0.
int Seconds(const std::string& text) {
    const std::optional<long long> value = ParseInteger(text);
    if (!value || *value <= 0) {
        return 0;
    }
    return *value > kMaxTimeoutSeconds ? kMaxTimeoutSeconds : int(*value);
}

} // namespace

std::optional<long long> ParseInteger(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t");
    size_t end = text.find_last_not_of(" \t");
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    const std::string digits = text.substr(begin, end - begin + 1);
    char* stop = nullptr;
    errno = 0;
    const long long value = strtoll(digits.c_str(), &stop, 10);
    if (errno != 0 || stop == digits.c_str() || *stop != '\0' ||
        (digits[0] != '-' && digits[0] != '+' && (digits[0] < '0' || digits[0] > '9'))) {
        return std::nullopt;
    }
    return value;
}

std::string WithBreakOpportunities(const std::string& text) {
    static const char kZeroWidthSpace[] = "\xe2\x80\x8b";
    std::string result;
    result.reserve(text.size() + text.size() / kMaxUnbrokenRun * 3);
    size_t run = 0;
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        const bool startsCharacter = (byte & 0xC0) != 0x80;
        if (byte <= ' ') {
            run = 0;
        } else if (startsCharacter && ++run > kMaxUnbrokenRun) {
            result += kZeroWidthSpace;
            run = 1;
        }
        result += c;
    }
    return result;
}

NotificationRequest ReadNotificationRequest(EnvironmentLookup lookup) {
    NotificationRequest request;
    request.caption = Entry(lookup, vel::kEntryCaption, kMaxCaptionBytes);
    request.message = Entry(lookup, vel::kEntryMessage, kMaxMessageBytes);

    const std::optional<long long> id = ParseInteger(Entry(lookup, vel::kEntryMessageId, 64));
    if (id && *id >= INT_MIN && *id <= INT_MAX) {
        request.messageId = int(*id);
    }
    request.timeoutSeconds = Seconds(Entry(lookup, vel::kEntryTimeout, 64));

    const std::optional<long long> order = ParseInteger(Entry(lookup, vel::kEntryWindowOrder, 64));
    if (order && *order >= 0) {
        request.windowOrder = int(*order % kWindowSlots);
    }
    const std::optional<long long> fullscreen =
        ParseInteger(Entry(lookup, vel::kEntryFullscreen, 64));
    request.fullscreen = fullscreen && *fullscreen != 0;
    request.fullscreenSeconds = Seconds(Entry(lookup, vel::kEntryFullscreenTimeout, 64));

    const char* logo = lookup(vel::kEntryLargeLogoPath);
    if (logo != nullptr && std::string(logo).size() <= kMaxPathBytes) {
        request.logoPath = logo;
    }
    const char* user = lookup(vel::kEntryDesktopUser);
    if (user != nullptr && std::string(user).size() <= kMaxUserNameBytes) {
        request.desktopUser = user;
    }
    return request;
}

} // namespace notifymsg

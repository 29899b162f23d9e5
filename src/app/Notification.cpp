#include "app/Notification.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "app/Customisation.h"
#include "app/TransportStartup.h"
#include "app/Undelivered.h"
#include "app/corvanenotify.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"
#include "host/ForkProcess.h"
#include "host/MachineDetails.h"
#include "host/SessionDiscovery.h"
#include "log/Log.h"

std::mutex gReceivedMessagesLock;

namespace {

// Display programs started and not yet seen to end, under its lock (the read
// thread and the thread showing kept notifications start them).
std::mutex gDisplayChildrenLock;
std::vector<pid_t> gDisplayChildren;

// Reaps the display programs that have ended. Only our own pids are waited
// for, so no other wait (popen's, system's) loses its child. When SIGCHLD is
// ignored the kernel has already reaped them and waitpid says ECHILD.
void ReapDisplayChildren() {
    std::lock_guard<std::mutex> lock(gDisplayChildrenLock);
    std::vector<pid_t> running;
    for (pid_t pid : gDisplayChildren) {
        if (waitpid(pid, nullptr, WNOHANG) == 0) {
            running.push_back(pid);
        }
    }
    gDisplayChildren.swap(running);
}

// The text at `at` up to its NUL or the end of the packet; `next` is the
// position after the NUL (or the end).
std::string TextAt(const unsigned char* data, int length, int at, int& next) {
    if (at >= length) {
        next = length;
        return std::string();
    }
    const void* nul = memchr(data + at, '\0', size_t(length - at));
    const int end = nul != nullptr ? int(static_cast<const unsigned char*>(nul) - data) : length;
    next = nul != nullptr ? end + 1 : length;
    return std::string(reinterpret_cast<const char*>(data + at), size_t(end - at));
}

int FlagsValue(const std::string& text) {
    const long value = strtol(text.c_str(), nullptr, 10);
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : int(value);
}

int AnswerConfigString(CTL_CALLBACK* cb) {
    char* buf = cb->configstr.buf;
    const int length = cb->configstr.buflen;
    if (buf == nullptr || length <= 0) {
        return 0;
    }
    std::string value;
    if (cb->configstr.section != nullptr && cb->configstr.key != nullptr) {
        value = vel::Preferences::getInstance()->getConfigString(cb->configstr.section,
                                                                 cb->configstr.key);
    }
    strncpy(buf, value.c_str(), size_t(length));
    buf[length - 1] = '\0';
    return 0;
}

int AnswerConfigInt(CTL_CALLBACK* cb) {
    if (cb->configint.section == nullptr || cb->configint.key == nullptr) {
        return cb->configint.dflt;
    }
    return vel::Preferences::getInstance()->getConfigInt(cb->configint.section, cb->configint.key,
                                                         cb->configint.dflt);
}

// Starts the display program with `entries`: the whole environment, or (the
// probe's way) entries added to the daemon's own after the X variables.
void StartDisplayProgram(const std::string& directory, std::vector<std::string>& entries,
                         bool whole) {
    std::vector<char*> environment;
    for (std::string& entry : entries) {
        environment.push_back(&entry[0]);
    }
    environment.push_back(nullptr);
    const int child =
        whole ? vel::ForkGuiProcessWithEnvironment(directory.c_str(), kDisplayProgram,
                                                   environment.data())
              : vel::ForkGuiProcess(directory.c_str(), kDisplayProgram, environment.data());
    if (child > 0) {
        std::lock_guard<std::mutex> lock(gDisplayChildrenLock);
        gDisplayChildren.push_back(child);
    }
}

// The display program's nine entries, in their fixed order.
std::vector<std::string> DisplayEntries(const KeptNotification& text, int windowOrder) {
    auto entry = [](const char* name, const std::string& value) {
        return std::string(name) + "=" + value;
    };
    return {
        entry(vel::kEntryMessage, text.message),
        entry(vel::kEntryCaption, text.caption),
        entry(vel::kEntryTimeout, text.timeout),
        entry(vel::kEntryFlags, text.flags),
        entry(vel::kEntryMessageId, std::to_string(text.id)),
        entry(vel::kEntryWindowOrder, std::to_string(windowOrder)),
        entry(vel::kEntryFullscreen, fullscreen != 0 ? "1" : "0"),
        entry(vel::kEntryFullscreenTimeout, fullscreentimeout),
        entry(vel::kEntryLargeLogoPath, largelogopath),
    };
}

std::string DisplayDirectory() {
    std::string directory;
    vel::install_path(directory);
    return directory + kDisplaySubdirectory;
}

const char* TextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

} // namespace

int ClientCallback(int code, void*, CTL_CALLBACK* cb) {
    if (code < 0 || code > kCtlFileInfo || cb == nullptr) {
        return 0;
    }
    switch (code) {
    case kCtlDataReceived:
    case 15:
        if (cb->message.data != nullptr && cb->message.datalen > 0 &&
            cb->message.data[0] == kNotificationPacketType) {
            MessageCallback(cb);
        }
        return 0;
    case kCtlConfigString:
        return AnswerConfigString(cb);
    case kCtlConfigInt:
        return AnswerConfigInt(cb);
    case kCtlFileInfo:
        FileInfoCallback(TextOrEmpty(cb->fileinfo.linkname), TextOrEmpty(cb->fileinfo.filename),
                         TextOrEmpty(cb->fileinfo.subfolder), cb->fileinfo.filesize,
                         cb->fileinfo.lastwritetime, TextOrEmpty(cb->fileinfo.serveraddress));
        return 0;
    default:
        return 0;
    }
}

void GetMessageParameters(const CTL_CALLBACK* cb, std::string& message_str,
                          std::string& caption_str, std::string& timeout_str,
                          std::string& flags_str, std::string& id_str) {
    const unsigned char* data = cb->message.data;
    const int length = data != nullptr && cb->message.datalen > 0 ? cb->message.datalen : 0;
    int flags = 0;
    int next = 0;
    message_str = TextAt(data, length, kNotificationTextOffset, next);
    const int last = length - 1;
    // Only a packet ending in NUL carries the optional texts.
    if (length > 0 && data[last] == '\0' && next < last) {
        const std::string second = TextAt(data, length, next, next);
        const size_t bar = second.find('|');
        timeout_str = second.substr(0, bar);
        caption_str = bar != std::string::npos ? second.substr(bar + 1) : std::string();
        if (next < last) {
            flags = FlagsValue(TextAt(data, length, next, next));
        }
    }
    flags_str = std::to_string(flags);
    id_str = std::to_string(cb->message.messageid);
}

bool WasDisplayed(int messageId) {
    std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
    return gReceivedMessages.count(messageId) != 0;
}

void MessageCallback(const CTL_CALLBACK* cb) {
    std::string message, caption, timeout, flags, idText;
    GetMessageParameters(cb, message, caption, timeout, flags, idText);
    const int id = int(strtol(idText.c_str(), nullptr, 10));

    int windowOrder;
    {
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        if (!gReceivedMessages.insert(id).second) {
            return; // shown before: neither displayed nor reported again
        }
        windowOrder = current_window_num;
        current_window_num = (current_window_num + 1) % kWindowOrderCount;
    }

    const KeptNotification text = {id, 0, message, caption, timeout, flags};
    std::vector<std::string> entries = DisplayEntries(text, windowOrder);
    const std::string directory = DisplayDirectory();
    ReapDisplayChildren();

    std::string user;
    vel::DesktopSession session;
    std::string why;
    if (gSessionDiscovery && vel::LogindRunning()) {
        if (vel::DiscoverDesktopSession(session, why)) {
            std::vector<std::string> all = vel::BuildSessionLaunchEnvironment(
                environ, session.environment, entries, session.user);
            StartDisplayProgram(directory, all, true);
            user = session.user;
        } else {
            vel::Log("Notification " + idText + " not shown: " + why);
            if (gKeepUndelivered) {
                KeptNotification kept = text;
                kept.arrival = int64_t(time(nullptr));
                KeepNotification(kept);
            }
            vel::GetMachineUserName(user);
        }
    } else {
        StartDisplayProgram(directory, entries, false);
        vel::GetMachineUserName(user);
    }

    tagCTL_MESSAGERECEIVEDINFO received = {0, id, 0, user.c_str()};
    if (vel::CHTCTL* ctl = transport.load()) {
        ctl->MessageReceived(&received);
    }
}

void ShowInSession(const KeptNotification& notification, const vel::DesktopSession& session) {
    int windowOrder;
    {
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        gReceivedMessages.insert(notification.id); // its acknowledgement passes
        windowOrder = current_window_num;
        current_window_num = (current_window_num + 1) % kWindowOrderCount;
    }
    ReapDisplayChildren();
    std::vector<std::string> all = vel::BuildSessionLaunchEnvironment(
        environ, session.environment, DisplayEntries(notification, windowOrder), session.user);
    StartDisplayProgram(DisplayDirectory(), all, true);
}

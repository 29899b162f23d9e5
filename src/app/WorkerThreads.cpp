#include "app/WorkerThreads.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "app/AppTimings.h"
#include "app/Notification.h"
#include "app/TransportStartup.h"
#include "app/Undelivered.h"
#include "app/corvanenotify.h"
#include "host/SocketPair.h"

namespace {

constexpr int kSecondsPerMinute = 60;
// A broken descriptor would otherwise make the reader spin.
constexpr long long kReadErrorPauseSeconds = 1;

void SpawnDetached(void* (*body)(void*)) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, body, nullptr) == 0) {
        pthread_detach(thread);
    }
}

} // namespace

void SpawnAcknowledgeThread() {
    SpawnDetached(&AcknowledgeMain);
}

void SpawnTimerThread() {
    SpawnDetached(&TimerMain);
}

bool HandleAcknowledgement(char* record, size_t length) {
    if (length < size_t(kMinAcknowledgementSize)) {
        return false;
    }
    // The name ends within the bytes read, whatever the writer sent.
    record[length] = '\0';
    NotificationAcknowledgement head;
    memcpy(&head, record, sizeof head);
    if (!WasDisplayed(head.message_id) || head.user_flags == 0) {
        return false;
    }
    tagCTL_MESSAGEACKNOWLEDGEDINFO info = {0, head.message_id, head.user_flags,
                                           record + kUserNameOffset};
    if (gKeepUndelivered) {
        return KeepOrSendAcknowledgement(info);
    }
    vel::CHTCTL* ctl = transport.load();
    if (ctl == nullptr) {
        return false;
    }
    ctl->MessageAcknowledged(&info);
    return true;
}

int HandleAcknowledgements(char* data, size_t length) {
    int passed = 0;
    size_t at = 0;
    while (length - at >= size_t(kMinAcknowledgementSize)) {
        char* record = data + at;
        const size_t left = length - at;
        const void* nul = memchr(record + kUserNameOffset, '\0', left - kUserNameOffset);
        size_t size = nul != nullptr ? size_t(static_cast<const char*>(nul) - record) + 1 : left;
        size = std::max(size, size_t(kMinAcknowledgementSize));
        // HandleAcknowledgement ends the record with a NUL: that byte is the
        // next record's first, so it is put back.
        const char next = record[size];
        passed += HandleAcknowledgement(record, size) ? 1 : 0;
        record[size] = next;
        at += size;
    }
    return passed;
}

void* AcknowledgeMain(void*) {
    std::vector<char> buffer(kAcknowledgementBufferSize + 1);
    for (;;) {
        const ssize_t got =
            read(vel::kAcknowledgeClientPort, buffer.data(), size_t(kAcknowledgementBufferSize));
        if (got > 0) {
            HandleAcknowledgements(buffer.data(), size_t(got));
        } else if (got == 0 || errno != EINTR) {
            SleepSeconds(kReadErrorPauseSeconds);
        }
    }
    return nullptr;
}

void RequestCustomisationInfo() {
    if (vel::CHTCTL* ctl = transport.load()) {
        tagCTL_GETFILEINFO info = {kFileInfoRequestSize, kCustomisationLink};
        ctl->GetFileInfo(nullptr, &info);
    }
}

void* TimerMain(void*) {
    for (;;) {
        RequestCustomisationInfo();
        // At least a minute: an interval of 0 or less would flood the gateway.
        const long long minutes = gTimerSleepMinutes > 0 ? gTimerSleepMinutes : 1;
        gAppTimings.m_timerWait.load()(minutes * kSecondsPerMinute);
    }
    return nullptr;
}

// The two worker threads started at start-up and never stopped: the
// acknowledgement reader (descriptor 61 to MESSAGEACK) and the customisation
// timer (GETFILEINFO every gTimerSleepMinutes). Each reads the atomic
// `transport`; the reader checks ids under gReceivedMessagesLock.
#pragma once

#include <stddef.h>

#include "host/DisplayProgramInterface.h"

using vel::kAcknowledgementBufferSize;
using vel::kMinAcknowledgementSize;
using vel::kUserNameOffset;
using vel::NotificationAcknowledgement;
constexpr const char* kCustomisationLink = "notify-customization.lnk";
constexpr unsigned kFileInfoRequestSize = 8; // the request record's size as the protocol states it

void SpawnAcknowledgeThread();
void SpawnTimerThread();
void* AcknowledgeMain(void*);
void* TimerMain(void*);

// One record as read (`length` bytes, with room for one more): passed to the
// transport as MESSAGEACK when it is long enough, names a displayed
// notification and carries non-zero flags. True when it was passed on.
bool HandleAcknowledgement(char* record, size_t length);
// Every record of one read (`length` bytes, with room for one more). The
// channel is a byte stream, so records that display programs write at nearly
// the same time can arrive in one read; each ends with its name's NUL, padded
// to 16 bytes. A last record without its NUL takes the rest of the read.
// Returns the number passed on.
int HandleAcknowledgements(char* data, size_t length);
// One round of the timer: asks for the customisation file's information.
void RequestCustomisationInfo();

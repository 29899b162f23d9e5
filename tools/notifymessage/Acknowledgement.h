// The acknowledgement record written back to the daemon: message id, the
// user's flags, the user name's length and the name with its NUL, in host byte
// order, at least 16 bytes, in one write. Single-threaded.
#pragma once

#include <cstdint>
#include <string>

#include "NotificationRequest.h"
#include "host/DisplayProgramInterface.h"

namespace notifymsg {

using vel::kAcknowledgeDaemonPort;
// The flags of every acknowledgement: the user pressed "Acknowledge". The
// daemon ignores a record with flags 0, so this must never be 0.
constexpr int32_t kAcknowledgedFlags = 1;
constexpr size_t kMinRecordBytes = vel::kMinAcknowledgementSize;

std::string BuildAcknowledgement(int32_t messageId, int32_t userFlags, const std::string& userName);

// One write of the whole record; false (with the reason) if it did not all go.
bool SendAcknowledgement(int fd, const std::string& record, std::string& error);

} // namespace notifymsg

#include "Acknowledgement.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace notifymsg {

std::string BuildAcknowledgement(int32_t messageId, int32_t userFlags,
                                 const std::string& userName) {
    const std::string name = userName.substr(0, std::min(userName.find('\0'), kMaxUserNameBytes));
    const uint32_t length = uint32_t(name.size());
    const vel::NotificationAcknowledgement head = {messageId, userFlags, length};
    std::string record(reinterpret_cast<const char*>(&head), sizeof head);
    record += name;
    record += '\0';
    if (record.size() < kMinRecordBytes) {
        record.resize(kMinRecordBytes, '\0'); // the daemon drops shorter reads
    }
    return record;
}

bool SendAcknowledgement(int fd, const std::string& record, std::string& error) {
    ssize_t written;
    do {
        written = write(fd, record.data(), record.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
        error = strerror(errno);
        return false;
    }
    if (size_t(written) != record.size()) {
        error = "only part of the record was written";
        return false;
    }
    return true;
}

} // namespace notifymsg

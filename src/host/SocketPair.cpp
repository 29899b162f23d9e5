#include "host/SocketPair.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace vel {

int MakeSocketPair(int serverFd, int clientFd) {
    if (serverFd < 0 || clientFd < 0 || serverFd == clientFd) {
        return EINVAL;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return -1;
    }
    // The two ends are alike: swap them when one already sits on the other's
    // target, so that dup2 never closes an end that is still needed.
    if (ends[1] == serverFd || ends[0] == clientFd) {
        std::swap(ends[0], ends[1]);
    }
    int result = 0;
    if (dup2(ends[0], serverFd) == -1 || dup2(ends[1], clientFd) == -1) {
        result = errno;
    }
    for (int end : ends) {
        if (end != serverFd && end != clientFd && close(end) != 0 && result == 0) {
            result = errno;
        }
    }
    return result;
}

int WriteLengthPrefixed(int socket, const void* data, int length) {
    if (length < 0 || length > kMaxLengthPrefixed || (length > 0 && data == nullptr)) {
        return EINVAL;
    }
    const uint32_t header = static_cast<uint32_t>(length);
    const std::size_t total = sizeof header + static_cast<std::size_t>(length);
    unsigned char* block = static_cast<unsigned char*>(malloc(total));
    if (block == nullptr) {
        return ENOMEM;
    }
    memcpy(block, &header, sizeof header);
    if (length > 0) {
        memcpy(block + sizeof header, data, static_cast<std::size_t>(length));
    }
    // Header and payload in one call, so writers sharing an end never
    // interleave within a message.
    int result = write(socket, block, total) == -1 ? errno : 0;
    free(block);
    return result;
}

int ReadLengthPrefixed(int socket, void** data, int& length, int padding) {
    if (data == nullptr) {
        return EINVAL;
    }
    *data = nullptr;
    length = 0;
    if (padding < 0) {
        return EINVAL;
    }
    uint32_t header = 0;
    ssize_t got = read(socket, &header, sizeof header);
    if (got == 0) {
        return kEndOfStream;
    }
    if (got == -1) {
        return errno;
    }
    if (header > static_cast<uint32_t>(kMaxLengthPrefixed)) {
        return EMSGSIZE; // the length is the peer's word: never allocate on it unchecked
    }
    const std::size_t size = header + static_cast<std::size_t>(padding);
    // Zeroed, so that a short read or the caller's padding never holds
    // uninitialised bytes.
    void* buffer = calloc(size > 0 ? size : 1, 1);
    if (buffer == nullptr) {
        return ENOMEM;
    }
    if (header > 0 && read(socket, buffer, header) == -1) {
        int error = errno;
        free(buffer);
        return error;
    }
    *data = buffer;
    length = static_cast<int>(header);
    return 0;
}

bool IsAuthentic(const std::string& userName, int fd) {
    struct passwd entry;
    struct passwd* user = nullptr;
    std::vector<char> strings(16384);
    if (getpwnam_r(userName.c_str(), &entry, strings.data(), strings.size(), &user) != 0 ||
        user == nullptr) {
        return false;
    }
    // Inverted on purpose: an open descriptor is never authentic. When fstat
    // fails, the zeroed record's owner is 0, so only root's id compares equal.
    struct stat status;
    memset(&status, 0, sizeof status);
    if (fstat(fd, &status) == 0) {
        return false;
    }
    return user->pw_uid == status.st_uid;
}

} // namespace vel

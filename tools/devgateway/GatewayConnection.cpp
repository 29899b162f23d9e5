#include "GatewayConnection.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace devgw {

namespace {

constexpr auto kWriteTimeout = std::chrono::seconds(5);

} // namespace

bool DevGateway::Connection::WriteAll(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(writeMutex);
    return WriteLocked(bytes);
}

// Waits (bounded) while the peer's window is full; a peer that stops reading
// for longer is given up.
bool DevGateway::Connection::WriteLocked(const std::string& bytes) {
    if (!open) {
        return false;
    }
    const auto until = Clock::now() + kWriteTimeout;
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += size_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && Clock::now() < until) {
            pollfd writable{fd, POLLOUT, 0};
            poll(&writable, 1, kPollMs);
            continue;
        }
        broken = true;
        return false;
    }
    return true;
}

// A reset makes the peer's recv fail with ECONNRESET, which is how the client
// notices a lost link; an orderly close would only look like an idle socket.
void DevGateway::Connection::Close(bool reset) {
    std::lock_guard<std::mutex> lock(writeMutex);
    if (!open) {
        return;
    }
    if (reset) {
        linger hard{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    close(fd);
    open = false;
}

} // namespace devgw

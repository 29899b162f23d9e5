// bench_display: the display program's stand-in for the end-to-end
// benchmarks; single-threaded. The first thing it does is read the monotonic
// clock and send "<MESSAGE_ID> <nanoseconds>" as one datagram to the
// harness's socket; then it acknowledges the notification on descriptor 60
// (flags 1, user "alice") as a display program does when the user answers.
// Plain C library calls only, so that it starts as fast as it can.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "BenchPaths.h"

namespace {

constexpr int kAcknowledgeDaemonPort = 60;

void ReportStart(long long nanoseconds, const char* id) {
    char text[64];
    const int length = snprintf(text, sizeof text, "%s %lld", id, nanoseconds);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, bench::kDisplaySocket, sizeof address.sun_path - 1);
    const int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s != -1) {
        sendto(s, text, size_t(length), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
        close(s);
    }
}

// One write of the whole record (18 bytes: above the 16 a reader needs).
void Acknowledge(int messageId) {
    const char user[] = "alice";
    unsigned char record[12 + sizeof user];
    const int flags = 1;
    const unsigned length = sizeof user - 1;
    memcpy(record, &messageId, 4);
    memcpy(record + 4, &flags, 4);
    memcpy(record + 8, &length, 4);
    memcpy(record + 12, user, sizeof user);
    // Fails harmlessly when no daemon is above us (the harness's step timings).
    (void)!write(kAcknowledgeDaemonPort, record, sizeof record);
}

} // namespace

int main() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const char* id = getenv("MESSAGE_ID");
    if (id == nullptr) {
        return 1;
    }
    ReportStart(now.tv_sec * 1000000000LL + now.tv_nsec, id);
    Acknowledge(atoi(id));
    return 0;
}

#include "transport/TransportTimings.h"

#include <errno.h>
#include <time.h>

namespace vel {

TransportTimings gTransportTimings;

uint32_t NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t ms = uint64_t(now.tv_sec) * 1000u + uint64_t(now.tv_nsec / 1000000);
    return uint32_t(ms);
}

void SleepMs(int milliseconds) {
    if (milliseconds <= 0) {
        return;
    }
    struct timespec left;
    left.tv_sec = milliseconds / 1000;
    left.tv_nsec = long(milliseconds % 1000) * 1000000L;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace vel

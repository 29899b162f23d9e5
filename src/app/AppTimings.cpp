#include "app/AppTimings.h"

#include <errno.h>
#include <time.h>

AppTimings gAppTimings;

void SleepSeconds(long long seconds) {
    if (seconds <= 0) {
        return;
    }
    struct timespec left;
    left.tv_sec = time_t(seconds);
    left.tv_nsec = 0;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

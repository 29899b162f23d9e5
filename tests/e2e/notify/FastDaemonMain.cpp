// The daemon with shortened waits, for tests and benchmarks only: back-off
// seconds last 10 ms, timer minutes 1 s, connection attempts sleep 20 ms.
#include "app/AppTimings.h"
#include "app/corvanenotify.h"
#include "transport/TransportTimings.h"

int main(int argc, char** argv) {
    vel::gTransportTimings.m_connectRetrySleepMs = 20;
    gAppTimings.m_retryWait = [](long long seconds) { vel::SleepMs(int(seconds * 10)); };
    gAppTimings.m_timerWait = [](long long seconds) { vel::SleepMs(int(seconds * 1000 / 60)); };
    return NotifyMain(argc, argv);
}

// notifydaemon_fast: the daemon with its fixed waits shortened, for the
// end-to-end tests and benchmarks only; never installed. One second of the
// start-up back-off lasts 10 ms, one minute of the customisation timer lasts
// 1 s, and the transport sleeps 20 ms after each connection attempt.
#include "app/AppTimings.h"
#include "app/corvanenotify.h"
#include "transport/TransportTimings.h"

int main(int argc, char** argv) {
    vel::gTransportTimings.m_connectRetrySleepMs = 20;
    gAppTimings.m_retryWait = [](long long seconds) { vel::SleepMs(int(seconds * 10)); };
    gAppTimings.m_timerWait = [](long long seconds) { vel::SleepMs(int(seconds * 1000 / 60)); };
    return NotifyMain(argc, argv);
}

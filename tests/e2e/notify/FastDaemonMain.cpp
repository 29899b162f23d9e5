// notifydaemon_fast: the daemon with its fixed waits shortened, for the
// end-to-end tests only; it is never installed. One second of the start-up
// back-off lasts 10 ms, one minute of the customisation timer lasts 1 s, and
// the transport sleeps 20 ms after each connection attempt.
#include "app/AppTimings.h"
#include "app/corvanenotify.h"
#include "transport/TransportTimings.h"

namespace {

constexpr long long kBackOffSecondMs = 10;
constexpr long long kTimerMinuteMs = 1000;
constexpr int kConnectSleepMs = 20;

void ShortRetryWait(long long seconds) {
    vel::SleepMs(int(seconds * kBackOffSecondMs));
}

void ShortTimerWait(long long seconds) {
    vel::SleepMs(int(seconds * kTimerMinuteMs / 60));
}

} // namespace

int main(int argc, char** argv) {
    vel::gTransportTimings.m_connectRetrySleepMs = kConnectSleepMs;
    gAppTimings.m_retryWait = &ShortRetryWait;
    gAppTimings.m_timerWait = &ShortTimerWait;
    return NotifyMain(argc, argv);
}

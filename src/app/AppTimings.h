// The application's fixed waits: the back-off between transport start-up
// attempts and the customisation timer's interval. Read by the main thread
// and the timer thread (atomics). Only test code replaces them, at start-up;
// the daemon never takes them from its environment or options, so production
// keeps the real waits.
#pragma once

#include <atomic>

using SecondsWait = void (*)(long long seconds);

// Sleeps the whole duration, resuming after signals.
void SleepSeconds(long long seconds);

struct AppTimings {
    std::atomic<SecondsWait> m_retryWait{&SleepSeconds}; // StartTransport's back-off
    std::atomic<SecondsWait> m_timerWait{&SleepSeconds}; // TimerMain's interval
};

extern AppTimings gAppTimings;

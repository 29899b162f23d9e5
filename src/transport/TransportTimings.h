// The transport's fixed waits and its millisecond clock. Any thread reads the
// durations (atomics); only test code ever changes them, and the daemon never
// takes them from its environment or options, so production keeps the values
// below exactly.
#pragma once

#include <atomic>
#include <stdint.h>

namespace vel {

struct TransportTimings {
    std::atomic<int> m_connectRetrySleepMs{10000}; // after every Connect attempt
    std::atomic<int> m_idleSleepMs{100};           // read loop while the link is down
    std::atomic<int> m_readablePollMs{1000};       // IsReadable's poll
    std::atomic<int> m_checkIntervalMs{100};       // keep-alive check spacing term
    std::atomic<int> m_replyTimeoutMs{29999};      // AddDomain's and Call's reply waits
};

extern TransportTimings gTransportTimings;

// Wall clock in milliseconds as seconds * 1000 + milliseconds, truncated to
// 32 bits (it wraps).
uint32_t NowMs();

// Sleeps the whole duration, resuming after signals.
void SleepMs(int milliseconds);

} // namespace vel

// One accepted socket of the development gateway. Only the IO thread reads
// from it and closes it; any thread writes to it. writeMutex serialises the
// writes and the closing, so a socket is never used after it was closed.
#pragma once

#include "DevGateway.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

namespace devgw {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 50; // the IO thread's and a blocked writer's wait step

struct DevGateway::Connection {
    explicit Connection(int socket) : fd(socket) {}

    enum class Kind { Unknown, Control, Get };

    const int fd;
    std::mutex writeMutex;
    bool open = true;                // writeMutex
    std::atomic<bool> broken{false}; // a write failed: the IO thread drops it
    int id = 0;                      // set by the IO thread under the gateway's m_mutex

    // IO thread only.
    Kind kind = Kind::Unknown;
    bool closed = false;
    bool finishing = false; // a GET was answered; waiting for the peer to close
    Clock::time_point deadline;
    std::string in;

    bool WriteAll(const std::string& bytes);
    // The same, with writeMutex already held.
    bool WriteLocked(const std::string& bytes);
    // Closes the socket (once); reset sends an RST instead of an orderly end.
    void Close(bool reset);
};

} // namespace devgw

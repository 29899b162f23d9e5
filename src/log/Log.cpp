#include "log/Log.h"

#include <cstdio>
#include <ctime>
#include <mutex>

namespace vel {

std::ofstream gLog;
bool gLogging = false;

namespace {
// Lines come from the main thread, the transport's threads and trace; one
// lock keeps each line in one piece and the stream free of data races.
std::mutex gLogMutex;
} // namespace

std::string FormatLogLine(const std::string& message) {
    char prefix[256] = {0};
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) {
        strftime(prefix, sizeof prefix, "%F %T ", &local);
    }
    return std::string(prefix) + message;
}

void StartLog() {
    std::lock_guard<std::mutex> hold(gLogMutex);
    if (gLogging) {
        return;
    }
    gLog.clear();
    gLog.open(kLogPath, std::ios::out | std::ios::app);
    gLogging = gLog.is_open();
}

void Log(const std::string& message) {
    try {
        std::string line = FormatLogLine(message) + "\n";
        std::lock_guard<std::mutex> hold(gLogMutex);
        if (gLogging) {
            gLog.write(line.data(), static_cast<std::streamsize>(line.size()));
            gLog.flush();
        }
        fwrite(line.data(), 1, line.size(), stderr);
        fflush(stderr);
    } catch (...) {
        // Logging must never take the caller down.
    }
}

void StopLog() {
    std::lock_guard<std::mutex> hold(gLogMutex);
    if (!gLogging) {
        return;
    }
    gLog.flush();
    gLog.close();
    gLogging = false;
}

} // namespace vel

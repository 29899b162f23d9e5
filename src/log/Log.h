// The event log: time-stamped lines appended to /var/log/notifydaemon.log and
// mirrored to standard error. Any thread may call Log; gLogMutex (in Log.cpp)
// guards gLog so that each line is written whole.
#pragma once

#include <fstream>
#include <string>

namespace vel {

extern std::ofstream gLog;
extern bool gLogging;

constexpr const char* kLogPath = "/var/log/notifydaemon.log";

// Opens the log in append mode; does nothing when it is already open.
void StartLog();
// Writes "%F %T " + message + "\n" to the log (when open) and to stderr.
void Log(const std::string& message);
// Flushes and closes the log; lines logged afterwards reach stderr only.
void StopLog();

// Builds the line Log writes, without its trailing newline (for tests).
std::string FormatLogLine(const std::string& message);

} // namespace vel

// The event log: time-stamped lines appended to /var/log/notifydaemon.log and
// mirrored to standard error. Any thread may call Log; gLogMutex (in Log.cpp)
// guards gLog so that each line is written whole. WriteLogLineAfterFork is for
// a forked child only and takes no lock.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

namespace vel {

extern std::ostream gLog;
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

// For a child between fork and exec: writes a line already built by
// FormatLogLine (newline included) to the log file, if the parent had it open,
// and to stderr, using plain system calls and no lock, since a thread that did
// not survive the fork may have held gLogMutex.
void WriteLogLineAfterFork(const char* line, std::size_t length);

} // namespace vel

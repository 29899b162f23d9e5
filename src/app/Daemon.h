// Daemon process control: detaching, the pid file and the exit clean-up.
// Daemonise runs on the main thread before any other thread exists; the signal
// handler may run on any thread later and takes no lock (see Daemon.cpp).
#pragma once

#include <string>

namespace vel {

// The doubled slash is how the path has always been formed; kept as is.
constexpr const char* kPidFilePath = "/usr/sxa//daemon/notifydaemon.pid";
// A process whose command line contains this is one of ours.
constexpr const char* kInstallMarker = "/usr/sxa/";

// Forks twice, detaches, points 0-2 at /dev/null, installs the signal
// handlers, turns core dumps off, registers UnDaemonise and writes the pid file.
void Daemonise();

void InstallSignalHandlers();
void DaemonSignalHandler(int sig);
// Reaps one child; defined for child-exit notification, installed nowhere.
void DaemonChildSignalHandler(int sig);
void DisableCoreDumps();

// Dies when the pid file names another live instance, else writes our pid.
void MakePidFile();
void WritePidFile();
// pid = the first word of the pid file, or "" when there is none.
void PidFromFile(std::string& pid);
// True when pid names another live process running our program.
bool PidIsRunning(std::string& pid);
bool PidFileCmdIsOurs(int pid);
// Truncates the pid file to length 0 and leaves it in place.
void DisposePidFile();

// Empties the pid file and closes the log once; later calls do nothing.
void UnDaemonise();

// Logs the message and ends the process with exit status 1.
[[noreturn]] void Die(const std::string& message);

} // namespace vel

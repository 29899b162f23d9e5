// Starts the display program in the console's X session. Called from the
// notification path (the transport's read thread).
#pragma once

#include <string>

namespace vel {

int ForkGuiProcess(const char* directory, const char* command, char** putenvs);
// Starts directory + "/" + command with exactly `environment` (null-terminated,
// built by the caller before the fork) and an argument vector of its path
// alone: no X server probe, nothing set after the fork. The child's id, or -1.
int ForkGuiProcessWithEnvironment(const char* directory, const char* command, char** environment);
void GetXAuthority(std::string& out);
void GetDBUS_SESSION_BUS_ADDRESS(std::string& out);
bool ProcessIsRunning(const char* name);
bool IsSafeToLaunchGuiApp();

} // namespace vel

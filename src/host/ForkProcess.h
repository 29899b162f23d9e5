// Starts the display program in the console's X session. Called from the
// notification path (the transport's read thread).
#pragma once

#include <string>

namespace vel {

int ForkGuiProcess(const char* directory, const char* command, char** putenvs);
void GetXAuthority(std::string& out);
void GetDBUS_SESSION_BUS_ADDRESS(std::string& out);
bool ProcessIsRunning(const char* name);
bool IsSafeToLaunchGuiApp();

} // namespace vel

// Runs a shell command and keeps the first line of its output. Re-entrant.
#pragma once

#include <string>

namespace vel {

// output = first 1024 bytes of the command's output minus its last byte;
// 0, or -1 when the command could not be started.
int PipeSubprocess(const std::string& command, std::string& output);

} // namespace vel

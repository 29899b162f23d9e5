// Runs a shell command and keeps the first line of its output. Re-entrant.
#pragma once

#include <cstddef>
#include <string>

namespace vel {

// Only this much of a command's output is ever looked at.
constexpr std::size_t kCommandOutputLimit = 1024;

// output = first 1024 bytes of the command's output minus its last byte;
// 0, or -1 when the command could not be started.
int PipeSubprocess(const std::string& command, std::string& output);

// text = first 1024 bytes of the command's output, up to the first zero byte;
// 0, or -1 when the command could not be started.
int ReadCommandOutput(const std::string& command, std::string& text);

} // namespace vel

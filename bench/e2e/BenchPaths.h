// Paths shared by the end-to-end benchmark harness and its display program,
// all inside the sandbox's private /run. Constants only.
#pragma once

namespace bench {

constexpr const char* kBenchDir = "/run/nd-bench";
// The harness listens here for the display program's start times.
constexpr const char* kDisplaySocket = "/run/nd-bench/display.sock";
constexpr const char* kAuthorityPath = "/run/nd-bench/A:0-bench";
constexpr const char* kDesktopUser = "alice";

} // namespace bench

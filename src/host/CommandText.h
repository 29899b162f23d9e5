// Pure text reductions of shell command output used by the host probes.
// Stateless; any thread.
#pragma once

#include <string>

namespace vel {

// True when a line of "ps -o command" (without its line feed) names the
// process: the whole line equals the name, or its first word does once
// reduced to the part after the last "/", after the first "[" and before the
// last "]".
bool PsLineMatches(const std::string& line, const std::string& processName);

// The word after the last "-auth" in an X server's command line, or "".
std::string AuthorityPathFrom(const std::string& serverLine);

// The text after the 24-character variable name, as long as the position of
// the first ";" in the whole text; "" when the text is shorter than the name.
std::string SessionBusAddressFrom(const std::string& text);

} // namespace vel

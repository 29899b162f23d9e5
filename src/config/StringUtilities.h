// Byte-string helpers. Re-entrant; white space is every byte whose signed
// value is at most 32 (so bytes 0x80..0xFF count as white space too).
#pragma once

#include <string>
#include <vector>

#include "log/TextCase.h" // UppercaseString, AsciiUpper, AsciiLower

namespace vel {

void ToPascalString(const std::string& source, unsigned char* pascalString);
bool SubstituteStringOnce(std::string& subject, const std::string& pattern,
                          const std::string& replacement);
void StripLeadingWhitespace(const std::string& source, std::string& destination);
void StripTrailingWhitespace(const std::string& source, std::string& destination);
void StripWhitespace(const std::string& source, std::string& destination);
void TokeniseString(const std::string& source, const std::string& delimiters,
                    std::vector<std::string>& tokens, bool includeEmptyTokens);

// True for the bytes the trimming functions remove.
inline bool IsWhitespaceByte(char c) {
    return static_cast<signed char>(c) <= 32;
}

} // namespace vel

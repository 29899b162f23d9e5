// ASCII case mapping, the one upper-casing helper of every layer (the C
// locale's mappings byte for byte, whatever locale the process has).
// Re-entrant.
#pragma once

#include <string>

namespace vel {

inline char AsciiUpper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
inline char AsciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string UppercaseString(std::string text) {
    for (char& c : text) {
        c = AsciiUpper(c);
    }
    return text;
}

} // namespace vel

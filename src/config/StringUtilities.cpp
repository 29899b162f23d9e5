#include "config/StringUtilities.h"

#include <cstring>

namespace vel {

void ToPascalString(const std::string& source, unsigned char* pascalString) {
    if (pascalString == nullptr) {
        return;
    }
    const size_t length = source.size() < 255 ? source.size() : 255;
    pascalString[0] = static_cast<unsigned char>(length);
    std::memcpy(pascalString + 1, source.data(), length);
}

bool SubstituteStringOnce(std::string& subject, const std::string& pattern,
                          const std::string& replacement) {
    const size_t position = subject.find(pattern);
    if (position == std::string::npos) {
        return false;
    }
    subject.replace(position, pattern.size(), replacement);
    return true;
}

// Erase-based so that source and destination may be the same string.
void StripLeadingWhitespace(const std::string& source, std::string& destination) {
    size_t first = 0;
    while (first < source.size() && IsWhitespaceByte(source[first])) {
        ++first;
    }
    destination = source;
    destination.erase(0, first);
}

void StripTrailingWhitespace(const std::string& source, std::string& destination) {
    size_t end = source.size();
    while (end > 0 && IsWhitespaceByte(source[end - 1])) {
        --end;
    }
    destination = source;
    destination.erase(end);
}

void StripWhitespace(const std::string& source, std::string& destination) {
    StripLeadingWhitespace(source, destination);
    StripTrailingWhitespace(destination, destination);
}

void TokeniseString(const std::string& source, const std::string& delimiters,
                    std::vector<std::string>& tokens, bool includeEmptyTokens) {
    std::string token;
    for (char c : source) {
        if (delimiters.find(c) == std::string::npos) {
            token += c;
        } else if (includeEmptyTokens || !token.empty()) {
            tokens.push_back(token);
            token.clear();
        }
    }
    // A trailing empty token is never produced, even with includeEmptyTokens.
    if (!token.empty()) {
        tokens.push_back(token);
    }
}

} // namespace vel

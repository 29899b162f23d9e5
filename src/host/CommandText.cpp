#include "host/CommandText.h"

namespace vel {

bool PsLineMatches(const std::string& line, const std::string& processName) {
    if (line == processName) {
        return true;
    }
    std::size_t cut = line.find(' ');
    if (cut == std::string::npos) {
        cut = line.find('\t');
    }
    std::string word = line.substr(0, cut);
    std::size_t slash = word.rfind('/');
    if (slash != std::string::npos) {
        word.erase(0, slash + 1);
    }
    std::size_t open = word.find('[');
    if (open != std::string::npos) {
        word.erase(0, open + 1);
    }
    std::size_t close = word.rfind(']');
    if (close != std::string::npos) {
        word.erase(close);
    }
    return word == processName;
}

std::string AuthorityPathFrom(const std::string& serverLine) {
    const std::string kOption = "-auth";
    std::size_t option = serverLine.rfind(kOption);
    if (option == std::string::npos) {
        return "";
    }
    std::size_t start = serverLine.find_first_not_of(" \t", option + kOption.size());
    if (start == std::string::npos) {
        return "";
    }
    std::size_t end = serverLine.find_first_of(" \t", start);
    return serverLine.substr(start, end == std::string::npos ? end : end - start);
}

std::string SessionBusAddressFrom(const std::string& text) {
    const std::size_t kNameLength = 24; // "DBUS_SESSION_BUS_ADDRESS"
    if (text.size() < kNameLength) {
        return "";
    }
    // A position used as a length: the result may run past the ";".
    return text.substr(kNameLength, text.find(';'));
}

} // namespace vel

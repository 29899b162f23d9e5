#include "config/Preferences.h"

#include "config/StringUtilities.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace vel {

const std::string _default_string;

Preferences* Preferences::instance = nullptr;

namespace {

// Only guards the lazy creation in getInstance; the store itself has no lock.
std::mutex gInstanceMutex;

bool SameSectionName(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (AsciiUpper(a[i]) != AsciiUpper(b[i])) {
            return false;
        }
    }
    return true;
}

} // namespace

Preferences* Preferences::getInstance() {
    std::lock_guard<std::mutex> lock(gInstanceMutex);
    if (instance == nullptr) {
        instance = new Preferences();
    }
    return instance;
}

// Section names match without regard to case; the first match in byte-wise
// map order wins, so "CLIENT" is found before "Client" when both exist.
void Preferences::findSection(const std::string& section, Sections::iterator& it) {
    for (it = preferences.begin(); it != preferences.end(); ++it) {
        if (SameSectionName(it->first, section)) {
            return;
        }
    }
}

Preferences::Section& Preferences::getSection(const std::string& section) {
    Sections::iterator it;
    findSection(section, it);
    if (it != preferences.end()) {
        return it->second;
    }
    return preferences[section];
}

void Preferences::getSectionsIterator(Sections::iterator& begin, Sections::iterator& end) {
    begin = preferences.begin();
    end = preferences.end();
}

const std::string& Preferences::getConfigString(const std::string& section,
                                                const std::string& key) {
    Sections::iterator it;
    findSection(section, it);
    if (it == preferences.end()) {
        return _default_string;
    }
    Section::const_iterator entry = it->second.find(key);
    if (entry == it->second.end()) {
        return _default_string;
    }
    return entry->second;
}

// An empty value, stored or missing, gives the default; anything else is
// parsed like strtol, clamped to the range of int.
int Preferences::getConfigInt(const std::string& section, const std::string& key, int dflt) {
    const std::string value = getConfigString(section, key);
    if (value == _default_string) {
        return dflt;
    }
    const long parsed = std::strtol(value.c_str(), nullptr, 10);
    if (parsed > INT_MAX) {
        return INT_MAX;
    }
    if (parsed < INT_MIN) {
        return INT_MIN;
    }
    return static_cast<int>(parsed);
}

// Copies without a terminating zero; the buffer is zero-filled first.
int Preferences::getConfigBytes(const std::string& section, const std::string& key, void* buffer,
                                unsigned int size) {
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    std::memset(buffer, 0, size);
    const std::string& value = getConfigString(section, key);
    const size_t count = value.size() < size ? value.size() : size;
    std::memcpy(buffer, value.data(), count);
    return static_cast<int>(count);
}

void Preferences::setConfigString(const std::string& section, const std::string& key,
                                  const std::string& value) {
    getSection(section)[key] = value;
}

void Preferences::setConfigInt(const std::string& section, const std::string& key, int value) {
    setConfigString(section, key, std::to_string(value));
}

// Like every write, creates the section when it is absent.
void Preferences::removeConfig(const std::string& section, const std::string& key) {
    getSection(section).erase(key);
}

std::ostream& operator<<(std::ostream& out, const Preferences& prefs) {
    for (const auto& section : prefs.preferences) {
        if (section.second.empty()) {
            continue;
        }
        out << "[" << section.first << "]" << std::endl;
        for (const auto& entry : section.second) {
            if (!entry.second.empty()) {
                out << entry.first << "=" << entry.second << std::endl;
            }
        }
        out << std::endl;
    }
    return out;
}

} // namespace vel

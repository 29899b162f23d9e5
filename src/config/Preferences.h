// The process-wide settings store: section -> key -> value, all text.
// Filled on the main thread at start-up, read by any thread afterwards; it has
// no lock of its own, so nothing may write to it once worker threads run.
// Only the lazy creation in getInstance is guarded (by a private mutex).
#pragma once

#include <map>
#include <ostream>
#include <string>

namespace vel {

// Every failed look-up returns a reference to this; it is never modified.
extern const std::string _default_string;

class Preferences {
public:
    using Section = std::map<std::string, std::string>;
    using Sections = std::map<std::string, Section>;

    static Preferences* getInstance();

    void findSection(const std::string& section, Sections::iterator& it);
    Section& getSection(const std::string& section);
    void getSectionsIterator(Sections::iterator& begin, Sections::iterator& end);

    const std::string& getConfigString(const std::string& section, const std::string& key);
    int getConfigInt(const std::string& section, const std::string& key, int dflt);
    int getConfigBytes(const std::string& section, const std::string& key, void* buffer,
                       unsigned int size);
    void setConfigString(const std::string& section, const std::string& key,
                         const std::string& value);
    void setConfigInt(const std::string& section, const std::string& key, int value);
    void removeConfig(const std::string& section, const std::string& key);

    Sections preferences;

    static Preferences* instance;
};

std::ostream& operator<<(std::ostream& out, const Preferences& prefs);

} // namespace vel

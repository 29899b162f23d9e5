// The settings file reader on any file: every line is taken somehow, and the
// checksum is the same whether or not a store is filled.
#include <sstream>
#include <string>

#include "config/Preferences.h"
#include "config/SettingsReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return -1;
    }
    const std::string file(reinterpret_cast<const char*>(data), size);
    // The mask comes from the first bytes, so it is fuzzed too.
    unsigned long mask = 0;
    for (size_t i = 0; i < 4 && i < size; ++i) {
        mask = mask << 8 | data[i];
    }

    vel::Preferences prefs;
    std::istringstream filled(file);
    unsigned long withStore = 0;
    if (!vel::ReadLines(filled, withStore, &prefs, mask)) {
        __builtin_trap(); // the reader never rejects a line
    }
    std::istringstream bare(file);
    unsigned long withoutStore = 0;
    vel::ReadLines(bare, withoutStore, nullptr, mask);
    if (withStore != withoutStore) {
        __builtin_trap();
    }
    return 0;
}

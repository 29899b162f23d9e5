#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>

namespace {

using Sections = vel::Preferences::Sections;

// Sections match without case, keys exactly; a read creates nothing, a removal
// creates the section.
TEST(Preferences, MatchingRulesAndWhatCreatesSections) {
    vel::Preferences prefs;
    prefs.getConfigString("A", "k");
    prefs.getConfigInt("A", "k", 1);
    EXPECT_TRUE(prefs.preferences.empty());

    prefs.setConfigString("Client", "Port", "443");
    prefs.setConfigString("CLIENT", "Name", "x"); // lands in the existing section
    EXPECT_EQ(prefs.getConfigString("client", "Port"), "443");
    EXPECT_EQ(&prefs.getConfigString("Client", "port"), &vel::_default_string);
    EXPECT_EQ(&prefs.getConfigString("Clients", "Port"), &vel::_default_string);
    prefs.removeConfig("client", "Name");
    prefs.removeConfig("Missing", "k");
    EXPECT_EQ(prefs.preferences, (Sections{{"Client", {{"Port", "443"}}}, {"Missing", {}}}));

    // Spellings can coexist in the map; the first in byte order wins.
    prefs.preferences["CLIENT"]["Port"] = "upper";
    EXPECT_EQ(prefs.getConfigString("client", "Port"), "upper");
    EXPECT_TRUE(vel::_default_string.empty());
}

TEST(Preferences, IntegerConversions) {
    const std::tuple<const char*, int> cases[] = {
        {nullptr, 77},
        {"", 77},
        {"abc", 0},
        {" 12x", 12},
        {"-5", -5},
        {"0x10", 0},
        {"4294967296", INT_MAX}, // clamped to the range of int
        {"-99999999999999999999", INT_MIN},
    };
    for (const auto& [text, value] : cases) {
        vel::Preferences prefs;
        if (text != nullptr) {
            prefs.setConfigString("S", "k", text);
        }
        EXPECT_EQ(prefs.getConfigInt("s", "k", 77), value) << (text ? text : "absent");
    }
    vel::Preferences prefs;
    prefs.setConfigInt("S", "k", INT_MIN);
    EXPECT_EQ(prefs.getConfigString("S", "k"), "-2147483648");
}

TEST(Preferences, GetConfigBytesCopiesWithoutTerminator) {
    // Key, size, bytes copied, the six-byte buffer afterwards.
    const std::tuple<const char*, unsigned, int, std::string> cases[] = {
        {"k", 4, 4, "abcdzz"},
        {"short", 6, 2, std::string("xy\0\0\0\0", 6)},
        {"absent", 3, 0, std::string("\0\0\0zzz", 6)},
        {"k", 0, 0, "zzzzzz"}, // a zero size writes nothing at all
    };
    vel::Preferences prefs;
    prefs.setConfigString("S", "k", "abcdef");
    prefs.setConfigString("S", "short", "xy");
    for (const auto& [key, size, copied, after] : cases) {
        char buffer[6];
        std::memset(buffer, 'z', sizeof buffer);
        EXPECT_EQ(prefs.getConfigBytes("S", key, buffer, size), copied) << key;
        EXPECT_EQ(std::string(buffer, sizeof buffer), after) << key << " " << size;
    }
}

TEST(Preferences, PrintsNonEmptySectionsAndValues) {
    vel::Preferences prefs;
    prefs.setConfigString("A", "x", "1");
    prefs.setConfigString("A", "y", "");
    prefs.removeConfig("Empty", "k");
    prefs.setConfigString("B", "", "blank key");
    prefs.setConfigString("C", "y", "");
    std::ostringstream out;
    out << prefs;
    EXPECT_EQ(out.str(), "[A]\nx=1\n\n[B]\n=blank key\n\n[C]\n\n");
}

} // namespace

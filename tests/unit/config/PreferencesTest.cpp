#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

TEST(Preferences, SectionsMatchWithoutCaseKeysExactly) {
    vel::Preferences prefs;
    prefs.setConfigString("Client", "Port", "443");
    prefs.setConfigString("CLIENT", "Name", "x"); // lands in the existing section
    EXPECT_EQ(prefs.getConfigString("client", "Port"), "443");
    EXPECT_EQ(&prefs.getConfigString("Client", "port"), &vel::_default_string);
    EXPECT_EQ(&prefs.getConfigString("Clients", "Port"), &vel::_default_string);
    EXPECT_EQ(prefs.preferences,
              (vel::Preferences::Sections{{"Client", {{"Name", "x"}, {"Port", "443"}}}}));

    // Spellings can coexist in the map; the first in byte order wins.
    prefs.preferences["CLIENT"]["Port"] = "upper";
    EXPECT_EQ(prefs.getConfigString("client", "Port"), "upper");
    vel::Preferences::Sections::iterator it;
    prefs.findSection("Clien", it);
    EXPECT_EQ(it, prefs.preferences.end());
}

TEST(Preferences, ReadsCreateNothingRemoveCreatesTheSection) {
    vel::Preferences prefs;
    char byte;
    prefs.getConfigString("A", "k");
    prefs.getConfigInt("A", "k", 1);
    prefs.getConfigBytes("A", "k", &byte, 1);
    EXPECT_TRUE(prefs.preferences.empty());

    prefs.setConfigString("A", "k", "v");
    prefs.removeConfig("a", "k");
    prefs.removeConfig("Missing", "k");
    EXPECT_EQ(prefs.preferences, (vel::Preferences::Sections{{"A", {}}, {"Missing", {}}}));
    EXPECT_TRUE(vel::_default_string.empty());
}

TEST(Preferences, IntegerConversions) {
    const std::vector<std::pair<const char*, int>> cases = {
        {nullptr, 77},
        {"", 77},
        {"abc", 0},
        {" 12x", 12},
        {"-5", -5},
        {"+7", 7},
        {"0x10", 0},
        {"2147483647", INT_MAX},
        {"-2147483648", INT_MIN},
        {"4294967296", INT_MAX}, // clamped to the range of int
        {"-99999999999999999999", INT_MIN},
    };
    for (const auto& c : cases) {
        vel::Preferences prefs;
        if (c.first != nullptr) {
            prefs.setConfigString("S", "k", c.first);
        }
        EXPECT_EQ(prefs.getConfigInt("s", "k", 77), c.second) << (c.first ? c.first : "absent");
    }
    vel::Preferences prefs;
    prefs.setConfigInt("S", "k", INT_MIN);
    EXPECT_EQ(prefs.getConfigString("S", "k"), "-2147483648");
}

TEST(Preferences, GetConfigBytesCopiesWithoutTerminator) {
    struct Case {
        const char* key;
        unsigned int size;
        int copied;
        std::string buffer; // the first six bytes afterwards
    };
    const std::vector<Case> cases = {
        {"k", 4, 4, "abcdzz"},
        {"k", 6, 6, "abcdef"},
        {"short", 6, 2, std::string("xy\0\0\0\0", 6)},
        {"empty", 3, 0, std::string("\0\0\0zzz", 6)},
        {"absent", 3, 0, std::string("\0\0\0zzz", 6)},
        {"empty", 0, 0, "zzzzzz"}, // a zero size writes nothing at all
        {"k", 0, 0, "zzzzzz"},
    };
    vel::Preferences prefs;
    prefs.setConfigString("S", "k", "abcdef");
    prefs.setConfigString("S", "short", "xy");
    prefs.setConfigString("S", "empty", "");
    for (const auto& c : cases) {
        char buffer[6];
        std::memset(buffer, 'z', sizeof(buffer));
        EXPECT_EQ(prefs.getConfigBytes("S", c.key, buffer, c.size), c.copied);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), c.buffer) << c.key << " " << c.size;
    }
}

TEST(Preferences, PrintsNonEmptySectionsAndValues) {
    vel::Preferences prefs;
    prefs.setConfigString("A", "x", "1");
    prefs.setConfigString("A", "y", "");
    prefs.removeConfig("Empty", "k");
    std::ostringstream only;
    only << prefs;
    EXPECT_EQ(only.str(), "[A]\nx=1\n\n");

    prefs.setConfigString("B", "*Dept", "Sales");
    prefs.setConfigString("B", "", "blank key");
    prefs.setConfigString("C", "y", "");
    prefs.setConfigString("CLIENT", "z", "2");
    std::ostringstream all;
    all << prefs;
    EXPECT_EQ(all.str(), "[A]\nx=1\n\n[B]\n=blank key\n*Dept=Sales\n\n[C]\n\n[CLIENT]\nz=2\n\n");
}

TEST(Preferences, OneInstanceThroughEitherPath) {
    vel::Preferences* first = vel::Preferences::getInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(vel::Preferences::instance, first);
    EXPECT_EQ(vel::Preferences::getInstance(), first);
}

} // namespace

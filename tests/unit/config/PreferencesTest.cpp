#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <tuple>

namespace {

using Sections = vel::Preferences::Sections;

// Sections match without case, keys exactly; a read creates nothing.
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
    EXPECT_EQ(prefs.preferences, (Sections{{"Client", {{"Name", "x"}, {"Port", "443"}}}}));

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
}

} // namespace

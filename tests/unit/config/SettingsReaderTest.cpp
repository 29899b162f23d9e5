#include "config/SettingsReader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

unsigned long ChecksumOf(std::string line, unsigned long seed) {
    line.push_back('\0'); // an odd-length line's last word takes the zero
    return nc_checksum(reinterpret_cast<unsigned char*>(&line[0]),
                       static_cast<short>(line.size() / 2), seed);
}

unsigned long Read(const std::string& file, vel::Preferences* prefs, unsigned long mask = 0) {
    std::istringstream input(file);
    unsigned long checksum = 0;
    EXPECT_TRUE(vel::ReadLines(input, checksum, prefs, mask));
    return checksum;
}

TEST(Checksum, KnownValuesChainFromLineToLine) {
    const unsigned long first = ChecksumOf("[Client]", 0);
    EXPECT_EQ(first, 0x5EB8EA06UL);
    EXPECT_EQ(ChecksumOf("Port=443", first), 0xD6A777F0UL);
    EXPECT_EQ(Read("[Client]\nPort=443\n", nullptr), 0xD6A777F0UL);
    const unsigned long mask = 0xA5A5A5A5UL; // XORed in after every line
    EXPECT_EQ(Read("[Client]\nPort=443\n", nullptr, mask),
              ChecksumOf("Port=443", first ^ mask) ^ mask);
}

TEST(Checksum, EdgesOfTheWordCountAndSeed) {
    unsigned char bytes[] = {0, 0};
    EXPECT_EQ(nc_checksum(bytes, 0, 0x12345678UL), 1UL);
    EXPECT_EQ(nc_checksum(bytes, static_cast<short>(0x8000), 0x12345678UL), 1UL);
    // Seed bytes 12 34 unpack to msw DE34, which packs back out as DE EA:
    // unpacking is deliberately not the inverse of packing.
    EXPECT_EQ(nc_checksum(bytes, 1, 0x12340000UL) >> 16, 0xDEEAUL);
}

TEST(ReadLines, WhichLinesCountTowardsTheChecksum) {
    const std::vector<std::pair<std::string, std::string>> same = {
        {"  ; comment\n\n\t\n[Client]\n", "[Client]\n"},
        {"   [Client]   \n", "[Client]   \n"},
        {"[Client]\r\nPort=443\r\n", "[Client]\nPort=443\n"},
        {"[Client]\nPort=443", "[Client]\nPort=443\n"},
    };
    for (const auto& c : same) {
        EXPECT_EQ(Read(c.first, nullptr), Read(c.second, nullptr)) << c.first;
    }
    // Lines that store nothing are checksummed all the same.
    for (const char* line : {"ab\n", "a\n", "[[x]]\n", "a=\n"}) {
        EXPECT_NE(Read(std::string("[Client]\n") + line, nullptr), 0x5EB8EA06UL) << line;
    }
    EXPECT_NE(Read("Port=443 \n", nullptr), Read("Port=443\n", nullptr));
    // Only one carriage return is removed.
    EXPECT_EQ(Read("[Client]\r\r\n", nullptr), ChecksumOf("[Client]\r", 0));
}

TEST(ReadLines, NullStoreGivesTheSameChecksum) {
    const std::string file = "; settings\n[gateway]\ngatewayip = 10.0.0.5\r\nab\n"
                             "gatewaykey=k=ey\n[HTTP]\n*Dept=Sales\nodd\n";
    vel::Preferences prefs;
    EXPECT_EQ(Read(file, &prefs), Read(file, nullptr));
    EXPECT_EQ(prefs.getConfigString("gateway", "gatewayip"), "10.0.0.5");
}

TEST(ReadLines, LineLongerThan1024BytesEndsReadingSilently) {
    const std::string key(1020, 'k');
    const std::string after = "\n[B]\nm=2\n";
    const std::vector<std::pair<std::string, bool>> cases = {
        {key + "=abc" + after, true},
        {key + "=abc\r" + after, false}, // 1025 bytes with the carriage return
        {key + "=abcd" + after, false},
    };
    for (const auto& c : cases) {
        vel::Preferences prefs;
        Read("[A]\nk=1\n" + c.first, &prefs);
        EXPECT_EQ(prefs.getConfigString("A", "k"), "1");
        EXPECT_EQ(prefs.getConfigString("A", key).empty(), !c.second);
        EXPECT_EQ(prefs.getConfigString("B", "m").empty(), !c.second);
    }
    vel::Preferences prefs; // the longest line is read without a final line feed too
    Read("[A]\n" + key + "=abc", &prefs);
    EXPECT_EQ(prefs.getConfigString("A", key), "abc");
    EXPECT_EQ(Read("[A]\nk=1\n" + cases[2].first, nullptr), Read("[A]\nk=1\n", nullptr));
}

TEST(ReadLines, SectionsAndRepeatedKeys) {
    vel::Preferences prefs;
    Read("k=0\n[ Client ]\nk=1\n[Client]\nPort=1\n[CLIENT]\nPort=2\nport=3\n", &prefs);
    EXPECT_EQ(prefs.getConfigString("", "k"), "0");
    EXPECT_EQ(prefs.getConfigString(" Client ", "k"), "1"); // untrimmed, a section of its own
    const auto& client = prefs.preferences.at("Client");
    EXPECT_EQ(client, (vel::Preferences::Section{{"Port", "2"}, {"port", "3"}}));
}

TEST(ParseLine, Rules) {
    struct Case {
        const char* line;
        const char* section; // after the line, starting from "S"
        const char* key;     // null: nothing stored
        const char* value;
    };
    const std::vector<Case> cases = {
        {"[Client]", "Client", nullptr, nullptr},
        {"[Client", "Client", nullptr, nullptr},
        {"[ Client ] trailing", " Client ", nullptr, nullptr},
        {"[]x", "", nullptr, nullptr},
        {"[[Client]]", "S", nullptr, nullptr},
        {"ab", "S", nullptr, nullptr},
        {"a=", "S", nullptr, nullptr},
        {"=x", "S", nullptr, nullptr},
        {" = ", "S", nullptr, nullptr},
        {"a= ", "S", "a", ""},
        {"=xy", "S", "", "xy"},
        {"abc", "S", "abc", ""},
        {"# comment", "S", "# comment", ""},
        {"Key = Value with = sign ", "S", "Key", "Value with = sign"},
        {"*Dept=Sales", "S", "*Dept", "Sales"},
        {"k=v ; not a comment", "S", "k", "v ; not a comment"},
        {"k\t=\t\xC3\xA9t\xC3\xA9", "S", "k", "t"},
    };
    for (const auto& c : cases) {
        vel::Preferences prefs;
        std::string section = "S";
        EXPECT_TRUE(vel::ParseLine(prefs, c.line, section));
        EXPECT_EQ(section, c.section) << c.line;
        vel::Preferences::Sections expected;
        if (c.key != nullptr) {
            expected["S"][c.key] = c.value;
        }
        EXPECT_EQ(prefs.preferences, expected) << c.line;
    }
}

} // namespace

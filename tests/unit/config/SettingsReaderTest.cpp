#include "config/SettingsReader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>

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
    unsigned char bytes[] = {0, 0};
    EXPECT_EQ(nc_checksum(bytes, static_cast<short>(0x8000), 0x12345678UL), 1UL);
    // Seed bytes 12 34 unpack to DE34, which packs back out as DE EA: unpacking
    // is deliberately not the inverse of packing.
    EXPECT_EQ(nc_checksum(bytes, 1, 0x12340000UL) >> 16, 0xDEEAUL);
}

TEST(ReadLines, WhatIsChecksummedAndWhereReadingStops) {
    // Comments, blank lines, leading blanks and one CR are not checksummed.
    EXPECT_EQ(Read("  ; comment\n\n\t\n   [Client]\r\nPort=443", nullptr),
              Read("[Client]\nPort=443\n", nullptr));
    EXPECT_EQ(Read("[Client]\r\r\n", nullptr), ChecksumOf("[Client]\r", 0));
    // A line that stores nothing is checksummed all the same.
    EXPECT_NE(Read("[Client]\nab\n", nullptr), 0x5EB8EA06UL);

    const std::string file = "; settings\nk=0\n[ Client ]\nk=1\n[Client]\ngatewayip = 10.0.0.5\r\n"
                             "ab\n[CLIENT]\nPort=2\nport=3\n";
    vel::Preferences prefs;
    EXPECT_EQ(Read(file, &prefs), Read(file, nullptr));
    EXPECT_EQ(prefs.preferences,
              (vel::Preferences::Sections{
                  {"", {{"k", "0"}}},
                  {" Client ", {{"k", "1"}}}, // untrimmed: a section of its own
                  {"Client", {{"Port", "2"}, {"gatewayip", "10.0.0.5"}, {"port", "3"}}}}));

    // 1024 bytes are read; a longer line silently ends the file.
    const std::string key(1020, 'k');
    const std::tuple<std::string, bool> cases[] = {{key + "=abc\n[B]\nm=2\n", true},
                                                   {key + "=abc", true},
                                                   {key + "=abc\r\n[B]\nm=2\n", false},
                                                   {key + "=abcd\n[B]\nm=2\n", false}};
    for (const auto& [lines, read] : cases) {
        vel::Preferences longPrefs;
        EXPECT_EQ(Read("[A]\nk=1\n" + lines, &longPrefs) == Read("[A]\nk=1\n", nullptr), !read);
        EXPECT_EQ(longPrefs.getConfigString("A", "k"), "1");
        EXPECT_EQ(longPrefs.getConfigString("A", key).empty(), !read) << lines.size();
        EXPECT_TRUE(longPrefs.getConfigString("B", "m").empty() || read);
    }
}

TEST(ParseLine, Rules) {
    // Line, section after it (from "S"), key stored (null: nothing), value.
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"[Client", "Client", nullptr, nullptr},
        {"[ Client ] trailing", " Client ", nullptr, nullptr},
        {"[]x", "", nullptr, nullptr},
        {"[[Client]]", "S", nullptr, nullptr},
        {"a=", "S", nullptr, nullptr}, // two bytes or fewer: nothing
        {" = ", "S", nullptr, nullptr},
        {"a= ", "S", "a", ""},
        {"=xy", "S", "", "xy"},
        {"# comment", "S", "# comment", ""},
        {"Key = Value with = sign ", "S", "Key", "Value with = sign"},
        {"k=v ; not a comment", "S", "k", "v ; not a comment"},
        {"k\t=\t\xC3\xA9t\xC3\xA9", "S", "k", "t"}, // bytes from 0x80 count as blanks
    };
    for (const auto& [line, section, key, value] : cases) {
        vel::Preferences prefs;
        std::string current = "S";
        EXPECT_TRUE(vel::ParseLine(prefs, line, current));
        EXPECT_EQ(current, section) << line;
        vel::Preferences::Sections expected;
        if (key != nullptr) {
            expected["S"][key] = value;
        }
        EXPECT_EQ(prefs.preferences, expected) << line;
    }
}

} // namespace

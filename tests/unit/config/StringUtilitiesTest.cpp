#include "config/StringUtilities.h"
#include "config/stristr.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(StringUtilities, StripSubstituteUppercaseAndPascal) {
    // Bytes from 0x80 count as white space, as do controls and NUL.
    const std::tuple<std::string, std::string, std::string, std::string> strips[] = {
        {"\t key \r", "key \r", "\t key", "key"},
        {"\xC3\xA9t\xC3\xA9", "t\xC3\xA9", "\xC3\xA9t", "t"},
        {std::string("\0a\x7f\x1f", 4), "a\x7f\x1f", std::string("\0a\x7f", 3), "a\x7f"},
    };
    for (const auto& [source, leading, trailing, both] : strips) {
        std::string out = "old";
        vel::StripLeadingWhitespace(source, out);
        EXPECT_EQ(out, leading);
        vel::StripTrailingWhitespace(source, out);
        EXPECT_EQ(out, trailing);
        std::string inPlace = source; // source and destination may be one string
        vel::StripWhitespace(inPlace, inPlace);
        EXPECT_EQ(inPlace, both);
    }

    std::string subject = "aXbX";
    EXPECT_TRUE(vel::SubstituteStringOnce(subject, "X", "YY"));
    EXPECT_EQ(subject, "aYYbX");
    EXPECT_FALSE(vel::SubstituteStringOnce(subject, "aYYbXX", ""));
    EXPECT_EQ(vel::UppercaseString(std::string("ip-1_z\xC3\xA9\0b", 10)),
              std::string("IP-1_Z\xC3\xA9\0B", 10));

    const std::string source(300, 'p');
    unsigned char pascal[258];
    std::fill(std::begin(pascal), std::end(pascal), 0xEE);
    vel::ToPascalString(source, pascal);
    EXPECT_EQ(pascal[0], 255); // cut at 255
    EXPECT_EQ(std::string(reinterpret_cast<char*>(pascal + 1), 255), source.substr(0, 255));
    EXPECT_EQ(pascal[256], 0xEE);
}

TEST(StringUtilities, TokeniseAndStristr) {
    const std::tuple<const char*, bool, std::vector<std::string>> cases[] = {
        {"a,,b", false, {"kept", "a", "b"}}, // appended to, never cleared
        {",a,,b,", true, {"kept", "", "a", "", "b"}},
        {"k=v;x", false, {"kept", "k", "v", "x"}},
    };
    for (const auto& [source, includeEmpty, expected] : cases) {
        std::vector<std::string> tokens = {"kept"};
        vel::TokeniseString(source, ",=;", tokens, includeEmpty);
        EXPECT_EQ(tokens, expected) << source;
    }

    const std::tuple<const char*, const char*, int> finds[] = {
        {"x: 1\r\nCONTENT-length: 5", "Content-Length", 6}, // offset; -1: not found
        {"abc", "", 0},
        {"aab", "AB", 1},
        {"ab", "abc", -1},
        {"\xC3\x89", "\xC3\xA9", -1}, // bytes above ASCII are not folded
    };
    for (const auto& [haystack, needle, offset] : finds) {
        EXPECT_EQ(stristr(haystack, needle), offset < 0 ? nullptr : haystack + offset) << needle;
    }
}

} // namespace

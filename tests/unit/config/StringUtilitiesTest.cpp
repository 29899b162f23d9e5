#include "config/StringUtilities.h"
#include "config/stristr.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(StringUtilities, StripWhitespaceRules) {
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
}

// Tokenising, substitution, case and Pascal strings: one check each.
TEST(StringUtilities, TokeniseSubstituteUppercaseStristrAndPascal) {
    std::vector<std::string> tokens = {"kept"}; // appended to, never cleared
    vel::TokeniseString(",a,,b=c,", ",=", tokens, true);
    EXPECT_EQ(tokens, (std::vector<std::string>{"kept", "", "a", "", "b", "c"}));
    std::string subject = "aXbX";
    EXPECT_TRUE(vel::SubstituteStringOnce(subject, "X", "YY"));
    EXPECT_EQ(subject, "aYYbX");
    EXPECT_EQ(vel::UppercaseString(std::string("ip-1_z\xC3\xA9\0b", 10)),
              std::string("IP-1_Z\xC3\xA9\0B", 10));
    const char* header = "x: 1\r\nCONTENT-length: 5";
    EXPECT_EQ(stristr(header, "Content-Length"), header + 6);
    EXPECT_EQ(stristr("\xC3\x89", "\xC3\xA9"), nullptr); // bytes above ASCII are not folded
    unsigned char pascal[258];
    std::fill(std::begin(pascal), std::end(pascal), 0xEE);
    vel::ToPascalString(std::string(300, 'p'), pascal);
    EXPECT_EQ(pascal[0], 255); // cut at 255
    EXPECT_EQ(std::string(reinterpret_cast<char*>(pascal + 1), 256),
              std::string(255, 'p') + "\xEE");
}

} // namespace

#include "config/StringUtilities.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

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

} // namespace

#include "config/StringUtilities.h"
#include "config/stristr.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(StringUtilities, StripWhitespaceRules) {
    struct Case {
        std::string source, leading, trailing, both;
    };
    const std::vector<Case> cases = {
        {"\t key \r", "key \r", "\t key", "key"},
        {"   \t\n", "", "", ""},
        {"\xC3\xA9t\xC3\xA9", "t\xC3\xA9", "\xC3\xA9t", "t"}, // 0x80 and up count
        {std::string("\0a b\x7f\x1f", 6), "a b\x7f\x1f", std::string("\0a b\x7f", 5), "a b\x7f"},
    };
    for (const auto& c : cases) {
        std::string out = "old";
        vel::StripLeadingWhitespace(c.source, out);
        EXPECT_EQ(out, c.leading);
        vel::StripTrailingWhitespace(c.source, out);
        EXPECT_EQ(out, c.trailing);
        std::string inPlace = c.source; // source and destination may be one string
        vel::StripWhitespace(inPlace, inPlace);
        EXPECT_EQ(inPlace, c.both);
    }
}

TEST(StringUtilities, ToPascalStringCutsAt255) {
    for (size_t length : {0u, 254u, 255u, 300u}) {
        std::string source;
        for (size_t i = 0; i < length; ++i) {
            source += static_cast<char>('a' + i % 26);
        }
        unsigned char pascal[257];
        std::fill(std::begin(pascal), std::end(pascal), 0xEE);
        vel::ToPascalString(source, pascal);
        const size_t stored = length < 255 ? length : 255;
        EXPECT_EQ(pascal[0], stored);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(pascal + 1), stored),
                  source.substr(0, stored));
        EXPECT_EQ(pascal[stored + 1], 0xEE) << "wrote past the text, length " << length;
    }
}

TEST(StringUtilities, SubstituteStringOnceReplacesTheFirstOnly) {
    struct Case {
        const char *subject, *pattern, *replacement;
        bool substituted;
        const char* result;
    };
    const std::vector<Case> cases = {
        {"aXbX", "X", "YY", true, "aYYbX"}, {"aXbX", "Z", "YY", false, "aXbX"},
        {"abc", "", "<", true, "<abc"},     {"abc", "abcd", "x", false, "abc"},
        {"abc", "abc", "", true, ""},
    };
    for (const auto& c : cases) {
        std::string subject = c.subject;
        EXPECT_EQ(vel::SubstituteStringOnce(subject, c.pattern, c.replacement), c.substituted);
        EXPECT_EQ(subject, c.result);
    }
}

TEST(StringUtilities, UppercaseStringMapsAsciiLettersOnly) {
    EXPECT_EQ(vel::UppercaseString(std::string("gatewayIP-1_z\xC3\xA9\0b", 17)),
              std::string("GATEWAYIP-1_Z\xC3\xA9\0B", 17));
}

TEST(StringUtilities, TokeniseStringRules) {
    struct Case {
        const char* source;
        bool includeEmpty;
        std::vector<std::string> tokens;
    };
    const std::vector<Case> cases = {
        {"a,,b", false, {"a", "b"}},
        {"a,,b", true, {"a", "", "b"}},
        {",a", true, {"", "a"}},
        {"a,", true, {"a"}},
        {",,", true, {"", ""}},
        {",,", false, {}},
        {"k=v;x", false, {"k", "v", "x"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> tokens = {"kept"}; // appended to, never cleared
        vel::TokeniseString(c.source, ",=;", tokens, c.includeEmpty);
        std::vector<std::string> expected = {"kept"};
        expected.insert(expected.end(), c.tokens.begin(), c.tokens.end());
        EXPECT_EQ(tokens, expected) << c.source << " " << c.includeEmpty;
    }
}

TEST(Stristr, FindsTheFirstCaseInsensitiveMatch) {
    // offset: -1: not found
    const std::tuple<const char*, const char*, int> cases[] = {
        {"Content-Length: 5", "content-length", 0},
        {"x: 1\r\nCONTENT-length: 5", "Content-Length", 6},
        {"abc", "", 0},
        {"", "a", -1},
        {"aab", "AB", 1},
        {"ab", "abc", -1},
        {"\xC3\x89", "\xC3\xA9", -1}, // bytes above ASCII are not folded
    };
    for (const auto& [haystack, needle, offset] : cases) {
        const char* expected = offset < 0 ? nullptr : haystack + offset;
        EXPECT_EQ(stristr(haystack, needle), expected) << haystack << " / " << needle;
    }
}

} // namespace

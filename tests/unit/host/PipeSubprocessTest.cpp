#include "host/PipeSubprocess.h"

#include <gtest/gtest.h>

namespace {

TEST(PipeSubprocess, KeepsTheFirstOutputMinusItsLastByte) {
    struct Case {
        const char* command;
        std::string output;
    };
    const Case cases[] = {
        {"echo abc", "abc"},
        {"printf abc", "ab"},
        {"printf 'one\\ntwo\\n'", "one\ntwo"},
        {"printf 'ab\\000cd'", "a"}, // up to the first zero byte
        {"true", ""},
        {"printf '\\000abc'", ""},
        {"/nonexistent/command 2>/dev/null", ""},
        {"head -c 3000 /dev/zero | tr '\\0' x", std::string(1023, 'x')},
    };
    for (const Case& c : cases) {
        std::string output = "stale";
        EXPECT_EQ(vel::PipeSubprocess(c.command, output), 0) << c.command;
        EXPECT_EQ(output, c.output) << c.command;
    }
}

TEST(ReadCommandOutput, KeepsTheLastByte) {
    std::string text;
    EXPECT_EQ(vel::ReadCommandOutput("printf abc", text), 0);
    EXPECT_EQ(text, "abc");
}

} // namespace

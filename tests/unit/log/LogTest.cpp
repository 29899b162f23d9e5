#include "log/Log.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

TEST(Log, WithoutAnOpenFileLinesGoToStderrAfterTheLocalTime) {
    const std::string line = vel::FormatLogLine("Configuration is good.");
    EXPECT_TRUE(std::regex_match(
        line, std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} Configuration is good\.)")))
        << line;
    ASSERT_FALSE(vel::gLogging);
    testing::internal::CaptureStderr();
    vel::StopLog(); // closing a log that never opened does nothing
    vel::Log("after stop");
    EXPECT_NE(testing::internal::GetCapturedStderr().find(" after stop\n"), std::string::npos);
    EXPECT_FALSE(vel::gLogging);
}

} // namespace

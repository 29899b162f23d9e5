#include "log/Log.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

TEST(Log, LineStartsWithLocalTime) {
    std::string line = vel::FormatLogLine("Configuration is good.");
    EXPECT_TRUE(std::regex_match(
        line, std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} Configuration is good\.)")))
        << line;
}

TEST(Log, WithoutAnOpenFileOnlyStderrIsWritten) {
    ASSERT_FALSE(vel::gLogging);
    testing::internal::CaptureStderr();
    vel::Log("before start");
    vel::StopLog(); // closing a log that never opened does nothing
    vel::Log("after stop");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(" before start\n"), std::string::npos);
    EXPECT_NE(err.find(" after stop\n"), std::string::npos);
    EXPECT_FALSE(vel::gLogging);
}

} // namespace

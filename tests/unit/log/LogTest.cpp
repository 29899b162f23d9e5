#include "log/Log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Log, WithoutAnOpenFileLinesGoToStderr) {
    ASSERT_FALSE(vel::gLogging);
    testing::internal::CaptureStderr();
    vel::StopLog(); // closing a log that never opened does nothing
    vel::Log("after stop");
    EXPECT_NE(testing::internal::GetCapturedStderr().find(" after stop\n"), std::string::npos);
    EXPECT_FALSE(vel::gLogging);
}

} // namespace

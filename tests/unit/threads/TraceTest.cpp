#include "threads/veltrace.h"

#include <gtest/gtest.h>

#include <wchar.h>

#include <string>

namespace {

// What one trace call wrote to standard error, without the time prefix.
std::string TracedText(const std::string& stderrText) {
    // "YYYY-MM-DD HH:MM:SS " is 20 bytes.
    if (stderrText.size() < 21 || stderrText.back() != '\n') {
        return "<malformed: " + stderrText + ">";
    }
    return stderrText.substr(20, stderrText.size() - 21);
}

TEST(trace, FormatsIntoOneLogLineAndReleasesTheLock) {
    testing::internal::CaptureStderr();
    vel::trace("connection %d: %s", 3, "closed");
    EXPECT_EQ(TracedText(testing::internal::GetCapturedStderr()), "connection 3: closed");
    ASSERT_EQ(pthread_mutex_trylock(&vel::g_traceLock.m_crit_sec.mutex), 0);
    pthread_mutex_unlock(&vel::g_traceLock.m_crit_sec.mutex);
}

TEST(trace, LongTextIsCutAt511Characters) {
    const std::string text = std::string(500, 'a') + std::string(100, 'b');
    for (size_t length : {510u, 511u, 512u, 600u}) {
        testing::internal::CaptureStderr();
        vel::trace("%s", text.substr(0, length).c_str());
        EXPECT_EQ(TracedText(testing::internal::GetCapturedStderr()),
                  text.substr(0, std::min<size_t>(length, 511)))
            << length;
    }
}

TEST(traceDeathTest, FormattingErrorAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Outside the C locale's range, the wide character cannot be converted.
    static const wchar_t kUnconvertible[] = {0x100, 0};
    EXPECT_DEATH(vel::trace("%ls", kUnconvertible), "veltrace:.*Assertion `nBuf >= 0' failed");
}

} // namespace

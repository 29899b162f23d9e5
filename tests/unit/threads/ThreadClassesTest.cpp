#include "threads/velthread.h"
#include "threads/veltrace.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <tuple>

namespace {

// An assertion ends the process by abort(), nothing else.
const auto kAborted = testing::KilledBySignal(SIGABRT);

// Counts what a CSingleLock does to the object it guards.
struct RecordingSync : vel::CSyncObject {
    BOOL Lock(DWORD) override {
        ++m_locks;
        return m_lockResult;
    }
    BOOL Unlock() override {
        ++m_unlocks;
        return m_unlockResult;
    }
    int m_locks = 0, m_unlocks = 0;
    BOOL m_lockResult = TRUE, m_unlockResult = TRUE;
};

// Only a lock that the object granted is unlocked, by Unlock or the destructor.
TEST(CSingleLock, HoldsWhatTheObjectGrantedAndUnlocksOnlyThat) {
    RecordingSync sync;
    { vel::CSingleLock never(&sync, FALSE); }
    EXPECT_EQ(sync.m_locks + sync.m_unlocks, 0);
    {
        vel::CSingleLock lock(&sync, TRUE);
        sync.m_lockResult = FALSE;
        EXPECT_TRUE(lock.Unlock());
        EXPECT_FALSE(lock.Lock(250));
        EXPECT_TRUE(lock.Unlock()); // not held: the object is left alone
        EXPECT_EQ(sync.m_unlocks, 1);
        sync.m_lockResult = TRUE;
        ASSERT_TRUE(lock.Lock(INFINITE));
        sync.m_unlockResult = FALSE;
        EXPECT_FALSE(lock.Unlock()); // the object refused: still held
        EXPECT_TRUE(lock.IsLocked());
        sync.m_unlockResult = TRUE;
    }
    EXPECT_EQ(sync.m_unlocks, 3);
}

TEST(CSingleLockDeathTest, MisuseAbortsWithTheAssertionText) {
    // The suite has other threads about; re-run the binary instead of forking it.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RecordingSync sync;
    EXPECT_EXIT(vel::CSingleLock(nullptr, FALSE), kAborted,
                "velthread:.*Assertion `pObject != __null' failed");
    EXPECT_EXIT(
        {
            vel::CSingleLock lock(&sync, TRUE);
            lock.Lock(INFINITE);
        },
        kAborted, "CSingleLock::Lock.*Assertion `!m_bAcquired' failed");
}

// Kept: the deadline arithmetic below.
TEST(JoinDeadline, TimeOutAndMicrosecondsScaledAsMillisecondsWrappingIn32Bits) {
    // Time-out, wall clock s and us, deadline: t = (timeout + us) * 1000 +
    // s * 1000000 modulo 2^32, the deadline {t / 1000000, t % 1000000}.
    const std::tuple<long, unsigned long, unsigned long, time_t, long> cases[] = {
        {1000, 0, 500, 1, 500000},
        {0, 4294, 967, 4294, 967000}, // t = 4294967000, just below 2^32
        {1000, 4295, 0, 1, 32704},    // 4295000000 - 2^32 + 1000000
        {-1000, 0, 0, 4293, 967296},  // 2^32 - 1000000
        // Today's clock: the deadline lies in 1970, so the wait times out at once.
        {1000, 1700000000, 0, 405, 635648},
    };
    for (const auto& [timeout, seconds, microseconds, tvSec, tvNsec] : cases) {
        struct timespec deadline = vel::JoinDeadline(timeout, seconds, microseconds);
        EXPECT_EQ(deadline.tv_sec, tvSec) << timeout << " " << seconds;
        EXPECT_EQ(deadline.tv_nsec, tvNsec) << timeout << " " << seconds;
    }
}

// The deadline comes from the wall clock by the arithmetic above, which
// today puts it in 1970: the wait ends at once and a body still running is
// cancelled. A deadline left unset would wait for ever or cancel nothing.
TEST(velthread, TryToJoinThenKillCancelsABodyStillRunningAtItsDeadline) {
    static std::atomic<bool> sUnwound{false}, sFinished{false};
    struct Body {
        static void* Run(void*) {
            struct Unwinding {
                ~Unwinding() { sUnwound = true; }
            } unwinding;
            for (int i = 0; i < 1000 && !sFinished; ++i) {
                usleep(10000); // a cancellation point, ten seconds in all
            }
            sFinished = true;
            return nullptr;
        }
    };
    vel::velthread thread(&Body::Run, nullptr);
    ASSERT_EQ(thread.create(), 0);
    auto joined = std::async(std::launch::async, [&] { thread.try_to_join_then_kill(1000); });
    const bool returned = joined.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!returned) {
        sFinished = true; // let the body end and wake the waiter
        while (joined.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
            pthread_cond_broadcast(&thread.m_thread_has_exited);
        }
    }
    for (int i = 0; i < 500 && !sUnwound; ++i) {
        usleep(10000);
    }
    EXPECT_TRUE(returned);
    EXPECT_TRUE(sUnwound);
    EXPECT_FALSE(sFinished) << "ran to its end instead of being cancelled";
    sFinished = true;
}

// One log line, cut at 511 characters, the lock released after it.
TEST(trace, LongTextIsCutAt511Characters) {
    const std::string text = std::string(500, 'a') + std::string(100, 'b');
    for (size_t length : {511u, 512u}) {
        testing::internal::CaptureStderr();
        vel::trace("%s|%d", text.substr(0, length - 2).c_str(), 7);
        const std::string line = testing::internal::GetCapturedStderr();
        // After "YYYY-MM-DD HH:MM:SS ".
        EXPECT_EQ(line.substr(std::min<size_t>(20, line.size())),
                  (text.substr(0, length - 2) + "|7").substr(0, 511) + "\n");
    }
    ASSERT_EQ(pthread_mutex_trylock(&vel::g_traceLock.m_crit_sec.mutex), 0);
    pthread_mutex_unlock(&vel::g_traceLock.m_crit_sec.mutex);
}

TEST(traceDeathTest, FormattingErrorAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Outside the C locale's range, the wide character cannot be converted.
    static const wchar_t kUnconvertible[] = {0x100, 0};
    EXPECT_EXIT(vel::trace("%ls", kUnconvertible), kAborted,
                "veltrace:.*Assertion `nBuf >= 0' failed");
}

} // namespace

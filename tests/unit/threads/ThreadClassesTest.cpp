#include "threads/velthread.h"
#include "threads/veltrace.h"

#include <gtest/gtest.h>

#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <tuple>

namespace {

// Counts what a CSingleLock does to the object it guards.
class RecordingSync : public vel::CSyncObject {
public:
    BOOL Lock(DWORD dwTimeout) override {
        ++m_locks;
        m_lastTimeout = dwTimeout;
        return m_lockResult;
    }
    BOOL Unlock() override {
        ++m_unlocks;
        return m_unlockResult;
    }

    int m_locks = 0;
    int m_unlocks = 0;
    DWORD m_lastTimeout = 0;
    BOOL m_lockResult = TRUE;
    BOOL m_unlockResult = TRUE;
};

TEST(CSingleLock, DestructorUnlocksOnlyWhatItLocked) {
    for (BOOL initialLock : {FALSE, TRUE}) {
        RecordingSync sync;
        {
            vel::CSingleLock lock(&sync, initialLock);
            EXPECT_EQ(lock.IsLocked(), initialLock);
        }
        EXPECT_EQ(sync.m_locks, initialLock ? 1 : 0);
        EXPECT_EQ(sync.m_unlocks, initialLock ? 1 : 0);
        EXPECT_EQ(sync.m_lastTimeout, initialLock ? INFINITE : 0u);
    }
}

// The object's results decide whether the lock holds it; a second Unlock
// leaves the object alone.
TEST(CSingleLock, LockAndUnlockFollowTheObject) {
    RecordingSync sync;
    sync.m_lockResult = FALSE;
    vel::CSingleLock lock(&sync, FALSE);
    EXPECT_FALSE(lock.Lock(INFINITE));
    EXPECT_FALSE(lock.IsLocked());

    sync.m_lockResult = TRUE;
    sync.m_unlockResult = FALSE;
    ASSERT_TRUE(lock.Lock(250));
    EXPECT_EQ(sync.m_lastTimeout, 250u);
    EXPECT_FALSE(lock.Unlock()); // still held
    EXPECT_TRUE(lock.IsLocked());
    sync.m_unlockResult = TRUE;
    EXPECT_TRUE(lock.Unlock());
    EXPECT_TRUE(lock.Unlock());
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(sync.m_unlocks, 2);
}

TEST(CCriticalSection, LockHoldsTheMutexUntilUnlock) {
    vel::CCriticalSection section;
    {
        vel::CSingleLock lock(&section, TRUE);
        EXPECT_NE(pthread_mutex_trylock(&section.m_crit_sec.mutex), 0);
    }
    ASSERT_EQ(pthread_mutex_trylock(&section.m_crit_sec.mutex), 0);
    pthread_mutex_unlock(&section.m_crit_sec.mutex);
}

class CSingleLockDeathTest : public testing::Test {
protected:
    // The suite has other threads about; re-run the binary instead of forking it.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    RecordingSync m_sync;
};

TEST_F(CSingleLockDeathTest, MisuseAbortsWithTheAssertionText) {
    EXPECT_DEATH(vel::CSingleLock(nullptr, FALSE),
                 "velthread:.*Assertion `pObject != __null' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, TRUE);
            lock.Lock(INFINITE);
        },
        "CSingleLock::Lock.*Assertion `!m_bAcquired' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, FALSE);
            lock.m_pObject = nullptr;
            lock.Lock(INFINITE);
        },
        "CSingleLock::Lock.*Assertion `m_pObject != __null' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, FALSE);
            lock.m_pObject = nullptr;
            lock.Unlock();
        },
        "CSingleLock::Unlock.*Assertion `m_pObject != __null' failed");
}

using namespace std::chrono_literals;

constexpr auto kLimit = 10s;

// Fulfils a promise when the thread that armed it has ended for good (after
// the exit signal, or after a cancellation has unwound it); only then may the
// test destroy the velthread the detached thread points to.
struct ExitWatch {
    std::promise<void>* m_ended = nullptr;
    ~ExitWatch() {
        if (m_ended != nullptr) {
            m_ended->set_value();
        }
    }
};
thread_local ExitWatch tExitWatch;

TEST(velthread, NeverCreatedThreadIsLeftAlone) {
    vel::velthread thread(nullptr, nullptr);
    EXPECT_EQ(thread.m_pthread, 0u);
    EXPECT_FALSE(thread.m_quit);
    thread.kill();
    thread.wait_for_exit();
    thread.try_to_join_then_kill(1000);
    thread.quit();
    EXPECT_TRUE(thread.m_quit);
    EXPECT_EQ(thread.m_pthread, 0u);
}

void* Echo(void* arg) {
    return static_cast<char*>(arg) + 1;
}

TEST(velthread, ThreadFunctionRunsTheBodyWithItsArgument) {
    char data[2];
    vel::velthread thread(Echo, data);
    EXPECT_EQ(thread.thread_function(), data + 1); // its exit signal finds no waiter
    EXPECT_EQ(vel::ThreadFunction(&thread), data + 1);
}

struct QuitRun {
    vel::velthread* m_thread = nullptr;
    pthread_mutex_t m_gate = PTHREAD_MUTEX_INITIALIZER;
    std::promise<void> m_ended;
    std::atomic<bool> m_sawQuit{false};
};

void* RunUntilQuit(void* p) {
    QuitRun* run = static_cast<QuitRun*>(p);
    tExitWatch.m_ended = &run->m_ended;
    for (int i = 0; i < 10000 && !run->m_thread->m_quit; ++i) {
        usleep(1000);
    }
    run->m_sawQuit = run->m_thread->m_quit.load();
    // The gate opens only once the test waits for the exit signal, which is
    // otherwise lost.
    pthread_mutex_lock(&run->m_gate);
    pthread_mutex_unlock(&run->m_gate);
    return nullptr;
}

TEST(velthread, BodyRunsDetachedUntilQuitAndSignalsItsExit) {
    QuitRun run;
    vel::velthread thread(RunUntilQuit, &run);
    run.m_thread = &thread;
    pthread_mutex_lock(&run.m_gate);
    ASSERT_EQ(thread.create(), 0);
    EXPECT_NE(thread.m_pthread, 0u);
    thread.quit();

    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += std::chrono::seconds(kLimit).count();
    int woken = pthread_cond_timedwait(&thread.m_thread_has_exited, &run.m_gate, &deadline);
    pthread_mutex_unlock(&run.m_gate);
    EXPECT_EQ(woken, 0) << "no exit signal";
    ASSERT_EQ(run.m_ended.get_future().wait_for(kLimit), std::future_status::ready);
    EXPECT_TRUE(run.m_sawQuit);
}

struct BlockedRun {
    HANDLE m_event = WinCreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::promise<void> m_waiting;
    std::promise<void> m_ended;
    std::atomic<bool> m_unwound{false};
    std::atomic<bool> m_returned{false};
};

void* WaitForEvent(void* p) {
    BlockedRun* run = static_cast<BlockedRun*>(p);
    tExitWatch.m_ended = &run->m_ended;
    struct MarkUnwound {
        std::atomic<bool>& m_flag;
        ~MarkUnwound() { m_flag = true; }
    } mark{run->m_unwound};
    run->m_waiting.set_value();
    WaitForSingleObject(run->m_event, INFINITE);
    run->m_returned = true;
    return nullptr;
}

// The way a connection stops its read thread: the computed deadline is long
// past, so the thread is cancelled at once, out of its wait, with its stack
// unwound and the wait's mutex released.
TEST(velthread, TryToJoinThenKillCancelsAThreadBlockedOnAnEvent) {
    auto run = std::make_unique<BlockedRun>();
    auto thread = std::make_unique<vel::velthread>(WaitForEvent, run.get());
    ASSERT_EQ(thread->create(), 0);
    ASSERT_EQ(run->m_waiting.get_future().wait_for(kLimit), std::future_status::ready);

    thread->try_to_join_then_kill(1000);
    if (run->m_ended.get_future().wait_for(kLimit) != std::future_status::ready) {
        // Still blocked: leave everything it uses alive rather than hang.
        thread.release();
        run.release();
        FAIL() << "the thread was not cancelled";
    }
    EXPECT_TRUE(run->m_unwound);
    EXPECT_FALSE(run->m_returned);
    EXPECT_TRUE(CloseHandle(run->m_event));
}

TEST(JoinDeadline, SettledArithmeticWrapsIn32Bits) {
    // Time-out, wall clock s and us, deadline. t = (timeout + us) * 1000 +
    // s * 1000000 modulo 2^32 = 4294967296; the deadline is {t / 1000000,
    // t % 1000000}.
    const std::tuple<long, unsigned long, unsigned long, time_t, long> cases[] = {
        {1000, 0, 0, 1, 0},
        {1000, 0, 500, 1, 500000},
        {1000, 0, 999999, 1000, 999000}, // t = 1000999000
        {0, 4294, 967, 4294, 967000},    // t = 4294967000, just below 2^32
        {1000, 4295, 0, 1, 32704},       // 4295000000 - 2^32 + 1000000
        {4294968, 0, 0, 0, 704},         // 4294968000 - 2^32
        {-1000, 0, 0, 4293, 967296},     // 2^32 - 1000000
        {1000, 8590, 0, 1, 65408},       // 8590000000 - 2 * 2^32 + 1000000
        // A wall clock of today: 1.7e15 - 395812 * 2^32 = 404635648, plus
        // 1000000; the deadline lies in 1970, so the wait times out at once.
        {1000, 1700000000, 0, 405, 635648},
    };
    for (const auto& [timeout, seconds, microseconds, tvSec, tvNsec] : cases) {
        struct timespec deadline = vel::JoinDeadline(timeout, seconds, microseconds);
        EXPECT_EQ(deadline.tv_sec, tvSec) << timeout << " " << seconds;
        EXPECT_EQ(deadline.tv_nsec, tvNsec) << timeout << " " << seconds;
    }
}

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

#include "threads/ThreadCompat.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdint.h>

#include <chrono>
#include <future>
#include <thread>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) && __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define ND_LEAKS_IGNORED_BEGIN() __lsan_disable()
#define ND_LEAKS_IGNORED_END() __lsan_enable()
#else
#define ND_LEAKS_IGNORED_BEGIN() ((void)0)
#define ND_LEAKS_IGNORED_END() ((void)0)
#endif

namespace {

using namespace std::chrono_literals;

// Long enough for a wrongly remembered SetEvent to release the wait, short
// enough to keep the suite quick.
constexpr auto kQuietPeriod = 150ms;
constexpr auto kReleaseLimit = 10s;

// Runs WaitForSingleObject on a thread of its own so that the test can watch
// it, and releases it with SetEvent (repeated: one that comes before the wait
// starts is lost) so that a failing test never hangs.
class Waiter {
public:
    Waiter(HANDLE event, DWORD milliseconds) : m_event(event) {
        m_done = m_result.get_future().share();
        m_thread = std::thread([this, milliseconds] {
            m_result.set_value(WaitForSingleObject(m_event, milliseconds));
        });
    }
    ~Waiter() {
        if (Release()) {
            m_thread.join();
        } else {
            m_thread.detach(); // still waiting: leave it rather than hang
        }
    }
    bool ReturnsWithin(std::chrono::milliseconds limit) {
        return m_done.wait_for(limit) == std::future_status::ready;
    }
    bool Release(BOOL (*set)(HANDLE) = SetEvent) {
        auto until = std::chrono::steady_clock::now() + kReleaseLimit;
        while (std::chrono::steady_clock::now() < until) {
            set(m_event);
            if (ReturnsWithin(5ms)) {
                return true;
            }
        }
        return false;
    }
    DWORD Result() { return m_done.get(); }

private:
    HANDLE m_event;
    std::promise<DWORD> m_result;
    std::shared_future<DWORD> m_done;
    std::thread m_thread;
};

class Event : public testing::TestWithParam<DWORD> {
protected:
    void SetUp() override { ASSERT_NE(m_event, nullptr); }
    void TearDown() override {
        if (m_closable) {
            EXPECT_TRUE(CloseHandle(m_event));
        }
    }
    // A waiter that never returned still uses the event: keep it alive then.
    void ReleaseAndExpectWoken(Waiter& waiter, BOOL (*set)(HANDLE) = SetEvent) {
        m_closable = waiter.Release(set);
        ASSERT_TRUE(m_closable) << "the wait was never released";
        EXPECT_EQ(waiter.Result(), 0u);
    }

    HANDLE m_event = WinCreateEvent(nullptr, TRUE, TRUE, "ignored");
    bool m_closable = true;
};

// Timed waits must behave like infinite ones: their deadline lies about
// a thousand times further ahead than the caller asked.
INSTANTIATE_TEST_SUITE_P(InfiniteAndTimed, Event, testing::Values(INFINITE, 1000u, 1u));

// Even created "signalled" and set by every means before the wait, an event
// remembers nothing; a set while waiting releases the wait.
TEST_P(Event, OnlyASetWhileWaitingReleases) {
    ASSERT_TRUE(SetEvent(m_event));
    ASSERT_TRUE(PulseEvent(m_event));
    ASSERT_TRUE(ResetEvent(m_event));
    Waiter waiter(m_event, GetParam());
    EXPECT_FALSE(waiter.ReturnsWithin(kQuietPeriod));
    ReleaseAndExpectWoken(waiter, GetParam() == 1 ? PulseEvent : SetEvent);
}

TEST(Event, StubsAnswerAtOnceAndNullHandlesAreRefused) {
    EXPECT_EQ(OpenEvent(0, FALSE, "any"), nullptr);
    HANDLE handles[2] = {WinCreateEvent(nullptr, FALSE, FALSE, nullptr), nullptr};
    EXPECT_EQ(WaitForMultipleObjects(2, handles, TRUE, INFINITE), 0u);
    CloseHandle(handles[0]);
    EXPECT_FALSE(SetEvent(nullptr));
    EXPECT_FALSE(CloseHandle(nullptr));
    EXPECT_EQ(WaitForSingleObject(nullptr, INFINITE), static_cast<DWORD>(EINVAL));
}

TEST(EventWaitDeadline, MillisecondsCountAsThousandsOfSeconds) {
    const std::pair<DWORD, time_t> cases[] = {
        // milliseconds, deadline from now = 1000
        {0, 1000},
        {1, 2000},
        {1000, 1001000},
        // The largest count whose product fits in 32 bits ...
        {4294967, 1000 + 4294967000},
        // ... and past it the product keeps its low 32 bits:
        // 4294968000 - 2^32 = 704 and 4294967294000 - 1000 * 2^32 = -2000.
        {4294968, 1704},
        {0xFFFFFFFEu, 1000 + 4294965296},
    };
    for (const auto& [milliseconds, deadline] : cases) {
        EXPECT_EQ(EventWaitDeadline(1000, milliseconds), deadline) << milliseconds;
    }
}

TEST(Interlocked, ReturnsNewValueOrPriorValue) {
    LONG x = 5;
    EXPECT_EQ(InterlockedIncrement(&x), 6);
    EXPECT_EQ(InterlockedDecrement(&x), 5);
    EXPECT_EQ(InterlockedExchange(&x, 9), 5);
    EXPECT_EQ(x, 9);
    EXPECT_EQ(InterlockedExchange(&x, 9), 9); // how callers see "no change"
    x = INT32_MAX;
    EXPECT_EQ(InterlockedIncrement(&x), INT32_MIN); // wraps, no overflow trap
}

TEST(Interlocked, ConcurrentUpdatesAreNeverLost) {
    constexpr int kRounds = 50000;
    LONG counter = 0;
    LONG exchanged = 0;
    auto work = [&] {
        for (int i = 0; i < kRounds; ++i) {
            InterlockedIncrement(&counter);
            InterlockedIncrement(&counter);
            InterlockedDecrement(&counter);
            InterlockedExchange(&exchanged, i);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(counter, 2 * kRounds);
    EXPECT_EQ(exchanged, kRounds - 1);
}

struct Started {
    std::promise<DWORD> threadId;
};

DWORD ReportAndLeave(LPVOID parameter) {
    // Nobody can join this thread: CreateThread returns no handle for it.
    pthread_detach(pthread_self());
    static_cast<Started*>(parameter)->threadId.set_value(GetCurrentThreadId());
    ExitThread(7);
}

TEST(CreateThread, StartedThreadYieldsNullHandle) {
    Started started;
    std::future<DWORD> threadId = started.threadId.get_future();
    DWORD id = 12345;
    // The started thread's handle is never freed, by design.
    ND_LEAKS_IGNORED_BEGIN();
    HANDLE handle = CreateThread(nullptr, 0, ReportAndLeave, &started, 0, &id);
    ND_LEAKS_IGNORED_END();
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(id, 12345u); // only a failed start writes the id
    ASSERT_EQ(threadId.wait_for(10s), std::future_status::ready) << "the thread never ran";
    EXPECT_NE(threadId.get(), GetCurrentThreadId());
}

TEST(GetCurrentThreadId, StableWithinAThreadAndDistinctAcrossThreads) {
    const DWORD mine = GetCurrentThreadId();
    EXPECT_EQ(GetCurrentThreadId(), mine);
    DWORD other = mine;
    std::thread([&] { other = GetCurrentThreadId(); }).join();
    EXPECT_NE(other, mine);
}

} // namespace

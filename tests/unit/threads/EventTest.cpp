#include "threads/ThreadCompat.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <chrono>
#include <future>
#include <thread>

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

TEST_P(Event, WaitIsReleasedOnlyBySetEventFromAnotherThread) {
    Waiter waiter(m_event, GetParam());
    EXPECT_FALSE(waiter.ReturnsWithin(kQuietPeriod));
    ReleaseAndExpectWoken(waiter);
}

TEST_P(Event, SetEventWithNoWaiterIsForgotten) {
    // Even created "signalled" and set by every means, nothing is remembered.
    ASSERT_TRUE(SetEvent(m_event));
    ASSERT_TRUE(PulseEvent(m_event));
    ASSERT_TRUE(ResetEvent(m_event));
    Waiter waiter(m_event, GetParam());
    EXPECT_FALSE(waiter.ReturnsWithin(kQuietPeriod));
    ReleaseAndExpectWoken(waiter);
}

TEST_P(Event, PulseEventWakesLikeSetEvent) {
    Waiter waiter(m_event, GetParam());
    ReleaseAndExpectWoken(waiter, PulseEvent);
}

TEST(Event, StubsAnswerAtOnce) {
    EXPECT_EQ(OpenEvent(0, FALSE, "any"), nullptr);
    HANDLE handles[2] = {WinCreateEvent(nullptr, FALSE, FALSE, nullptr), nullptr};
    EXPECT_EQ(WaitForMultipleObjects(2, handles, TRUE, INFINITE), 0u);
    EXPECT_EQ(WaitForMultipleObjects(0, nullptr, FALSE, 0), 0u);
    CloseHandle(handles[0]);
}

TEST(Event, NullHandleIsRefused) {
    EXPECT_FALSE(SetEvent(nullptr));
    EXPECT_FALSE(CloseHandle(nullptr));
    EXPECT_EQ(WaitForSingleObject(nullptr, INFINITE), static_cast<DWORD>(EINVAL));
}

TEST(EventWaitDeadline, MillisecondsCountAsThousandsOfSeconds) {
    struct Case {
        DWORD milliseconds;
        time_t deadline; // from now = 1000
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        EXPECT_EQ(EventWaitDeadline(1000, c.milliseconds), c.deadline) << c.milliseconds;
    }
}

} // namespace

#include "threads/ThreadCompat.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <chrono>
#include <future>
#include <thread>

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
    DWORD mine = GetCurrentThreadId();
    EXPECT_EQ(GetCurrentThreadId(), mine);
    DWORD first = 0;
    DWORD second = 0;
    std::thread([&] { first = GetCurrentThreadId(); }).join();
    std::thread([&] { second = GetCurrentThreadId(); }).join();
    EXPECT_NE(first, mine);
    EXPECT_NE(second, mine);
    EXPECT_NE(first, second);
}

} // namespace

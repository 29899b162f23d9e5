#include "threads/ThreadCompat.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) && __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define ND_LEAKS_IGNORED(...) (__lsan_disable(), __VA_ARGS__, __lsan_enable())
#else
#define ND_LEAKS_IGNORED(...) (__VA_ARGS__)
#endif

namespace {

using namespace std::chrono_literals;

// Created "signalled" and set before the wait, an event remembers nothing; a
// timed wait of 1 ms lasts until the event is set.
TEST(Event, RemembersNothingAndATimedWaitLastsUntilSet) {
    HANDLE event = WinCreateEvent(nullptr, TRUE, TRUE, "ignored");
    ASSERT_NE(event, nullptr);
    ASSERT_TRUE(SetEvent(event));
    ASSERT_TRUE(ResetEvent(event));
    auto result = std::make_shared<std::promise<DWORD>>();
    std::future<DWORD> done = result->get_future();
    std::thread waiter([event, result] { result->set_value(WaitForSingleObject(event, 1)); });
    EXPECT_EQ(done.wait_for(150ms), std::future_status::timeout);
    // Repeated: a set that comes before the wait starts is lost.
    for (int i = 0; i < 2000 && done.wait_for(5ms) != std::future_status::ready; ++i) {
        SetEvent(event);
    }
    if (done.wait_for(0s) != std::future_status::ready) {
        waiter.detach(); // still waiting on the event: leave both rather than hang
        FAIL() << "the wait was never released";
    }
    waiter.join();
    EXPECT_EQ(done.get(), 0u);
    EXPECT_TRUE(CloseHandle(event));
}

TEST(EventWaitDeadline, MillisecondsCountAsThousandsOfSeconds) {
    // Milliseconds, deadline from now = 1000; the product keeps its low 32 bits:
    // 4294968000 - 2^32 = 704 and 4294967294000 - 1000 * 2^32 = -2000.
    const std::pair<DWORD, time_t> cases[] = {
        {0, 1000},
        {1, 2000},
        {4294967, 1000 + 4294967000},
        {4294968, 1704},
        {0xFFFFFFFEu, 1000 + 4294965296},
    };
    for (const auto& [milliseconds, deadline] : cases) {
        EXPECT_EQ(EventWaitDeadline(1000, milliseconds), deadline) << milliseconds;
    }
}

DWORD ReportAndLeave(LPVOID started) {
    pthread_detach(pthread_self()); // nobody can join: CreateThread returns no handle
    static_cast<std::promise<DWORD>*>(started)->set_value(GetCurrentThreadId());
    ExitThread(7);
}

// The success test is inverted: a started thread yields a null handle.
TEST(CreateThread, StartedThreadYieldsNullHandle) {
    std::promise<DWORD> started;
    std::future<DWORD> threadId = started.get_future();
    DWORD id = 12345;
    HANDLE handle = nullptr; // the started thread's handle is never freed, by design
    ND_LEAKS_IGNORED(handle = CreateThread(nullptr, 0, ReportAndLeave, &started, 0, &id));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(id, 12345u); // only a failed start writes the id
    ASSERT_EQ(threadId.wait_for(10s), std::future_status::ready) << "the thread never ran";
    EXPECT_NE(threadId.get(), GetCurrentThreadId());
}

} // namespace

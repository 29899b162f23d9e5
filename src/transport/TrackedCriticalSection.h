// A CCriticalSection (still a plain non-recursive mutex) that records which
// thread holds it. The transport's two big locks are of this kind so that code
// reached both with and without them held (session hang-up during destruction
// or while a link's sessions are cleared) can see which case it is in and take
// only what it lacks, instead of blocking on itself. Any thread; the owner
// field is atomic.
#pragma once

#include <atomic>
#include <thread>

#include "threads/velthread.h"

namespace vel {

class CTrackedCriticalSection : public CCriticalSection {
public:
    // Locking a section this thread already holds would block for ever: it
    // aborts with a message instead.
    BOOL Lock(DWORD dwTimeout = INFINITE) override;
    BOOL Unlock() override;
    bool IsHeldByCurrentThread() const {
        return m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

private:
    std::atomic<std::thread::id> m_owner{};
};

// Takes the section unless this thread holds it already; releases only what it
// took.
class CLockUnlessHeld {
public:
    explicit CLockUnlessHeld(CTrackedCriticalSection& section)
        : m_lock(&section, !section.IsHeldByCurrentThread()) {}
    bool Acquired() { return m_lock.IsLocked() != FALSE; }

private:
    CSingleLock m_lock;
};

} // namespace vel

// Lock and thread classes of the transport. CCriticalSection is a plain
// non-recursive mutex: a thread must never lock one it already holds.
// velthread objects are driven by their owner's thread; the body runs on the
// detached thread it starts.
#pragma once

#include <pthread.h>

#include <atomic>

#include "threads/ThreadCompat.h"

namespace vel {

class CSyncObject {
public:
    virtual ~CSyncObject() {}
    virtual BOOL Lock(DWORD dwTimeout = INFINITE) = 0;
    virtual BOOL Unlock() = 0;
};

class CCriticalSection : public CSyncObject {
public:
    CCriticalSection();
    ~CCriticalSection() override;
    BOOL Lock(DWORD dwTimeout = INFINITE) override;
    BOOL Unlock() override;

    CRITICAL_SECTION m_crit_sec;
};

class CSingleLock {
public:
    CSingleLock(CSyncObject* pObject, BOOL bInitialLock = FALSE);
    ~CSingleLock();
    BOOL Lock(DWORD dwTimeout = INFINITE);
    BOOL Unlock();
    BOOL IsLocked() { return m_bAcquired; }

    CSyncObject* m_pObject;
    BOOL m_bAcquired;
};

class velthread {
public:
    velthread(void* (*thread_function)(void*), void* arg);
    virtual ~velthread();

    int create();
    void wait_for_exit();
    void quit() { m_quit = true; }
    void kill();
    void try_to_join_then_kill(long timeout);
    void* thread_function();

    std::atomic<bool> m_quit; // set by the owner, polled by the body
    void* (*m_thread_function)(void*);
    void* m_thread_arg;
    pthread_t m_pthread;
    pthread_cond_t m_thread_has_exited;
};

// Start routine handed to pthread_create: runs p->thread_function().
void* ThreadFunction(void* p);

// The deadline try_to_join_then_kill computes from a time-out and the wall
// clock (seconds, microseconds), exposed so it can be checked on its own.
struct timespec JoinDeadline(long timeout, unsigned long seconds, unsigned long microseconds);

} // namespace vel

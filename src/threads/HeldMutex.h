// Scoped lock of a per-call WithMutex, for the waits of this layer. Used only
// by the thread that owns the WithMutex.
#pragma once

#include "threads/ThreadCompat.h"

// Waiting on a condition variable needs the mutex held. When a cancelled wait
// unwinds, the wait hands the mutex back locked; this releases it before the
// WithMutex is destroyed.
class HeldMutex {
public:
    explicit HeldMutex(WithMutex& m) : m_mutex(m) { pthread_mutex_lock(m_mutex); }
    ~HeldMutex() { pthread_mutex_unlock(m_mutex); }
    HeldMutex(const HeldMutex&) = delete;
    HeldMutex& operator=(const HeldMutex&) = delete;

private:
    WithMutex& m_mutex;
};

#include "transport/TrackedCriticalSection.h"

#include <stdio.h>
#include <stdlib.h>

namespace vel {

BOOL CTrackedCriticalSection::Lock(DWORD dwTimeout) {
    if (IsHeldByCurrentThread()) {
        fprintf(stderr, "CTrackedCriticalSection: lock taken twice by one thread\n");
        abort();
    }
    CCriticalSection::Lock(dwTimeout);
    m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return TRUE;
}

BOOL CTrackedCriticalSection::Unlock() {
    m_owner.store(std::thread::id(), std::memory_order_relaxed);
    return CCriticalSection::Unlock();
}

} // namespace vel

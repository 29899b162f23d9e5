#include "threads/ThreadCompat.h"

#include <errno.h>
#include <math.h>

#include <atomic>
#include <new>

#include "threads/HeldMutex.h"

WithMutex::WithMutex() {
    pthread_mutex_init(&m.mutex, nullptr);
}

WithMutex::~WithMutex() {
    pthread_mutex_destroy(&m.mutex);
}

namespace {

pthread_cond_t* AsCondition(HANDLE h) {
    return static_cast<pthread_cond_t*>(h);
}

// What CreateThread hands its thread: the Win32-style routine cannot be
// given to pthread_create as it is, its signature differs.
struct StartRequest {
    LPTHREAD_START_ROUTINE start;
    LPVOID parameter;
};

void* RunStartRequest(void* p) {
    StartRequest request = *static_cast<StartRequest*>(p);
    delete static_cast<StartRequest*>(p);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(request.start(request.parameter)));
}

} // namespace

time_t EventWaitDeadline(time_t now, DWORD dwMilliseconds) {
    // The product reaches about 4.3e12: go through 64 bits, then keep the
    // low 32 bits, so that the conversion is always defined.
    uint64_t scaled = static_cast<uint64_t>(ceil(dwMilliseconds * 1000.0));
    return now + static_cast<DWORD>(scaled);
}

HANDLE WinCreateEvent(void*, BOOL, BOOL, const char*) {
    pthread_cond_t* cond = new (std::nothrow) pthread_cond_t;
    if (cond != nullptr) {
        pthread_cond_init(cond, nullptr);
    }
    return cond;
}

BOOL SetEvent(HANDLE hEvent) {
    if (hEvent == nullptr) {
        return FALSE;
    }
    return pthread_cond_broadcast(AsCondition(hEvent)) == 0;
}

BOOL PulseEvent(HANDLE hEvent) {
    return SetEvent(hEvent);
}

BOOL ResetEvent(HANDLE) {
    return TRUE;
}

HANDLE OpenEvent(DWORD, BOOL, const char*) {
    return nullptr;
}

BOOL CloseHandle(HANDLE hHandle) {
    if (hHandle == nullptr) {
        return FALSE;
    }
    pthread_cond_destroy(AsCondition(hHandle));
    delete AsCondition(hHandle);
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    if (hHandle == nullptr) {
        return EINVAL;
    }
    // A fresh mutex per call: the event itself remembers nothing, so only a
    // SetEvent that comes while this call waits wakes it.
    WithMutex local;
    HeldMutex held(local);
    if (dwMilliseconds == INFINITE) {
        return pthread_cond_wait(AsCondition(hHandle), local);
    }
    struct timespec deadline;
    deadline.tv_sec = EventWaitDeadline(time(nullptr), dwMilliseconds);
    deadline.tv_nsec = 0;
    return pthread_cond_timedwait(AsCondition(hHandle), local, &deadline);
}

DWORD WaitForMultipleObjects(DWORD, const HANDLE*, BOOL, DWORD) {
    return 0;
}

void InitializeCriticalSection(CRITICAL_SECTION* cs) {
    pthread_mutex_init(&cs->mutex, nullptr);
}

void EnterCriticalSection(CRITICAL_SECTION* cs) {
    pthread_mutex_lock(&cs->mutex);
}

void LeaveCriticalSection(CRITICAL_SECTION* cs) {
    pthread_mutex_unlock(&cs->mutex);
}

void DeleteCriticalSection(CRITICAL_SECTION* cs) {
    pthread_mutex_destroy(&cs->mutex);
}

// The per-call mutex excludes nobody; the atomic operation is what keeps
// concurrent callers from losing updates.
LONG InterlockedIncrement(LONG* target) {
    WithMutex local;
    HeldMutex held(local);
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedDecrement(LONG* target) {
    WithMutex local;
    HeldMutex held(local);
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedExchange(LONG* target, LONG value) {
    WithMutex local;
    HeldMutex held(local);
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}

HANDLE CreateThread(void*, size_t, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter, DWORD,
                    DWORD* lpThreadId) {
    pthread_t* thread = new (std::nothrow) pthread_t();
    StartRequest* request = new (std::nothrow) StartRequest{lpStartAddress, lpParameter};
    if (thread == nullptr || request == nullptr) {
        delete thread;
        delete request;
        return nullptr;
    }
    // The test is inverted on purpose: callers get a handle only when the
    // thread did not start, and the started thread's handle is never freed.
    if (pthread_create(thread, nullptr, RunStartRequest, request) != 0) {
        delete request;
        if (lpThreadId != nullptr) {
            *lpThreadId = static_cast<DWORD>(*thread);
        }
        return thread;
    }
    return nullptr;
}

void ExitThread(DWORD dwExitCode) {
    pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(dwExitCode)));
}

DWORD GetCurrentThreadId(void) {
    // pthread_t is wider than 32 bits here; truncating it could give two
    // threads one id, so each thread draws a number of its own instead.
    static std::atomic<DWORD> gNextThreadId{1};
    thread_local DWORD id = gNextThreadId.fetch_add(1);
    return id;
}

// Win32-style vocabulary over POSIX threads: events (bare condition
// variables that remember nothing), critical sections, interlocked helpers and
// thread handles. Any thread may call any function; an event has no lock of
// its own (each wait brings a fresh mutex), and a CRITICAL_SECTION guards
// whatever its caller says.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

typedef int BOOL;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef void* HANDLE;
typedef void* LPVOID;
typedef DWORD (*LPTHREAD_START_ROUTINE)(LPVOID);

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#define INFINITE 0xFFFFFFFFu

typedef union {
    pthread_mutex_t mutex;
} CRITICAL_SECTION;

// A per-call mutex; used where the layer needs a mutex argument but no
// exclusion (the waits and the interlocked helpers).
struct WithMutex {
    CRITICAL_SECTION m;
    WithMutex();
    ~WithMutex();
    WithMutex(const WithMutex&) = delete;
    WithMutex& operator=(const WithMutex&) = delete;
    operator pthread_mutex_t&() { return m.mutex; }
    operator pthread_mutex_t*() { return &m.mutex; }
};

extern "C" {
HANDLE WinCreateEvent(void* lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                      const char* lpName);
BOOL SetEvent(HANDLE hEvent);
BOOL PulseEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);
HANDLE OpenEvent(DWORD dwDesiredAccess, BOOL bInheritHandle, const char* lpName);
BOOL CloseHandle(HANDLE hHandle);
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll,
                             DWORD dwMilliseconds);

void InitializeCriticalSection(CRITICAL_SECTION* cs);
void EnterCriticalSection(CRITICAL_SECTION* cs);
void LeaveCriticalSection(CRITICAL_SECTION* cs);
void DeleteCriticalSection(CRITICAL_SECTION* cs);

LONG InterlockedIncrement(LONG* target);
LONG InterlockedDecrement(LONG* target);
LONG InterlockedExchange(LONG* target, LONG value);

HANDLE CreateThread(void* lpThreadAttributes, size_t dwStackSize,
                    LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                    DWORD dwCreationFlags, DWORD* lpThreadId);
[[noreturn]] void ExitThread(DWORD dwExitCode);
DWORD GetCurrentThreadId(void);
}

// The absolute deadline, in seconds, of WaitForSingleObject's timed wait: the
// milliseconds are scaled by 1000 and added to the seconds of `now`, so the
// wait in practice lasts until the event is set. Exposed for tests.
time_t EventWaitDeadline(time_t now, DWORD dwMilliseconds);

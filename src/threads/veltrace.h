// printf-style trace into the event log; any thread, serialised by g_traceLock.
#pragma once

#include "threads/velthread.h"

namespace vel {

extern CCriticalSection g_traceLock;

void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace vel

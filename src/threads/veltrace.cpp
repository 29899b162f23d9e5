#include "threads/veltrace.h"

#include <stdarg.h>
#include <stdio.h>

#include <string>

#include "log/Log.h"
#include "threads/VelAssert.h"

namespace vel {

CCriticalSection g_traceLock;

void trace(const char* format, ...) {
    CSingleLock hold(&g_traceLock, TRUE);
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    int nBuf = vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    VEL_ASSERT(nBuf >= 0, "nBuf >= 0", "veltrace");
    Log(std::string(buffer));
}

} // namespace vel

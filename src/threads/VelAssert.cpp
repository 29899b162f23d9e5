#include "threads/VelAssert.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

namespace vel {

void AssertionFailed(const char* text, const char* source, unsigned line, const char* function) {
    fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
            source, line, function, text);
    fflush(stderr);
    abort();
}

} // namespace vel

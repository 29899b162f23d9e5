// A bare data frame's body (the "NC_DATA" block form), as the dispatcher hands
// it to ProcessNCData: the body bytes and their count, a NUL after them.
#include <stdlib.h>
#include <string.h>

#include "FuzzLink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20 || ndfuzz::WouldHitRequiredYencAbort(data, size)) {
        return -1;
    }
    char* body = static_cast<char*>(malloc(size + 1));
    memcpy(body, data, size);
    body[size] = '\0';

    ndfuzz::FuzzLink fuzz;
    if (fuzz.Ctl().ProcessNCData(body, int(size), fuzz.Link()) != 1) {
        __builtin_trap(); // every frame is consumed
    }
    fuzz.Drain();
    free(body);
    return 0;
}

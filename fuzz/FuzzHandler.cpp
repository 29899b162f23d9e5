// One command handler's body: the bytes after the "CMD=" line, handed to the
// handler the way the dispatcher does (a view of the body, NUL after it).
// ND_FUZZ_HANDLER names the CHTCTL member; each handler is its own target.
#include <stdlib.h>
#include <string.h>

#include "FuzzLink.h"

#ifndef ND_FUZZ_HANDLER
#error "ND_FUZZ_HANDLER must name the handler"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return -1;
    }
    char* body = static_cast<char*>(malloc(size + 1));
    memcpy(body, data, size);
    body[size] = '\0';
    tagHTTP_BUF view = {int(size) + 1, int(size), 0, body};

    ndfuzz::FuzzLink fuzz;
    fuzz.Ctl().ND_FUZZ_HANDLER(view, fuzz.Link());
    fuzz.Drain();
    free(body);
    return 0;
}

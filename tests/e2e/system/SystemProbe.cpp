// What the booted-system tests compute with the project's own code, run on
// the host:
//   system_probe wire-key KEY   the key's wire form (as the gateway sees it)
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "transport/gengsk.h"

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "wire-key") == 0) {
        char* gsk = GenWireGsk(argv[2]);
        std::printf("%s\n", gsk != nullptr ? gsk : "");
        std::free(gsk);
        return gsk != nullptr ? 0 : 1;
    }
    std::fprintf(stderr, "usage: system_probe wire-key KEY\n");
    return 2;
}

// What the booted-system tests compute with the project's own code, run on
// the host:
//   system_probe wire-key KEY        the key's wire form (as the gateway sees it)
//   system_probe button WIDTH HEIGHT where to click a normal notification window
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "WindowLayout.h"
#include "transport/gengsk.h"

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "wire-key") == 0) {
        char* gsk = GenWireGsk(argv[2]);
        std::printf("%s\n", gsk != nullptr ? gsk : "");
        std::free(gsk);
        return gsk != nullptr ? 0 : 1;
    }
    if (argc == 4 && std::strcmp(argv[1], "button") == 0) {
        const notifymsg::Rect button =
            notifymsg::ButtonRect(std::atoi(argv[2]), std::atoi(argv[3]), false);
        std::printf("%d %d\n", button.x + button.width / 2, button.y + button.height / 2);
        return 0;
    }
    std::fprintf(stderr, "usage: system_probe wire-key KEY | button WIDTH HEIGHT\n");
    return 2;
}

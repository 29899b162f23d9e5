#include "app/corvanenotify.h"

int main(int argc, char** argv) {
    return NotifyMain(argc, argv);
}

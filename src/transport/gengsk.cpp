#include "transport/gengsk.h"

#include <string.h>

#include "transport/MD5.h"
#include "transport/yenc.h"

extern "C" char* GenWireGsk(const char* key) {
    if (key == nullptr) {
        return nullptr;
    }
    unsigned char digest[16];
    vel::MD5Digest(key, strlen(key), digest);
    return Encode64(digest, sizeof digest);
}

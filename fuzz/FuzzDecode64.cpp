// The base-64 decoder on any text, and the round trip of any bytes through the
// encoder and back (the decoded form carries the zero bits of a partial last
// group as extra zero bytes).
#include <stdlib.h>
#include <string.h>

#include <string>

#include "transport/yenc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return -1;
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    int length = -1;
    unsigned char* decoded = Decode64(text.c_str(), &length);
    const size_t textLength = strlen(text.c_str());
    if (decoded == nullptr || length < 0 || size_t(length) > textLength * 3 / 4) {
        __builtin_trap();
    }
    volatile unsigned sum = 0;
    for (int i = 0; i < length; ++i) {
        sum = sum + decoded[i];
    }
    free(decoded);

    char* encoded = Encode64(data, int(size));
    if (encoded == nullptr || strlen(encoded) != 4 * ((size + 2) / 3)) {
        __builtin_trap();
    }
    unsigned char* back = Decode64(encoded, &length);
    if (size_t(length) != 3 * ((size + 2) / 3) || memcmp(back, data, size) != 0) {
        __builtin_trap();
    }
    for (size_t i = size; i < size_t(length); ++i) {
        if (back[i] != 0) {
            __builtin_trap();
        }
    }
    free(back);
    free(encoded);
    return 0;
}

#include "config/stristr.h"

#include "config/StringUtilities.h"

extern "C" const char* stristr(const char* haystack, const char* needle) {
    if (needle == nullptr || *needle == '\0') {
        return haystack;
    }
    if (haystack == nullptr) {
        return nullptr;
    }
    for (const char* start = haystack; *start != '\0'; ++start) {
        const char* h = start;
        const char* n = needle;
        while (*n != '\0' && *h != '\0' && vel::AsciiLower(*h) == vel::AsciiLower(*n)) {
            ++h;
            ++n;
        }
        if (*n == '\0') {
            return start;
        }
    }
    return nullptr;
}

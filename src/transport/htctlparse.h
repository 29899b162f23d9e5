// Number parsing for values taken from gateway messages: decimal with the C
// library's leniency (leading blanks, sign, stops at the first non-digit) but
// clamped instead of overflowing. Re-entrant.
#pragma once

#include <limits.h>
#include <stdlib.h>

namespace vel {

inline int ParseDecimal(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    const long long value = strtoll(text, nullptr, 10);
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : int(value);
}

inline unsigned long ParseUnsigned(const char* text) {
    return text != nullptr ? strtoul(text, nullptr, 10) : 0;
}

} // namespace vel

#include "transport/password.h"

#include <stdint.h>
#include <string.h>

// Only the low byte of the running sum ever reaches the output, so it is kept
// modulo 256 in unsigned arithmetic.
namespace {

// The 16-bit right rotation of the shift register, with the sign-propagating
// shift that a negative int seed gets.
unsigned RotateSeed(unsigned s) {
    const unsigned sign = s & 0x80000000u;
    return ((s & 1u) << 15) | (s >> 1) | sign;
}

// Clamps a strlen-derived count to size - 1, as both directions do.
int ClampCount(size_t length, int size) {
    return length < size_t(size) ? int(length) : size - 1;
}

} // namespace

extern "C" void _EncryptPassword(int seed, const char* plain, char* out, int size) {
    if (size <= 0) {
        return;
    }
    int n = ClampCount(strlen(plain), size);
    // Two letters per character plus the NUL must fit the output.
    if (2 * int64_t(n) + 1 > size) {
        n = (size - 1) / 2;
    }
    unsigned acc = unsigned(n) + unsigned(seed) + 10u;
    unsigned s = unsigned(seed);
    for (int i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(plain[i]);
        const unsigned char v = static_cast<unsigned char>(c + acc);
        // The high nibble is shifted as a signed byte: bytes from 0x80 on give
        // "9" to "@" instead of "I" to "P".
        const unsigned high = v >> 4;
        out[2 * i] = static_cast<char>(65 + high - (high >= 8 ? 16 : 0));
        out[2 * i + 1] = static_cast<char>(65 + (v & 15));
        s = RotateSeed(s);
        acc += s + static_cast<unsigned>(static_cast<signed char>(c));
    }
    out[2 * n] = '\0';
}

extern "C" void _DecryptPassword(int seed, const char* cipher, char* out, int size) {
    if (size <= 0) {
        return;
    }
    const int n = ClampCount(strlen(cipher) / 2, size);
    unsigned acc = unsigned(n) + unsigned(seed) + 10u;
    unsigned s = unsigned(seed);
    for (int i = 0; i < n; ++i) {
        const unsigned h = static_cast<unsigned char>(cipher[2 * i]);
        const unsigned l = static_cast<unsigned char>(cipher[2 * i + 1]);
        // 81 is (16 * 'A' + 'A') mod 256.
        const unsigned char byte = static_cast<unsigned char>(16 * h + l - 81 - acc);
        out[i] = static_cast<char>(byte);
        s = RotateSeed(s);
        acc += s + static_cast<unsigned>(static_cast<signed char>(byte));
    }
    out[n] = '\0';
}

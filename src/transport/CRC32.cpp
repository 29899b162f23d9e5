#include "transport/CRC32.h"

#include <stddef.h>

#include <array>

namespace {

constexpr int kSlices = 16;
using CrcTables = std::array<std::array<uint32_t, 256>, kSlices>;

// kCrcTables[0] is the standard byte-at-a-time table; kCrcTables[k][b] is the
// CRC of byte b followed by k zero bytes, so that eight bytes can be folded
// in with eight independent look-ups instead of eight dependent ones
// ("slicing-by-8"). The result is the same as one byte at a time.
constexpr CrcTables MakeCrcTables() {
    CrcTables tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        tables[0][i] = c;
    }
    for (uint32_t i = 0; i < 256; ++i) {
        for (int k = 1; k < kSlices; ++k) {
            const uint32_t previous = tables[k - 1][i];
            tables[k][i] = tables[0][previous & 0xFF] ^ (previous >> 8);
        }
    }
    return tables;
}

constexpr CrcTables kCrcTables = MakeCrcTables();

// Little-endian, whatever the host; compilers make this one load on x86.
inline uint32_t Load32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

} // namespace

extern "C" uint32_t CRC32_Update(uint32_t crc, const void* p, int n) {
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    size_t left = n > 0 ? size_t(n) : 0;
    const auto& t = kCrcTables;
    for (; left >= kSlices; left -= kSlices, bytes += kSlices) {
        const uint32_t w0 = crc ^ Load32(bytes);
        const uint32_t w1 = Load32(bytes + 4);
        const uint32_t w2 = Load32(bytes + 8);
        const uint32_t w3 = Load32(bytes + 12);
        crc = t[15][w0 & 0xFF] ^ t[14][(w0 >> 8) & 0xFF] ^ t[13][(w0 >> 16) & 0xFF] ^
              t[12][w0 >> 24] ^ t[11][w1 & 0xFF] ^ t[10][(w1 >> 8) & 0xFF] ^
              t[9][(w1 >> 16) & 0xFF] ^ t[8][w1 >> 24] ^ t[7][w2 & 0xFF] ^ t[6][(w2 >> 8) & 0xFF] ^
              t[5][(w2 >> 16) & 0xFF] ^ t[4][w2 >> 24] ^ t[3][w3 & 0xFF] ^ t[2][(w3 >> 8) & 0xFF] ^
              t[1][(w3 >> 16) & 0xFF] ^ t[0][w3 >> 24];
    }
    for (; left > 0; --left, ++bytes) {
        crc = t[0][(crc ^ *bytes) & 0xFF] ^ (crc >> 8);
    }
    return crc;
}

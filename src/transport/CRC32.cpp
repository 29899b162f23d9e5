#include "transport/CRC32.h"

#include <array>

namespace {

constexpr std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

} // namespace

extern "C" uint32_t CRC32_Update(uint32_t crc, const void* p, int n) {
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    for (int i = 0; i < n; ++i) {
        crc = kCrcTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    }
    return crc;
}

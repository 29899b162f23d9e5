#include "PngFile.h"

#include "transport/CRC32.h"

#include <algorithm>
#include <fstream>

namespace display_e2e {

namespace {

constexpr size_t kMaxStoredBlock = 65535;

void Put32(std::string& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += char((value >> shift) & 0xFF);
    }
}

void Chunk(std::string& png, const char* type, const std::string& data) {
    std::string body = std::string(type, 4) + data;
    Put32(png, uint32_t(data.size()));
    png += body;
    Put32(png, CRC32_Update(0xFFFFFFFFu, body.data(), int(body.size())) ^ 0xFFFFFFFFu);
}

// A zlib stream of stored (uncompressed) deflate blocks.
std::string Zlib(const std::string& raw) {
    std::string out = "\x78\x01";
    size_t pos = 0;
    do {
        const size_t n = std::min(kMaxStoredBlock, raw.size() - pos);
        const bool last = pos + n == raw.size();
        out += char(last ? 1 : 0);
        out += char(n & 0xFF);
        out += char(n >> 8);
        out += char(~n & 0xFF);
        out += char((~n >> 8) & 0xFF);
        out.append(raw, pos, n);
        pos += n;
    } while (pos < raw.size());
    uint32_t a = 1;
    uint32_t b = 0;
    for (unsigned char c : raw) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    Put32(out, (b << 16) | a);
    return out;
}

} // namespace

bool WritePng(const std::string& path, int width, int height, const std::vector<uint8_t>& rgb) {
    if (width <= 0 || height <= 0 || rgb.size() != size_t(width) * size_t(height) * 3) {
        return false;
    }
    std::string raw;
    raw.reserve(rgb.size() + size_t(height));
    for (int y = 0; y < height; ++y) {
        raw += '\0'; // filter: none
        raw.append(reinterpret_cast<const char*>(&rgb[size_t(y) * size_t(width) * 3]),
                   size_t(width) * 3);
    }
    std::string header;
    Put32(header, uint32_t(width));
    Put32(header, uint32_t(height));
    header += std::string("\x08\x02\x00\x00\x00", 5); // 8-bit RGB, no interlace
    std::string png = "\x89PNG\r\n\x1a\n";
    Chunk(png, "IHDR", header);
    Chunk(png, "IDAT", Zlib(raw));
    Chunk(png, "IEND", std::string());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(png.data(), std::streamsize(png.size()));
    return bool(file);
}

} // namespace display_e2e

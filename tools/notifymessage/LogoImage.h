// The large logo: binary Netpbm images (P6 colour, P5 grey), the formats an
// admin can produce with any image tool and that need no library. Anything
// else is refused and the window shows no logo. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace notifymsg {

constexpr int kMaxLogoSide = 4096;
constexpr size_t kMaxLogoFileBytes = 64 * 1024 * 1024;

struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb; // width * height * 3 bytes, rows top to bottom
};

bool ParseNetpbm(const std::string& data, RgbImage& image, std::string& error);
// Reads a regular file only (never blocks on a FIFO or device).
bool LoadLogo(const std::string& path, RgbImage& image, std::string& error);
// Scaled down (nearest pixel, aspect kept) to fit a box; never enlarged.
RgbImage ScaleToFit(const RgbImage& image, int boxWidth, int boxHeight);

} // namespace notifymsg

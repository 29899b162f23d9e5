// Writes RGB images as PNG files (uncompressed deflate: test artefacts only).
// Re-entrant.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace display_e2e {

bool WritePng(const std::string& path, int width, int height, const std::vector<uint8_t>& rgb);

} // namespace display_e2e

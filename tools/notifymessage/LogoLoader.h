// The logo (LARGE_LOGO_PATH) through gdk-pixbuf: PNG, JPEG, GIF, SVG, PPM/PGM
// and whatever else the installed loaders read, scaled down to fit a box with
// its aspect kept. The file is another party's: no blocking open, regular
// files only, bounded bytes, pixels and time. Single-threaded.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <string>

namespace notifymsg {

constexpr size_t kMaxLogoFileBytes = 16 * 1024 * 1024;
// An image declaring more than this is refused before any pixel is stored.
constexpr long long kMaxLogoPixels = 40LL * 1000 * 1000;
constexpr int kMaxLogoSide = 16384;
constexpr int kLogoDecodeMs = 3000;

// A new pixbuf no larger than maxSide on either side, or null with the reason.
GdkPixbuf* LoadLogo(const std::string& path, int maxSide, std::string& error);

// The pixbuf scaled down (never up) to fit boxSide, aspect kept; a new ref.
GdkPixbuf* FitLogo(GdkPixbuf* logo, int boxSide);

} // namespace notifymsg

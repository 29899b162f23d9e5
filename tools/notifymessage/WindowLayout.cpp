#include "WindowLayout.h"

#include <algorithm>

namespace notifymsg {

Rect NormalWindowRect(int screenWidth, int screenHeight, int windowOrder) {
    Rect window;
    window.width = std::max(1, std::min(kWindowWidth, screenWidth - 2 * kScreenMargin));
    window.height = std::max(1, std::min(kWindowHeight, screenHeight - 2 * kScreenMargin));
    const int rows =
        std::max(1, (screenHeight - 2 * kScreenMargin + kWindowGap) / (window.height + kWindowGap));
    const int columns =
        std::max(1, (screenWidth - 2 * kScreenMargin + kWindowGap) / (window.width + kWindowGap));
    const int slot = std::max(0, windowOrder) % (rows * columns);
    const int cascade = (std::max(0, windowOrder) / (rows * columns)) * kCascadeStep;
    const int column = slot / rows;
    const int row = slot % rows;
    window.x =
        screenWidth - kScreenMargin - window.width - column * (window.width + kWindowGap) - cascade;
    window.y = kScreenMargin + row * (window.height + kWindowGap) + cascade;
    window.x = std::max(0, window.x);
    window.y = std::max(0, std::min(window.y, screenHeight - window.height));
    return window;
}

int MaxWindowHeight(int screenHeight, int top) {
    const int twoThirds = screenHeight * 2 / 3;
    return std::max(1, std::min(twoThirds, screenHeight - kScreenMargin - top));
}

} // namespace notifymsg

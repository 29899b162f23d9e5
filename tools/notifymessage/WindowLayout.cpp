#include "WindowLayout.h"

#include <algorithm>

namespace notifymsg {

namespace {

int Padding(int windowWidth, bool large) {
    return large ? std::max(24, windowWidth / 10) : 14;
}

int Gap(bool large) {
    return large ? 24 : 10;
}

} // namespace

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

int LogoBoxSide(int windowHeight, bool large) {
    return large ? std::min(256, windowHeight / 3) : 64;
}

Rect ButtonRect(int windowWidth, int windowHeight, bool large) {
    Rect button;
    const int padding = Padding(windowWidth, large);
    button.width = std::min(large ? 240 : 140, std::max(1, windowWidth - 2 * padding));
    button.height = large ? 56 : 32;
    button.x = (windowWidth - button.width) / 2;
    button.y = std::max(0, windowHeight - padding - button.height);
    return button;
}

ContentLayout LayoutContent(int windowWidth, int windowHeight, bool large, int captionHeight,
                            int logoWidth, int logoHeight) {
    ContentLayout layout;
    const int padding = Padding(windowWidth, large);
    const int gap = Gap(large);
    const int inner = std::max(0, windowWidth - 2 * padding);
    layout.caption = {padding, padding, inner, captionHeight};
    layout.button = ButtonRect(windowWidth, windowHeight, large);

    const int top = padding + captionHeight + gap;
    const int height = std::max(0, layout.button.y - gap - top);
    int textX = padding;
    if (logoWidth > 0 && logoHeight > 0) {
        layout.logo = {padding, top, logoWidth, std::min(logoHeight, height)};
        textX += logoWidth + gap;
    }
    layout.text = {textX, top, std::max(0, windowWidth - padding - textX), height};
    return layout;
}

} // namespace notifymsg

// Where a normal window goes: the slots given by WINDOW_ORDER tile the
// monitor from the top-right corner downwards, then the next column to the
// left, so that stacked notifications do not cover each other; only a monitor
// too small for every slot makes later slots cascade over earlier ones. A
// window whose text needs more room than its slot grows downwards, up to two
// thirds of the monitor's height, and scrolls beyond. Pure functions.
#pragma once

namespace notifymsg {

struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

constexpr int kWindowWidth = 420;
constexpr int kWindowHeight = 192; // with a window manager's frame
constexpr int kScreenMargin = 16;
constexpr int kWindowGap = 8;
constexpr int kCascadeStep = 24;

// The slot (0 .. 9) of a normal window on a monitor of this size, relative to
// the monitor's top-left corner.
Rect NormalWindowRect(int screenWidth, int screenHeight, int windowOrder);

// The tallest a window may grow: about two thirds of the monitor, and never
// past its bottom edge from this top.
int MaxWindowHeight(int screenHeight, int top);

} // namespace notifymsg

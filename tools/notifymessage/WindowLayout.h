// Where the window goes on the screen and where its parts go inside it. Normal
// windows have one fixed size so that the slots given by WINDOW_ORDER tile the
// screen without overlapping: from the top-right corner downwards, then the
// next column to the left; only a screen too small for every slot makes later
// slots cascade over earlier ones. Pure functions; single-threaded.
#pragma once

namespace notifymsg {

struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool Contains(int px, int py) const {
        return px >= x && py >= y && px < x + width && py < y + height;
    }
};

constexpr int kWindowWidth = 420;
constexpr int kWindowHeight = 180;
constexpr int kScreenMargin = 16;
constexpr int kWindowGap = 8;
constexpr int kCascadeStep = 24;

// The normal window for a slot (0 .. 9) on a screen of this size.
Rect NormalWindowRect(int screenWidth, int screenHeight, int windowOrder);

// Parts of the window's content. "large" is the full-screen look.
struct ContentLayout {
    Rect caption;
    Rect logo; // empty when there is no logo
    Rect text;
    Rect button;
};

// The logo box's side for this look and window height.
int LogoBoxSide(int windowHeight, bool large);
Rect ButtonRect(int windowWidth, int windowHeight, bool large);
ContentLayout LayoutContent(int windowWidth, int windowHeight, bool large, int captionHeight,
                            int logoWidth, int logoHeight);

} // namespace notifymsg

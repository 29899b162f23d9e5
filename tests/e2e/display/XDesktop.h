// Xvfb in the sandbox as "/usr/bin/X :0 -auth <file>" (as the daemon looks
// for it), its authority file owned by the desktop user, and probes. Xlib
// stays out of this header: its macros clash with GoogleTest's names.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct _XDisplay;

namespace display_e2e {

using WindowId = unsigned long;

constexpr const char* kDesktopUser = "nobody";
constexpr const char* kAuthorityPath = "/run/nd-display/xauth/A:0-display";
constexpr int kScreenWidth = 1280;
constexpr int kScreenHeight = 1024;

struct Geometry {
    int x = 0, y = 0, width = 0, height = 0;
};

struct Screenshot {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    size_t CountIn(const Geometry& part, bool (*test)(uint8_t r, uint8_t g, uint8_t b)) const;
};

class XDesktop {
public:
    ~XDesktop();
    std::string Start(); // what went wrong, or ""
    // Viewable top-level windows of a process (pid 0: of any that names itself).
    std::vector<WindowId> WindowsOf(pid_t pid);
    WindowId WaitForWindow(pid_t pid, int timeoutMs); // 0 after the time-out
    pid_t PidOf(WindowId window);                     // its _NET_WM_PID
    Geometry GeometryOf(WindowId window);
    // With a name, also saved (binary PPM) in artefacts/ under the build tree.
    Screenshot Capture(const Geometry& area, const std::string& name = "");
    // xdotool moves the pointer; true once the server has it there, over `window`.
    bool MovePointer(int rootX, int rootY, WindowId window);
    bool SetButton1(bool down); // xdotool presses or releases button 1 where the pointer is
    std::string PointerState(); // where the server has the pointer, for failure messages

private:
    pid_t m_server = -1;
    _XDisplay* m_display = nullptr;
};

} // namespace display_e2e

// A real X server for the display tests, inside the sandbox: Xvfb started as
// "/usr/bin/X :0 -auth <file>" (so the daemon's X-server lookup finds it), the
// authority file owned by the unprivileged desktop user, a private /tmp for
// its sockets. Plus the probes the tests need: windows by process id, their
// geometry, screenshots and xdotool clicks. Used from the test's main thread
// only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct _XDisplay;

namespace display_e2e {

// An X window id (Xlib's Window), kept out of this header: Xlib's macros
// clash with GoogleTest's names.
using WindowId = unsigned long;

constexpr const char* kDesktopUser = "nobody";
constexpr const char* kWorkDir = "/run/nd-display";
constexpr const char* kAuthorityPath = "/run/nd-display/xauth/A:0-display";
constexpr int kScreenWidth = 1280;
constexpr int kScreenHeight = 1024;

struct Geometry {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool Overlaps(const Geometry& other) const;
};

struct Screenshot {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
    // Pixels (in a part, or all) whose colour passes the test.
    size_t Count(const std::function<bool(uint8_t, uint8_t, uint8_t)>& test) const;
    size_t CountIn(const Geometry& part,
                   const std::function<bool(uint8_t, uint8_t, uint8_t)>& test) const;
};

// Where screenshots go (kept under the build directory).
std::string ArtefactPath(const std::string& name);

// A process started with a chosen environment and descriptor map.
pid_t Spawn(const std::string& path, const std::vector<std::string>& args,
            const std::vector<std::string>& env, const std::map<int, int>& descriptors = {});
// Waits (bounded) for a child; false if it is still running.
bool WaitExit(pid_t pid, int timeoutMs, int* status = nullptr);
// Runs a command to its end (killed after the time-out); its exit status or -1.
int Run(const std::vector<std::string>& args, const std::vector<std::string>& env, int timeoutMs);
std::vector<std::string> CurrentEnvironment();

class XDesktop {
public:
    ~XDesktop();
    bool Start(std::string& error);
    void Stop();
    pid_t ServerPid() const { return m_server; }

    // DISPLAY, XAUTHORITY and XAUTHLOCALHOSTNAME as the daemon sets them.
    std::vector<std::string> XEnvironment() const;
    // The viewable top-level window of a process (pid 0: of any process that
    // names itself), or 0 after the time-out.
    WindowId WaitForWindow(pid_t pid, int timeoutMs);
    std::vector<WindowId> WindowsOf(pid_t pid);
    pid_t PidOf(WindowId window); // its _NET_WM_PID, -1 if none
    Geometry GeometryOf(WindowId window);
    bool WaitForGeometry(WindowId window, const std::function<bool(const Geometry&)>& done,
                         int timeoutMs);
    Screenshot Capture(const Geometry& area);
    // Captures the area and saves it as ArtefactPath(name).
    Screenshot Save(const Geometry& area, const std::string& name);
    // Moves the pointer and clicks button 1 with xdotool.
    bool Click(int rootX, int rootY);

private:
    pid_t m_server = -1;
    _XDisplay* m_display = nullptr;
};

} // namespace display_e2e

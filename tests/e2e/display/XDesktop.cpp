#include "XDesktop.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "E2E.h"

namespace display_e2e {
namespace {

// Windows come and go while the tests look at them.
int IgnoreXErrors(Display*, XErrorEvent*) {
    return 0;
}

std::string Big16(size_t value) {
    return {char((value >> 8) & 0xFF), char(value & 0xFF)};
}

// One MIT-MAGIC-COOKIE-1 entry for any address (FamilyWild), display 0.
bool WriteAuthority(const passwd& user) {
    const std::string cookie = e2e::ReadFile("/proc/sys/kernel/random/uuid").substr(0, 16);
    const std::string entry = Big16(0xFFFF) + Big16(0) + Big16(1) + "0" + Big16(18) +
                              "MIT-MAGIC-COOKIE-1" + Big16(16) + cookie;
    e2e::WriteFile(kAuthorityPath, entry);
    return cookie.size() == 16 && chmod(kAuthorityPath, 0600) == 0 &&
           chown(kAuthorityPath, user.pw_uid, user.pw_gid) == 0;
}

std::string ArtefactPath(const std::string& name) {
    mkdir(ND_ARTEFACT_DIR, 0755);
    return std::string(ND_ARTEFACT_DIR) + "/" + name;
}

std::string PointerText(int x, int y, unsigned long window) {
    return "pointer at " + std::to_string(x) + "," + std::to_string(y) + " over window " +
           std::to_string(window);
}

bool Xdotool(const std::vector<std::string>& args) {
    return e2e::ExitedWith(e2e::WaitForExit(e2e::Spawn("/usr/bin/xdotool", args), 10), 0);
}

} // namespace

size_t Screenshot::CountIn(const Geometry& part, bool (*test)(uint8_t, uint8_t, uint8_t)) const {
    size_t n = 0;
    for (int y = std::max(0, part.y); y < std::min(height, part.y + part.height); ++y) {
        for (int x = std::max(0, part.x); x < std::min(width, part.x + part.width); ++x) {
            const uint8_t* p = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
            n += test(p[0], p[1], p[2]) ? 1 : 0;
        }
    }
    return n;
}

XDesktop::~XDesktop() {
    if (m_display != nullptr) {
        XCloseDisplay(m_display);
    }
    if (m_server > 0) {
        kill(m_server, SIGTERM);
        e2e::WaitForExit(m_server, 5);
    }
}

std::string XDesktop::Start() {
    if (getenv("ND_SANDBOX_INNER") == nullptr) {
        return "run inside tests/support/sandbox: the X server needs private namespaces";
    }
    // X sockets go to /tmp: a private one, with a build tree under /tmp bound back.
    const char* kOldTmp = "/run/nd-display-oldtmp";
    mkdir(kOldTmp, 0700);
    if (mount("/tmp", kOldTmp, nullptr, MS_BIND, nullptr) != 0 ||
        mount("nd-display-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        return std::string("cannot mount a private /tmp: ") + strerror(errno);
    }
    const std::string build = ND_ARTEFACT_DIR;
    if (build.rfind("/tmp/", 0) == 0) {
        const std::string top = build.substr(5, build.find('/', 5) - 5);
        mkdir(("/tmp/" + top).c_str(), 0755);
        if (mount((std::string(kOldTmp) + "/" + top).c_str(), ("/tmp/" + top).c_str(), nullptr,
                  MS_BIND, nullptr) != 0) {
            return "cannot keep /tmp/" + top + " reachable: " + strerror(errno);
        }
    }
    const passwd* user = getpwnam(kDesktopUser);
    mkdir("/run/nd-display", 0755);
    mkdir("/run/nd-display/xauth", 0755);
    if (user == nullptr || !WriteAuthority(*user)) {
        return "cannot write the X authority file for " + std::string(kDesktopUser);
    }
    const int log = open(ArtefactPath("xserver.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    m_server =
        e2e::Spawn("/usr/bin/Xvfb",
                   {"/usr/bin/X", ":0", "-auth", kAuthorityPath, "-screen", "0",
                    std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight) + "x24",
                    "-nolisten", "tcp", "-noreset"},
                   {}, {{1, log}, {2, log}});
    close(log);
    setenv("DISPLAY", ":0.0", 1);
    setenv("XAUTHORITY", kAuthorityPath, 1);
    e2e::WaitUntil([&] { return (m_display = XOpenDisplay(":0.0")) != nullptr; }, 15000);
    if (m_display == nullptr) {
        return "Xvfb did not start (see " + ArtefactPath("xserver.log") + ")";
    }
    XSetErrorHandler(IgnoreXErrors);
    return "";
}

pid_t XDesktop::PidOf(WindowId window) {
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    long pid = -1;
    if (XGetWindowProperty(m_display, window, XInternAtom(m_display, "_NET_WM_PID", False), 0, 1,
                           False, XA_CARDINAL, &type, &format, &items, &after, &data) == Success &&
        data != nullptr && format == 32 && items == 1) {
        pid = *reinterpret_cast<long*>(data);
    }
    if (data != nullptr) {
        XFree(data);
    }
    return pid_t(pid);
}

std::vector<WindowId> XDesktop::WindowsOf(pid_t pid) {
    std::vector<WindowId> found;
    XSync(m_display, False);
    Window root = 0, parent = 0, *children = nullptr;
    unsigned count = 0;
    if (!XQueryTree(m_display, DefaultRootWindow(m_display), &root, &parent, &children, &count)) {
        return found;
    }
    for (unsigned i = 0; i < count; ++i) {
        XWindowAttributes attributes;
        const pid_t owner = PidOf(children[i]);
        if ((pid == 0 ? owner > 0 : owner == pid) &&
            XGetWindowAttributes(m_display, children[i], &attributes) &&
            attributes.map_state == IsViewable) {
            found.push_back(children[i]);
        }
    }
    XFree(children);
    return found;
}

WindowId XDesktop::WaitForWindow(pid_t pid, int timeoutMs) {
    std::vector<WindowId> windows;
    e2e::WaitUntil([&] { return !(windows = WindowsOf(pid)).empty(); }, timeoutMs);
    return windows.empty() ? 0 : windows.front();
}

Geometry XDesktop::GeometryOf(WindowId window) {
    Geometry geometry;
    XWindowAttributes attributes;
    Window child = 0;
    XSync(m_display, False);
    if (XGetWindowAttributes(m_display, window, &attributes) &&
        XTranslateCoordinates(m_display, window, DefaultRootWindow(m_display), 0, 0, &geometry.x,
                              &geometry.y, &child)) {
        geometry.width = attributes.width;
        geometry.height = attributes.height;
    }
    return geometry;
}

Screenshot XDesktop::Capture(const Geometry& area, const std::string& name) {
    Screenshot shot;
    XSync(m_display, False);
    XImage* image = XGetImage(m_display, DefaultRootWindow(m_display), area.x, area.y,
                              unsigned(area.width), unsigned(area.height), AllPlanes, ZPixmap);
    if (image == nullptr) {
        return shot;
    }
    shot.width = area.width;
    shot.height = area.height;
    for (int y = 0; y < area.height; ++y) {
        for (int x = 0; x < area.width; ++x) {
            const unsigned long pixel = XGetPixel(image, x, y); // the 24-bit TrueColor screen
            shot.rgb.insert(shot.rgb.end(),
                            {uint8_t(pixel >> 16), uint8_t(pixel >> 8), uint8_t(pixel)});
        }
    }
    XDestroyImage(image);
    if (!name.empty()) {
        e2e::WriteFile(ArtefactPath(name), "P6\n" + std::to_string(shot.width) + " " +
                                               std::to_string(shot.height) + "\n255\n" +
                                               std::string(shot.rgb.begin(), shot.rgb.end()));
    }
    return shot;
}

bool XDesktop::MovePointer(int rootX, int rootY, WindowId window) {
    // No --sync: it waits for ever when the pointer is already there.
    const std::string there = PointerText(rootX, rootY, window);
    return Xdotool({"xdotool", "mousemove", std::to_string(rootX), std::to_string(rootY)}) &&
           e2e::WaitUntil([&] { return PointerState() == there; }, 5000);
}

bool XDesktop::SetButton1(bool down) {
    return Xdotool({"xdotool", down ? "mousedown" : "mouseup", "1"});
}

std::string XDesktop::PointerState() {
    Window root = 0, child = 0;
    int x = -1, y = -1, windowX = 0, windowY = 0;
    unsigned buttons = 0;
    XQueryPointer(m_display, DefaultRootWindow(m_display), &root, &child, &x, &y, &windowX,
                  &windowY, &buttons); // leaves -1,-1 when on another screen
    return PointerText(x, y, child);
}

} // namespace display_e2e

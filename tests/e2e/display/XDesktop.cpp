#include "XDesktop.h"

#include "PngFile.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

extern char** environ;

namespace display_e2e {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPollMs = 20;
constexpr int kServerStartMs = 15000;
constexpr int kClickMs = 10000;

bool Elapsed(Clock::time_point start, int timeoutMs) {
    return Clock::now() - start > std::chrono::milliseconds(timeoutMs);
}

void Sleep() {
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
}

// Windows come and go while the tests look at them.
int IgnoreXErrors(Display*, XErrorEvent*) {
    return 0;
}

void Put16(std::string& out, size_t value) {
    out += char((value >> 8) & 0xFF);
    out += char(value & 0xFF);
}

void PutField(std::string& out, const std::string& field) {
    Put16(out, field.size());
    out += field;
}

// One MIT-MAGIC-COOKIE-1 entry for any address (FamilyWild), display 0.
bool WriteAuthority(const std::string& path, uid_t owner, gid_t group) {
    std::string cookie(16, '\0');
    std::ifstream random("/dev/urandom", std::ios::binary);
    if (!random.read(&cookie[0], std::streamsize(cookie.size()))) {
        return false;
    }
    std::string entry;
    Put16(entry, 0xFFFF);
    PutField(entry, "");
    PutField(entry, "0");
    PutField(entry, "MIT-MAGIC-COOKIE-1");
    PutField(entry, cookie);
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, entry.data(), entry.size()) == ssize_t(entry.size());
    const bool owned = fchown(fd, owner, group) == 0;
    close(fd);
    return written && owned;
}

long WindowPid(Display* display, Window window) {
    Atom type = None;
    int format = 0;
    unsigned long items = 0;
    unsigned long after = 0;
    unsigned char* data = nullptr;
    long pid = -1;
    if (XGetWindowProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), 0, 1, False,
                           XA_CARDINAL, &type, &format, &items, &after, &data) == Success &&
        data != nullptr && format == 32 && items == 1) {
        pid = *reinterpret_cast<long*>(data);
    }
    if (data != nullptr) {
        XFree(data);
    }
    return pid;
}

} // namespace

bool Geometry::Overlaps(const Geometry& other) const {
    return x < other.x + other.width && other.x < x + width && y < other.y + other.height &&
           other.y < y + height;
}

size_t Screenshot::Count(const std::function<bool(uint8_t, uint8_t, uint8_t)>& test) const {
    return CountIn({0, 0, width, height}, test);
}

size_t Screenshot::CountIn(const Geometry& part,
                           const std::function<bool(uint8_t, uint8_t, uint8_t)>& test) const {
    size_t n = 0;
    for (int y = std::max(0, part.y); y < std::min(height, part.y + part.height); ++y) {
        for (int x = std::max(0, part.x); x < std::min(width, part.x + part.width); ++x) {
            const uint8_t* p = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
            n += test(p[0], p[1], p[2]) ? 1 : 0;
        }
    }
    return n;
}

std::string ArtefactPath(const std::string& name) {
    mkdir(ND_ARTEFACT_DIR, 0755);
    return std::string(ND_ARTEFACT_DIR) + "/" + name;
}

pid_t Spawn(const std::string& path, const std::vector<std::string>& args,
            const std::vector<std::string>& env, const std::map<int, int>& descriptors) {
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& entry : env) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        for (const auto& [target, source] : descriptors) {
            if (dup2(source, target) < 0) {
                _exit(126);
            }
        }
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

bool WaitExit(pid_t pid, int timeoutMs, int* status) {
    const Clock::time_point start = Clock::now();
    int local = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &local, WNOHANG);
        if (done == pid) {
            if (status != nullptr) {
                *status = local;
            }
            return true;
        }
        if (done < 0 || Elapsed(start, timeoutMs)) {
            return false;
        }
        Sleep();
    }
}

int Run(const std::vector<std::string>& args, const std::vector<std::string>& env, int timeoutMs) {
    const pid_t pid = Spawn(args[0], args, env);
    int status = 0;
    if (pid <= 0) {
        return -1;
    }
    if (!WaitExit(pid, timeoutMs, &status)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> CurrentEnvironment() {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        env.push_back(*entry);
    }
    return env;
}

XDesktop::~XDesktop() {
    Stop();
}

bool XDesktop::Start(std::string& error) {
    if (getenv("ND_SANDBOX_INNER") == nullptr) {
        error = "run inside tests/support/sandbox: the X server needs private namespaces";
        return false;
    }
    // The X sockets and lock files go to /tmp: keep them inside the sandbox.
    // The build tree may itself live under /tmp, so the sandbox's view of the
    // old /tmp is kept aside and its top folder bound back after the mount.
    const char* kOldTmp = "/run/nd-display-oldtmp";
    mkdir(kOldTmp, 0700);
    if (mount("/tmp", kOldTmp, nullptr, MS_BIND, nullptr) != 0 ||
        mount("nd-display-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        error = std::string("cannot mount a private /tmp: ") + strerror(errno);
        return false;
    }
    const std::string buildPath = ND_ARTEFACT_DIR;
    if (buildPath.rfind("/tmp/", 0) == 0) {
        const std::string top = buildPath.substr(5, buildPath.find('/', 5) - 5);
        const std::string target = "/tmp/" + top;
        mkdir(target.c_str(), 0755);
        if (mount((std::string(kOldTmp) + "/" + top).c_str(), target.c_str(), nullptr, MS_BIND,
                  nullptr) != 0) {
            error = "cannot keep " + target + " reachable: " + strerror(errno);
            return false;
        }
    }
    const passwd* user = getpwnam(kDesktopUser);
    if (user == nullptr) {
        error = std::string("no account ") + kDesktopUser;
        return false;
    }
    mkdir(kWorkDir, 0755);
    mkdir((std::string(kWorkDir) + "/xauth").c_str(), 0755);
    if (!WriteAuthority(kAuthorityPath, user->pw_uid, user->pw_gid)) {
        error = "cannot write the X authority file";
        return false;
    }
    const int log =
        open(ArtefactPath("xserver.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::map<int, int> descriptors;
    if (log >= 0) {
        descriptors = {{1, log}, {2, log}};
    }
    m_server = Spawn("/usr/bin/Xvfb",
                     {"/usr/bin/X", ":0", "-auth", kAuthorityPath, "-screen", "0",
                      std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight) + "x24",
                      "-nolisten", "tcp", "-noreset"},
                     CurrentEnvironment(), descriptors);
    if (log >= 0) {
        close(log);
    }
    setenv("DISPLAY", ":0.0", 1);
    setenv("XAUTHORITY", kAuthorityPath, 1);
    const Clock::time_point start = Clock::now();
    while ((m_display = XOpenDisplay(":0.0")) == nullptr) {
        if (m_server <= 0 || waitpid(m_server, nullptr, WNOHANG) != 0 ||
            Elapsed(start, kServerStartMs)) {
            m_server = -1;
            error = "Xvfb did not start (see " + ArtefactPath("xserver.log") + ")";
            return false;
        }
        Sleep();
    }
    XSetErrorHandler(IgnoreXErrors);
    return true;
}

void XDesktop::Stop() {
    if (m_display != nullptr) {
        XCloseDisplay(m_display);
        m_display = nullptr;
    }
    if (m_server > 0) {
        kill(m_server, SIGTERM);
        if (!WaitExit(m_server, 5000)) {
            kill(m_server, SIGKILL);
            waitpid(m_server, nullptr, 0);
        }
        m_server = -1;
    }
}

std::vector<std::string> XDesktop::XEnvironment() const {
    return {"XAUTHORITY=" + std::string(kAuthorityPath), "DISPLAY=:0.0",
            "XAUTHLOCALHOSTNAME=localhost"};
}

std::vector<Window> XDesktop::WindowsOf(pid_t pid) {
    std::vector<Window> found;
    XSync(m_display, False);
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned count = 0;
    if (!XQueryTree(m_display, DefaultRootWindow(m_display), &root, &parent, &children, &count)) {
        return found;
    }
    for (unsigned i = 0; i < count; ++i) {
        XWindowAttributes attributes;
        const long owner = WindowPid(m_display, children[i]);
        if ((pid == 0 ? owner > 0 : owner == long(pid)) &&
            XGetWindowAttributes(m_display, children[i], &attributes) &&
            attributes.map_state == IsViewable) {
            found.push_back(children[i]);
        }
    }
    if (children != nullptr) {
        XFree(children);
    }
    return found;
}

Window XDesktop::WaitForWindow(pid_t pid, int timeoutMs) {
    const Clock::time_point start = Clock::now();
    for (;;) {
        const std::vector<Window> windows = WindowsOf(pid);
        if (!windows.empty()) {
            return windows.front();
        }
        if (Elapsed(start, timeoutMs)) {
            return 0;
        }
        Sleep();
    }
}

pid_t XDesktop::PidOf(WindowId window) {
    return pid_t(WindowPid(m_display, window));
}

Geometry XDesktop::GeometryOf(Window window) {
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

bool XDesktop::WaitForGeometry(Window window, const std::function<bool(const Geometry&)>& done,
                               int timeoutMs) {
    const Clock::time_point start = Clock::now();
    while (!done(GeometryOf(window))) {
        if (Elapsed(start, timeoutMs)) {
            return false;
        }
        Sleep();
    }
    return true;
}

Screenshot XDesktop::Capture(const Geometry& area) {
    Screenshot shot;
    XSync(m_display, False);
    XImage* image = XGetImage(m_display, DefaultRootWindow(m_display), area.x, area.y,
                              unsigned(area.width), unsigned(area.height), AllPlanes, ZPixmap);
    if (image == nullptr) {
        return shot;
    }
    shot.width = area.width;
    shot.height = area.height;
    shot.rgb.resize(size_t(area.width) * size_t(area.height) * 3);
    for (int y = 0; y < area.height; ++y) {
        for (int x = 0; x < area.width; ++x) {
            const unsigned long pixel = XGetPixel(image, x, y);
            uint8_t* out = &shot.rgb[(size_t(y) * size_t(area.width) + size_t(x)) * 3];
            out[0] = uint8_t((pixel >> 16) & 0xFF); // the 24-bit TrueColor screen we started
            out[1] = uint8_t((pixel >> 8) & 0xFF);
            out[2] = uint8_t(pixel & 0xFF);
        }
    }
    XDestroyImage(image);
    return shot;
}

Screenshot XDesktop::Save(const Geometry& area, const std::string& name) {
    Screenshot shot = Capture(area);
    WritePng(ArtefactPath(name), shot.width, shot.height, shot.rgb);
    return shot;
}

bool XDesktop::Click(int rootX, int rootY) {
    std::vector<std::string> env = CurrentEnvironment();
    // No --sync: it waits for ever when the pointer is already there; the
    // server handles the motion before the click all the same.
    return Run({"/usr/bin/xdotool", "mousemove", std::to_string(rootX), std::to_string(rootY),
                "click", "1"},
               env, kClickMs) == 0;
}

} // namespace display_e2e

// A real display server for a test's main thread, through the `desktop` and
// `atspi-client` tools beside this header: started for a desktop user,
// windows found by process, screenshots (PNG, read back with gdk-pixbuf),
// clicks, wheel steps and a screen reader's view. Every call is bounded.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "HostTesting.h"

namespace desktop {

struct Box {
    int x = 0, y = 0, width = 0, height = 0;
    bool Overlaps(const Box& other) const {
        return x < other.x + other.width && other.x < x + width && y < other.y + other.height &&
               other.y < y + height;
    }
    bool Inside(const Box& outer) const {
        return x >= outer.x && y >= outer.y && x + width <= outer.x + outer.width &&
               y + height <= outer.y + outer.height;
    }
    std::string Text() const {
        return std::to_string(x) + "," + std::to_string(y) + " " + std::to_string(width) + "x" +
               std::to_string(height);
    }
};

struct Image {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    bool Dark(int x, int y) const {
        const uint8_t* p = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
        return p[0] < 0x70 && p[1] < 0x70 && p[2] < 0x70;
    }
    // Whether a dark block at least `w` wide and `h` high is drawn anywhere.
    bool HasDarkBlock(int w, int h) const {
        std::vector<int> heights(size_t(width), 0);
        for (int y = 0; y < height; ++y) {
            int run = 0;
            for (int x = 0; x < width; ++x) {
                heights[size_t(x)] = Dark(x, y) ? heights[size_t(x)] + 1 : 0;
                run = heights[size_t(x)] >= h ? run + 1 : 0;
                if (run >= w) {
                    return true;
                }
            }
        }
        return false;
    }
};

using hosttest::Output;
using hosttest::Run;

class Session {
public:
    // `tools`: the directory holding `desktop` and `atspi-client`; `state`:
    // where the session's files, screenshots and the server log go.
    Session(std::string tools, std::string state)
        : m_tools(std::move(tools)), m_state(std::move(state)) {}
    ~Session() {
        if (m_started) {
            Run({m_tools + "/desktop", "stop", "--state", m_state});
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // desktop start KIND --user USER ...more; what went wrong, or "".
    std::string Start(const std::string& kind, const std::string& user,
                      const std::vector<std::string>& more = {}) {
        std::vector<std::string> argv = {
            m_tools + "/desktop", "start", kind, "--user", user, "--state", m_state};
        argv.insert(argv.end(), more.begin(), more.end());
        const Output out = Run(argv, 60);
        m_started = true;
        std::istringstream lines(out.text);
        for (std::string line; std::getline(lines, line);) {
            const size_t equals = line.find('=');
            if (equals != std::string::npos) {
                m_env[line.substr(0, equals)] = line.substr(equals + 1);
            }
        }
        return hosttest::ExitedWith(out.status, 0)
                   ? ""
                   : kind + " did not start: see " + m_state + "/server.log";
    }

    std::string Env(const std::string& name) const {
        const auto found = m_env.find(name);
        return found == m_env.end() ? "" : found->second;
    }
    const std::string& State() const { return m_state; }

    // The process's window on the screen; width 0 when none came in time.
    Box WindowOf(pid_t pid, int seconds = 15) const {
        const Output out =
            Tool({"window", "--pid", std::to_string(pid), "--timeout", std::to_string(seconds)},
                 seconds + 10);
        Box box;
        unsigned long id = 0;
        std::istringstream(out.text) >> id >> box.x >> box.y >> box.width >> box.height;
        return box;
    }

    // That part of the screen, also kept as `name` (PNG) in the state directory.
    Image Capture(const Box& area, const std::string& name) const {
        Image image;
        const std::string path = m_state + "/" + name;
        if (!hosttest::ExitedWith(Tool({"screenshot", "--area", Area(area), "--out", path}).status,
                                  0)) {
            return image;
        }
        GdkPixbuf* pixbuf = gdk_pixbuf_new_from_file(path.c_str(), nullptr);
        if (pixbuf == nullptr) {
            return image;
        }
        image.width = gdk_pixbuf_get_width(pixbuf);
        image.height = gdk_pixbuf_get_height(pixbuf);
        const int channels = gdk_pixbuf_get_n_channels(pixbuf);
        const int stride = gdk_pixbuf_get_rowstride(pixbuf);
        const guchar* pixels = gdk_pixbuf_read_pixels(pixbuf);
        for (int y = 0; y < image.height; ++y) {
            for (int x = 0; x < image.width; ++x) {
                const guchar* p = pixels + y * stride + x * channels;
                image.rgb.insert(image.rgb.end(), {p[0], p[1], p[2]});
            }
        }
        g_object_unref(pixbuf);
        return image;
    }

    bool Click(int x, int y) const {
        return hosttest::ExitedWith(Tool({"click", std::to_string(x), std::to_string(y)}).status,
                                    0);
    }
    bool Scroll(int x, int y, int steps) const {
        return hosttest::ExitedWith(
            Tool({"scroll", std::to_string(x), std::to_string(y), std::to_string(steps)}).status,
            0);
    }

    // xdotool ARGS as the user (X servers): keys, focus.
    bool XdoTool(const std::vector<std::string>& args) const {
        std::vector<std::string> more = {"run", "--", "/usr/bin/xdotool"};
        more.insert(more.end(), args.begin(), args.end());
        return hosttest::ExitedWith(Tool(more).status, 0);
    }

    // atspi-client --pid PID ARGS..., run as the user in the session.
    Output ScreenReader(pid_t pid, const std::vector<std::string>& args) const {
        std::vector<std::string> more = {"run", "--", m_tools + "/atspi-client", "--pid",
                                         std::to_string(pid)};
        more.insert(more.end(), args.begin(), args.end());
        return Tool(more);
    }

private:
    static std::string Area(const Box& box) {
        return std::to_string(box.x) + "," + std::to_string(box.y) + "," +
               std::to_string(box.width) + "," + std::to_string(box.height);
    }
    Output Tool(std::vector<std::string> args, int seconds = 30) const {
        args.insert(args.begin() + 1, {"--state", m_state});
        args.insert(args.begin(), m_tools + "/desktop");
        return Run(args, seconds);
    }

    std::string m_tools;
    std::string m_state;
    bool m_started = false;
    std::map<std::string, std::string> m_env;
};

} // namespace desktop

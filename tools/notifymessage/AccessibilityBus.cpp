#include "AccessibilityBus.h"

#include <gtk/gtk.h>
#ifdef GDK_WINDOWING_X11
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <gdk/x11/gdkx.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>

namespace notifymsg {

namespace {

#ifdef GDK_WINDOWING_X11
// The accessibility bus an X session announces on its root window, "" if none.
std::string AnnouncedAccessibilityBus(Display* xdisplay) {
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    std::string address;
    // Another program's bytes: a D-Bus address is short.
    if (XGetWindowProperty(xdisplay, DefaultRootWindow(xdisplay),
                           XInternAtom(xdisplay, "AT_SPI_BUS", False), 0, 1024, False, XA_STRING,
                           &type, &format, &items, &after, &data) == Success &&
        data != nullptr && format == 8 && after == 0) {
        address.assign(reinterpret_cast<const char*>(data),
                       strnlen(reinterpret_cast<const char*>(data), items));
    }
    if (data != nullptr) {
        XFree(data);
    }
    return address;
}
#endif

} // namespace

void ChooseAccessibilityBus() {
    if (getenv("AT_SPI_BUS_ADDRESS") != nullptr) {
        return;
    }
#ifdef GDK_WINDOWING_X11
    GdkDisplay* display = gdk_display_get_default();
    if (GDK_IS_X11_DISPLAY(display)) {
        const std::string address =
            AnnouncedAccessibilityBus(gdk_x11_display_get_xdisplay(display));
        if (!address.empty()) {
            setenv("AT_SPI_BUS_ADDRESS", address.c_str(), 1);
            return;
        }
    }
#endif
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    const bool sessionBus =
        getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr ||
        (runtime != nullptr &&
         g_file_test((std::string(runtime) + "/bus").c_str(), G_FILE_TEST_EXISTS));
    if (!sessionBus) {
        setenv("GTK_A11Y", "none", 1);
    }
}

} // namespace notifymsg

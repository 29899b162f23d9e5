#include "NotificationWindow.h"

#include <gtk/gtk.h>

#include <cstdlib>

#include "AccessibilityBus.h"
#include "NotificationView.h"

namespace notifymsg {

Outcome ShowNotification(const NotificationRequest& request, GdkPixbuf* logo,
                         const std::function<void()>& displayOpened, std::string& error) {
    // The name screen readers and window managers list the program under.
    g_set_prgname("notifymessage");
    // X11 first: only there can the window take its slot; Wayland otherwise.
    gdk_set_allowed_backends("x11,wayland");
    // One small window: software drawing, without loading a GL driver (under
    // Xvfb a software one costs about 60 MB and 80 ms at start).
    setenv("GSK_RENDERER", "cairo", 0);
    setenv("GDK_DEBUG", "gl-disable", 0);
    if (!gtk_init_check()) {
        error = "cannot open a display (neither X11 through DISPLAY nor Wayland through "
                "WAYLAND_DISPLAY)";
        return Outcome::Failed;
    }
    displayOpened();
    ChooseAccessibilityBus();
    NotificationView view(request, logo);
    return view.Run();
}

} // namespace notifymsg

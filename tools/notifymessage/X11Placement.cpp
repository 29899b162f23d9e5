// X11 placement: the slot (or the whole monitor), the position hints a
// window manager keeps to, kept above, urgency, no focus taken on map, and
// the window manager's frame followed as it changes. Main thread only.
#include "NotificationView.h"

#ifdef GDK_WINDOWING_X11
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#endif

#include <algorithm>

namespace notifymsg {

#ifdef GDK_WINDOWING_X11
// X11 lets a client place itself: the slot (or the whole monitor while
// full-screen and no window manager does it), above other windows, urgent.
void NotificationView::PlaceOnX11(bool mapped) {
    GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(m_window));
    GdkDisplay* display = gdk_surface_get_display(surface);
    Display* xdisplay = gdk_x11_display_get_xdisplay(display);
    const Window xid = gdk_x11_surface_get_xid(surface);
    GdkX11Screen* screen = gdk_x11_display_get_screen(display);
    const bool managedFullscreen =
        gdk_x11_screen_supports_net_wm_hint(screen, "_NET_WM_STATE_FULLSCREEN");

    m_xid = xid;
    if (mapped && !m_large) {
        ReadFrameExtents();
    }
    Rect place = m_slot;
    place.x += m_monitor.x;
    place.y += m_monitor.y;
    place.width = std::max(1, m_slot.width - m_frameWidth);
    place.height = SizeForWidth(place.width);
    if (m_large) {
        place = {m_monitor.x, m_monitor.y, m_monitor.width, m_monitor.height};
    }
    const int s = m_scale;
    if (!mapped) {
        gdk_x11_surface_set_urgency_hint(surface, TRUE);
        if (!m_large) {
            gdk_x11_surface_set_user_time(surface, 0); // not focused on map
        }
        XMoveWindow(xdisplay, xid, place.x * s, place.y * s);
        return;
    }
    // The program's position, so that a window manager keeps it there.
    XSizeHints hints{};
    long supplied = 0;
    XGetWMNormalHints(xdisplay, xid, &hints, &supplied);
    hints.flags |= USPosition | PPosition;
    hints.x = place.x * s;
    hints.y = place.y * s;
    XSetWMNormalHints(xdisplay, xid, &hints);
    if (m_large && managedFullscreen) {
        XMoveWindow(xdisplay, xid, place.x * s, place.y * s);
    } else {
        XMoveResizeWindow(xdisplay, xid, place.x * s, place.y * s, unsigned(place.width * s),
                          unsigned(place.height * s));
    }
    XEvent above{};
    above.xclient.type = ClientMessage;
    above.xclient.window = xid;
    above.xclient.message_type = XInternAtom(xdisplay, "_NET_WM_STATE", False);
    above.xclient.format = 32;
    above.xclient.data.l[0] = 1; // add
    above.xclient.data.l[1] = long(XInternAtom(xdisplay, "_NET_WM_STATE_ABOVE", False));
    above.xclient.data.l[3] = 1; // from an application
    const Window root = DefaultRootWindow(xdisplay);
    XSendEvent(xdisplay, root, False, SubstructureRedirectMask | SubstructureNotifyMask, &above);
    XRaiseWindow(xdisplay, xid);
    XFlush(xdisplay);
}

// The frame's size from _NET_FRAME_EXTENTS; true when it changed.
bool NotificationView::ReadFrameExtents() {
    Display* xdisplay = gdk_x11_display_get_xdisplay(gtk_widget_get_display(m_window));
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    int width = 0, height = 0;
    if (XGetWindowProperty(xdisplay, m_xid, XInternAtom(xdisplay, "_NET_FRAME_EXTENTS", False), 0,
                           4, False, XA_CARDINAL, &type, &format, &items, &after,
                           &data) == Success &&
        data != nullptr && format == 32 && items == 4) {
        const long* sides = reinterpret_cast<const long*>(data); // left, right, top, bottom
        const long limit = 512;                                  // another program's numbers
        auto side = [&](int i) { return int(std::min(std::max(sides[i], 0L), limit)); };
        width = (side(0) + side(1)) / m_scale;
        height = (side(2) + side(3)) / m_scale;
    }
    if (data != nullptr) {
        XFree(data);
    }
    const bool changed = width != m_frameWidth || height != m_frameHeight;
    m_frameWidth = width;
    m_frameHeight = height;
    return changed;
}

gboolean NotificationView::OnXEvent(GdkX11Display*, gpointer xevent, gpointer self) {
    auto* view = static_cast<NotificationView*>(self);
    const XEvent* event = static_cast<const XEvent*>(xevent);
    if (event->type == PropertyNotify && view->m_xid != 0 &&
        event->xproperty.window == view->m_xid && !view->m_large) {
        Display* xdisplay = event->xproperty.display;
        if (event->xproperty.atom == XInternAtom(xdisplay, "_NET_FRAME_EXTENTS", False) &&
            view->ReadFrameExtents()) {
            view->PlaceOnX11(true);
        }
    }
    return FALSE; // GDK sees every event too
}
#endif

void NotificationView::OnRealize(GtkWidget*, gpointer self) {
#ifdef GDK_WINDOWING_X11
    auto* view = static_cast<NotificationView*>(self);
    if (view->OnX11()) {
        g_signal_connect(gtk_widget_get_display(view->m_window), "xevent", G_CALLBACK(OnXEvent),
                         view);
        view->PlaceOnX11(false);
    }
#else
    (void)self;
#endif
}

void NotificationView::OnMap(GtkWidget*, gpointer self) {
#ifdef GDK_WINDOWING_X11
    auto* view = static_cast<NotificationView*>(self);
    if (view->OnX11()) {
        view->PlaceOnX11(true);
    }
#else
    (void)self;
#endif
}

} // namespace notifymsg

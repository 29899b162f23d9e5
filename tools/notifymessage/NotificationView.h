// The notification window itself: one view per program run, built by
// NotificationContent.cpp (widgets, looks, heights), placed by
// X11Placement.cpp on X11 and sized by WaylandSizing.cpp on Wayland, run and
// ended by NotificationView.cpp. Main thread only, after leaving root; every
// callback comes from GTK's main loop on that thread, so nothing is locked.
#pragma once

#include <gtk/gtk.h>
#ifdef GDK_WINDOWING_X11
#include <gdk/x11/gdkx.h>
#endif

#include "NotificationWindow.h"
#include "WindowLayout.h"

namespace notifymsg {

constexpr int kPadding = 14;
constexpr int kLargePadding = 48;
constexpr int kSpacing = 10;
constexpr int kMinScrollHeight = 20; // a line

class NotificationView {
public:
    NotificationView(const NotificationRequest& request, GdkPixbuf* logo)
        : m_request(request), m_logo(logo), m_large(request.fullscreen) {}
    ~NotificationView();
    NotificationView(const NotificationView&) = delete;
    NotificationView& operator=(const NotificationView&) = delete;

    Outcome Run();

private:
    void Build();
    void FindMonitor();
    void SetLook(bool large);
    void Shrink();
    void Finish(Outcome outcome);
    int SizeForWidth(int width);
    bool OnX11() const;
    void PrepareForWayland();
    void ShrinkOnWayland();
#ifdef GDK_WINDOWING_X11
    void PlaceOnX11(bool mapped);
    bool ReadFrameExtents();
    static gboolean OnXEvent(GdkX11Display*, gpointer xevent, gpointer self);
#endif

    static void OnRealize(GtkWidget*, gpointer self);
    static void OnMap(GtkWidget*, gpointer self);
    static void OnClicked(GtkButton*, gpointer self);
    static gboolean OnCloseRequest(GtkWindow*, gpointer self);
    static gboolean OnTimeout(gpointer self);
    static gboolean OnShrink(gpointer self);
    static gboolean OnSettled(gpointer self);

    const NotificationRequest& m_request;
    GdkPixbuf* m_logo;
    bool m_large;
    Outcome m_outcome = Outcome::Closed;
    GMainLoop* m_loop = nullptr;
    GtkWidget* m_window = nullptr;
    GtkWidget* m_box = nullptr;
    GtkWidget* m_heading = nullptr;
    GtkWidget* m_headingScroller = nullptr;
    GtkWidget* m_picture = nullptr;
    GtkWidget* m_scroller = nullptr;
    GtkWidget* m_text = nullptr;
    GtkWidget* m_button = nullptr;
    GdkRectangle m_monitor{0, 0, 1024, 768};
    int m_scale = 1;
    Rect m_slot;
    guint m_closeTimer = 0;
    guint m_shrinkTimer = 0;
    guint m_settleTimer = 0;
    // A window manager's frame around the window (X11), in logical pixels:
    // the slot holds the frame and the window together.
    int m_frameWidth = 0;
    int m_frameHeight = 0;
    unsigned long m_xid = 0;
};

} // namespace notifymsg

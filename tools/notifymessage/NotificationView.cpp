// The view's life: the monitor and slot it takes, the main loop, the
// time-out, the click, the close request and the full-screen look shrinking
// to the slot. Main thread only.
#include "NotificationView.h"

#include <algorithm>

namespace notifymsg {

namespace {

constexpr guint kSettleMs = 250;

} // namespace

NotificationView::~NotificationView() {
    for (guint timer : {m_closeTimer, m_shrinkTimer, m_settleTimer}) {
        if (timer != 0) {
            g_source_remove(timer);
        }
    }
    if (GdkDisplay* display = gdk_display_get_default()) {
        g_signal_handlers_disconnect_by_data(display, this);
    }
    if (m_window != nullptr) {
        gtk_window_destroy(GTK_WINDOW(m_window));
    }
    if (m_loop != nullptr) {
        g_main_loop_unref(m_loop);
    }
}

void NotificationView::FindMonitor() {
    GdkDisplay* display = gdk_display_get_default();
    GdkMonitor* monitor = nullptr;
#ifdef GDK_WINDOWING_X11
    if (GDK_IS_X11_DISPLAY(display)) {
        monitor = gdk_x11_display_get_primary_monitor(display);
    }
#endif
    GListModel* monitors = gdk_display_get_monitors(display);
    GObject* first = nullptr;
    if (monitor == nullptr && g_list_model_get_n_items(monitors) > 0) {
        first = G_OBJECT(g_list_model_get_item(monitors, 0));
        monitor = GDK_MONITOR(first);
    }
    if (monitor != nullptr) {
        gdk_monitor_get_geometry(monitor, &m_monitor);
        m_scale = std::max(1, gdk_monitor_get_scale_factor(monitor));
    }
    if (first != nullptr) {
        g_object_unref(first);
    }
    m_slot = NormalWindowRect(m_monitor.width, m_monitor.height, m_request.windowOrder);
}

bool NotificationView::OnX11() const {
#ifdef GDK_WINDOWING_X11
    return GDK_IS_X11_DISPLAY(gtk_widget_get_display(m_window));
#else
    return false;
#endif
}

void NotificationView::Finish(Outcome outcome) {
    if (m_loop != nullptr && g_main_loop_is_running(m_loop)) {
        m_outcome = outcome;
        g_main_loop_quit(m_loop);
    }
}

void NotificationView::OnClicked(GtkButton*, gpointer self) {
    auto* view = static_cast<NotificationView*>(self);
    gtk_widget_set_sensitive(view->m_button, FALSE); // one record, however fast the clicks
    view->Finish(Outcome::Acknowledged);
}

gboolean NotificationView::OnCloseRequest(GtkWindow*, gpointer self) {
    static_cast<NotificationView*>(self)->Finish(Outcome::Closed);
    return TRUE; // the window goes with the view
}

gboolean NotificationView::OnTimeout(gpointer self) {
    auto* view = static_cast<NotificationView*>(self);
    view->m_closeTimer = 0;
    view->Finish(Outcome::TimedOut);
    return G_SOURCE_REMOVE;
}

gboolean NotificationView::OnShrink(gpointer self) {
    auto* view = static_cast<NotificationView*>(self);
    view->m_shrinkTimer = 0;
    view->Shrink();
    return G_SOURCE_REMOVE;
}

gboolean NotificationView::OnSettled(gpointer self) {
    auto* view = static_cast<NotificationView*>(self);
    view->m_settleTimer = 0;
#ifdef GDK_WINDOWING_X11
    view->ReadFrameExtents();
    view->PlaceOnX11(true);
#endif
    return G_SOURCE_REMOVE;
}

void NotificationView::Shrink() {
    SetLook(false);
    gtk_window_unfullscreen(GTK_WINDOW(m_window));
#ifdef GDK_WINDOWING_X11
    if (OnX11()) {
        // Once a window manager has put its frame back (or at once without one).
        PlaceOnX11(true);
        if (m_settleTimer == 0) {
            m_settleTimer = g_timeout_add(kSettleMs, OnSettled, this);
        }
        return;
    }
#endif
    ShrinkOnWayland();
}

Outcome NotificationView::Run() {
    FindMonitor();
    Build();
    SetLook(m_large);
    if (!OnX11()) {
        PrepareForWayland();
    }
    const int height = SizeForWidth(m_slot.width);
    if (m_large && !OnX11()) {
        gtk_window_set_default_size(GTK_WINDOW(m_window), m_monitor.width, m_monitor.height);
    } else {
        gtk_window_set_default_size(GTK_WINDOW(m_window), m_slot.width, height);
    }
    if (m_large) {
        gtk_window_fullscreen(GTK_WINDOW(m_window));
    }
    m_loop = g_main_loop_new(nullptr, FALSE);
    if (m_request.timeoutSeconds > 0) { // at most a week: fits in milliseconds
        m_closeTimer = g_timeout_add(guint(m_request.timeoutSeconds) * 1000u, OnTimeout, this);
    }
    if (m_large && m_request.fullscreenSeconds > 0) {
        m_shrinkTimer = g_timeout_add_seconds(guint(m_request.fullscreenSeconds), OnShrink, this);
    }
    if (m_large) {
        gtk_window_present(GTK_WINDOW(m_window)); // full-screen may take the keyboard
    } else {
        gtk_widget_set_visible(m_window, TRUE);
    }
    g_main_loop_run(m_loop);
    return m_outcome;
}

} // namespace notifymsg

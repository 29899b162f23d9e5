// Wayland: the compositor places the window, so only its size is the
// program's. Main thread only.
#include "NotificationView.h"

namespace notifymsg {

// A fixed size (the slot's width, the text's height: its minimum and maximum
// equal) makes tiling compositors float the window instead of stretching it
// over the screen, and follows the text when the look changes. A full-screen
// window must be free to fill the screen.
void NotificationView::PrepareForWayland() {
    gtk_window_set_resizable(GTK_WINDOW(m_window), m_large);
    if (!m_large) {
        gtk_label_set_max_width_chars(GTK_LABEL(m_text), 1);
        gtk_label_set_max_width_chars(GTK_LABEL(m_heading), 1);
        gtk_widget_set_size_request(m_box, m_slot.width - 2 * kPadding, -1);
    }
}

// Back from full-screen: the slot's width and the text's height, fixed again.
void NotificationView::ShrinkOnWayland() {
    gtk_window_set_default_size(GTK_WINDOW(m_window), m_slot.width, SizeForWidth(m_slot.width));
    gtk_window_set_resizable(GTK_WINDOW(m_window), FALSE);
}

} // namespace notifymsg

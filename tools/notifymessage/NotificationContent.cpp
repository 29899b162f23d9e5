// The window's content: caption, logo, message and button, the normal and
// the full-screen look, and the height the text needs. Main thread only.
#include <algorithm>

#include "LogoLoader.h"
#include "NotificationView.h"

namespace notifymsg {

namespace {

// The full-screen look is the same window with larger type.
constexpr const char* kStyle = ".nd-heading { font-weight: bold; font-size: 13pt; }"
                               ".nd-message { font-size: 11pt; }"
                               ".nd-large .nd-heading { font-size: 28pt; }"
                               ".nd-large .nd-message { font-size: 20pt; }"
                               ".nd-large button { font-size: 18pt; padding: 12px 40px; }";

// GTK wants valid UTF-8: anything else is shown with replacement characters;
// long runs get places to break (see WithBreakOpportunities).
std::string Valid(const std::string& text) {
    char* valid = g_utf8_make_valid(text.data(), gssize(text.size()));
    std::string result = WithBreakOpportunities(valid);
    g_free(valid);
    return result;
}

} // namespace

void NotificationView::Build() {
    GtkCssProvider* style = gtk_css_provider_new();
    gtk_css_provider_load_from_data(style, kStyle, -1);
    gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(style),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(style);
    // Focus on the text must not select it all (a stray key would replace nothing,
    // but the whole message shown selected looks like an error).
    g_object_set(gtk_settings_get_default(), "gtk-label-select-on-focus", FALSE, nullptr);

    const std::string caption = Valid(m_request.caption);
    const std::string title = caption.empty() ? kDefaultTitle : caption;
    m_window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(m_window), title.c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(m_window), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   title.c_str(), -1);

    m_box = gtk_box_new(GTK_ORIENTATION_VERTICAL, kSpacing);
    gtk_window_set_child(GTK_WINDOW(m_window), m_box);

    m_heading = gtk_label_new(caption.c_str());
    gtk_widget_add_css_class(m_heading, "nd-heading");
    gtk_label_set_wrap(GTK_LABEL(m_heading), TRUE);
    gtk_label_set_wrap_mode(GTK_LABEL(m_heading), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_xalign(GTK_LABEL(m_heading), 0);
    // A caption of any length leaves the message and the button in view: past
    // a few lines it scrolls on its own.
    m_headingScroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(m_headingScroller), GTK_POLICY_NEVER,
                                   GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_propagate_natural_height(GTK_SCROLLED_WINDOW(m_headingScroller), TRUE);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(m_headingScroller), m_heading);
    gtk_widget_set_visible(m_headingScroller, !caption.empty());
    gtk_box_append(GTK_BOX(m_box), m_headingScroller);

    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, kSpacing);
    gtk_widget_set_vexpand(row, TRUE);
    gtk_box_append(GTK_BOX(m_box), row);
    if (m_logo != nullptr) {
        m_picture = gtk_image_new();
        gtk_widget_set_valign(m_picture, GTK_ALIGN_START);
        gtk_accessible_update_property(GTK_ACCESSIBLE(m_picture), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                       "Logo", -1);
        gtk_box_append(GTK_BOX(row), m_picture);
    }

    m_text = gtk_label_new(Valid(m_request.message).c_str());
    gtk_widget_add_css_class(m_text, "nd-message");
    gtk_label_set_wrap(GTK_LABEL(m_text), TRUE);
    gtk_label_set_wrap_mode(GTK_LABEL(m_text), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_selectable(GTK_LABEL(m_text), TRUE);
    gtk_label_set_xalign(GTK_LABEL(m_text), 0);
    gtk_label_set_yalign(GTK_LABEL(m_text), 0);
    gtk_widget_set_valign(m_text, GTK_ALIGN_START);
    gtk_widget_set_hexpand(m_text, TRUE);

    m_scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(m_scroller), GTK_POLICY_NEVER,
                                   GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(m_scroller), m_text);
    gtk_widget_set_hexpand(m_scroller, TRUE);
    gtk_widget_set_vexpand(m_scroller, TRUE);
    gtk_box_append(GTK_BOX(row), m_scroller);

    m_button = gtk_button_new_with_label(kButtonLabel);
    gtk_widget_add_css_class(m_button, "suggested-action");
    gtk_widget_set_halign(m_button, GTK_ALIGN_CENTER);
    gtk_box_append(GTK_BOX(m_box), m_button);

    // The keyboard starts on the text, never on the button: a key meant for
    // another window must not acknowledge.
    gtk_window_set_focus(GTK_WINDOW(m_window), m_text);

    g_signal_connect(m_window, "realize", G_CALLBACK(OnRealize), this);
    g_signal_connect(m_window, "map", G_CALLBACK(OnMap), this);
    g_signal_connect(m_window, "close-request", G_CALLBACK(OnCloseRequest), this);
    g_signal_connect(m_button, "clicked", G_CALLBACK(OnClicked), this);
}

// The look's padding, logo and scroll limits; returns nothing, the window's
// own size request follows from them.
void NotificationView::SetLook(bool large) {
    m_large = large;
    if (large) {
        gtk_widget_add_css_class(m_window, "nd-large");
    } else {
        gtk_widget_remove_css_class(m_window, "nd-large");
    }
    const int padding = large ? kLargePadding : kPadding;
    gtk_widget_set_margin_start(m_box, padding);
    gtk_widget_set_margin_end(m_box, padding);
    gtk_widget_set_margin_top(m_box, padding);
    gtk_widget_set_margin_bottom(m_box, padding);
    const int box = large ? kLargeLogoBox : kLogoBox;
    if (m_picture != nullptr) {
        GdkPixbuf* fitted = FitLogo(m_logo, box * m_scale);
        GdkTexture* texture = gdk_texture_new_for_pixbuf(fitted);
        gtk_image_set_from_paintable(GTK_IMAGE(m_picture), GDK_PAINTABLE(texture));
        gtk_image_set_pixel_size(GTK_IMAGE(m_picture), box);
        g_object_unref(texture);
        g_object_unref(fitted);
    }
}

// The window's height for this width: its content's natural height, at least
// the slot's, growing to about two thirds of the monitor; the message scrolls
// beyond. The message is measured at the width it gets, so that the window is
// as tall as the wrapped text needs.
int NotificationView::SizeForWidth(int width) {
    const int padding = m_large ? kLargePadding : kPadding;
    const int inner = std::max(1, width - 2 * padding);
    int chrome = 2 * padding + kSpacing;
    int minimum = 0, natural = 0;
    if (gtk_widget_get_visible(m_headingScroller)) {
        // The caption at the width it gets: a scroller measures its content
        // at the content's own width, which on Wayland (labels one character
        // wide, see Run) makes it as tall as it may be.
        gtk_widget_measure(m_heading, GTK_ORIENTATION_VERTICAL, inner, &minimum, &natural, nullptr,
                           nullptr);
        const int tallest = std::max(kMinScrollHeight, m_monitor.height / 6);
        const int heading = std::min(natural, tallest);
        GtkScrolledWindow* scroller = GTK_SCROLLED_WINDOW(m_headingScroller);
        gtk_scrolled_window_set_max_content_height(scroller, -1);
        gtk_scrolled_window_set_min_content_height(scroller, m_large ? -1 : heading);
        gtk_scrolled_window_set_max_content_height(scroller, m_large ? tallest : heading);
        chrome += heading + kSpacing;
    }
    gtk_widget_measure(m_button, GTK_ORIENTATION_VERTICAL, -1, &minimum, &natural, nullptr,
                       nullptr);
    chrome += natural;
    int textWidth = inner;
    int logoHeight = 0;
    if (m_picture != nullptr) {
        gtk_widget_measure(m_picture, GTK_ORIENTATION_HORIZONTAL, -1, &minimum, &natural, nullptr,
                           nullptr);
        textWidth = std::max(1, textWidth - natural - kSpacing);
        gtk_widget_measure(m_picture, GTK_ORIENTATION_VERTICAL, -1, &minimum, &logoHeight, nullptr,
                           nullptr);
    }
    gtk_widget_measure(m_text, GTK_ORIENTATION_VERTICAL, textWidth, &minimum, &natural, nullptr,
                       nullptr);
    // The slot holds a window manager's frame too.
    const int tallest =
        m_large
            ? m_monitor.height
            : std::max(m_slot.height, MaxWindowHeight(m_monitor.height, m_slot.y)) - m_frameHeight;
    const int lowest = std::max(m_large ? 0 : m_slot.height - m_frameHeight - chrome, logoHeight);
    const int scroll =
        std::max(kMinScrollHeight, std::min(std::max(natural, lowest), tallest - chrome));
    // On X11 the window's size is set from outside (a window manager keeps to
    // the minimum GTK declares, so that stays small); a Wayland window has
    // its content's size, so there the scrolled part is fixed.
    const bool fixed = !m_large && !OnX11();
    GtkScrolledWindow* scroller = GTK_SCROLLED_WINDOW(m_scroller);
    gtk_scrolled_window_set_max_content_height(scroller, -1);
    gtk_scrolled_window_set_min_content_height(scroller, fixed ? scroll : kMinScrollHeight);
    gtk_scrolled_window_set_max_content_height(scroller, fixed ? scroll : -1);
    return chrome + scroll;
}

} // namespace notifymsg

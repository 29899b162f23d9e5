#include "NotificationWindow.h"

#include <gtk/gtk.h>
#ifdef GDK_WINDOWING_X11
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <gdk/x11/gdkx.h>
#endif

#include <algorithm>
#include <cstring>

#include "LogoLoader.h"
#include "WindowLayout.h"

namespace notifymsg {

namespace {

constexpr int kPadding = 14;
constexpr int kLargePadding = 48;
constexpr int kSpacing = 10;
constexpr int kMinScrollHeight = 20; // a line
constexpr guint kSettleMs = 250;

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

bool NotificationView::OnX11() const {
#ifdef GDK_WINDOWING_X11
    return GDK_IS_X11_DISPLAY(gtk_widget_get_display(m_window));
#else
    return false;
#endif
}

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
#endif

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
    gtk_window_set_default_size(GTK_WINDOW(m_window), m_slot.width, SizeForWidth(m_slot.width));
    gtk_window_set_resizable(GTK_WINDOW(m_window), FALSE);
}

Outcome NotificationView::Run() {
    FindMonitor();
    Build();
    SetLook(m_large);
    if (!OnX11()) {
        // Wayland: the compositor places the window. A fixed size (the slot's
        // width, the text's height: its minimum and maximum equal) makes
        // tiling compositors float it instead of stretching it over the
        // screen, and follows the text when the look changes. A full-screen
        // window must be free to fill the screen.
        gtk_window_set_resizable(GTK_WINDOW(m_window), m_large);
    }
    if (!OnX11() && !m_large) {
        gtk_label_set_max_width_chars(GTK_LABEL(m_text), 1);
        gtk_label_set_max_width_chars(GTK_LABEL(m_heading), 1);
        gtk_widget_set_size_request(m_box, m_slot.width - 2 * kPadding, -1);
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

// Where screen readers find the window. The daemon starts the program without
// a session bus, and GTK looking for one (on X11 too, before the root
// window) warns on every start: on X11 the bus the session announces on its
// root window is taken first; with no bus at all accessibility is off,
// quietly, as nothing could read it.
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

} // namespace

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

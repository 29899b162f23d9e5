#include "NotificationWindow.h"

#include "FontChain.h"
#include "TextLayout.h"
#include "WindowLayout.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace notifymsg {

namespace {

using Clock = std::chrono::steady_clock;

struct LookFonts {
    const char* caption;
    const char* text;
    const char* button;
};
constexpr LookFonts kNormalFonts = {"sans-serif:bold:size=12", "sans-serif:size=11",
                                    "sans-serif:bold:size=11"};
constexpr LookFonts kLargeFonts = {"sans-serif:bold:size=28", "sans-serif:size=20",
                                   "sans-serif:bold:size=18"};
constexpr int kLineSpacing = 2;
constexpr int kMinWindowWidth = 200;
constexpr int kMinWindowHeight = 120;
constexpr const char* kDefaultTitle = "Notification";

// A missing atom or a window manager's refusal must not end the program; a
// lost connection still does (Xlib's fatal handler).
int ReportXError(Display* display, XErrorEvent* event) {
    char text[160] = {};
    XGetErrorText(display, event->error_code, text, sizeof text - 1);
    fprintf(stderr, "notifymessage: X error ignored: %s\n", text);
    return 0;
}

struct Fonts {
    std::unique_ptr<FontChain> caption;
    std::unique_ptr<FontChain> text;
    std::unique_ptr<FontChain> button;
    bool Open(Display* display, int screen, const LookFonts& names) {
        caption.reset(new FontChain(display, screen, names.caption));
        text.reset(new FontChain(display, screen, names.text));
        button.reset(new FontChain(display, screen, names.button));
        return caption->Ok() && text->Ok() && button->Ok();
    }
};

// One colour channel of a TrueColor pixel.
unsigned long Channel(unsigned value, unsigned long mask) {
    if (mask == 0) {
        return 0;
    }
    int shift = 0;
    while (((mask >> shift) & 1) == 0) {
        ++shift;
    }
    const unsigned long maximum = mask >> shift;
    return ((value * maximum + 127) / 255) << shift;
}

class NotificationView {
public:
    NotificationView(Display* display, const NotificationRequest& request, const RgbImage& logo)
        : m_display(display), m_screen(DefaultScreen(display)), m_request(request), m_logo(logo),
          m_caption(Printable(DecodeUtf8(request.caption), false)),
          m_message(Printable(DecodeUtf8(request.message), true)) {}
    ~NotificationView();
    NotificationView(const NotificationView&) = delete;
    NotificationView& operator=(const NotificationView&) = delete;

    bool Create(std::string& error);
    Outcome Run();

private:
    Atom Intern(const char* name) { return XInternAtom(m_display, name, False); }
    bool AllocColour(const char* name, XftColor& colour);
    void SetProperties();
    void SetLook(bool large);
    void LeaveFullscreen();
    void Redraw();
    void DrawButton(const Rect& button);
    Fonts& CurrentFonts() { return m_largeLook ? m_largeFonts : m_normalFonts; }

    Display* m_display;
    int m_screen;
    const NotificationRequest& m_request;
    const RgbImage& m_logo;
    std::u32string m_caption;
    std::u32string m_message;

    Window m_window = 0;
    GC m_gc = nullptr;
    XftDraw* m_draw = nullptr;
    std::vector<XftColor*> m_allocated;
    XftColor m_background{};
    XftColor m_foreground{};
    XftColor m_border{};
    XftColor m_buttonFace{};
    XftColor m_buttonPressed{};
    XftColor m_buttonText{};
    Fonts m_normalFonts;
    Fonts m_largeFonts;
    bool m_largeLook = false;
    bool m_pressed = false;
    int m_width = 0;
    int m_height = 0;
    Pixmap m_logoPixmap = 0;
    int m_logoWidth = 0;
    int m_logoHeight = 0;
    Atom m_deleteWindow = 0;
};

NotificationView::~NotificationView() {
    if (m_logoPixmap != 0) {
        XFreePixmap(m_display, m_logoPixmap);
    }
    if (m_draw != nullptr) {
        XftDrawDestroy(m_draw);
    }
    for (XftColor* colour : m_allocated) {
        XftColorFree(m_display, DefaultVisual(m_display, m_screen),
                     DefaultColormap(m_display, m_screen), colour);
    }
    if (m_gc != nullptr) {
        XFreeGC(m_display, m_gc);
    }
    if (m_window != 0) {
        XDestroyWindow(m_display, m_window);
    }
}

bool NotificationView::AllocColour(const char* name, XftColor& colour) {
    if (!XftColorAllocName(m_display, DefaultVisual(m_display, m_screen),
                           DefaultColormap(m_display, m_screen), name, &colour)) {
        return false;
    }
    m_allocated.push_back(&colour);
    return true;
}

bool NotificationView::Create(std::string& error) {
    if (!m_normalFonts.Open(m_display, m_screen, kNormalFonts) ||
        (m_request.fullscreen && !m_largeFonts.Open(m_display, m_screen, kLargeFonts))) {
        error = "no usable font (is a TrueType font such as DejaVu installed?)";
        return false;
    }
    if (!AllocColour("#f4f4f2", m_background) || !AllocColour("#1e1e1e", m_foreground) ||
        !AllocColour("#8c8c8c", m_border) || !AllocColour("#2b63c6", m_buttonFace) ||
        !AllocColour("#1b4391", m_buttonPressed) || !AllocColour("#ffffff", m_buttonText)) {
        error = "cannot allocate colours";
        return false;
    }
    const int screenWidth = DisplayWidth(m_display, m_screen);
    const int screenHeight = DisplayHeight(m_display, m_screen);
    const Rect place = m_request.fullscreen
                           ? Rect{0, 0, screenWidth, screenHeight}
                           : NormalWindowRect(screenWidth, screenHeight, m_request.windowOrder);
    m_width = place.width;
    m_height = place.height;
    m_window = XCreateSimpleWindow(m_display, RootWindow(m_display, m_screen), place.x, place.y,
                                   unsigned(place.width), unsigned(place.height), 0, m_border.pixel,
                                   m_background.pixel);
    SetProperties();
    XSelectInput(m_display, m_window,
                 ExposureMask | ButtonPressMask | ButtonReleaseMask | StructureNotifyMask);
    m_gc = XCreateGC(m_display, m_window, 0, nullptr);
    m_draw = XftDrawCreate(m_display, m_window, DefaultVisual(m_display, m_screen),
                           DefaultColormap(m_display, m_screen));
    if (m_draw == nullptr) {
        error = "cannot draw on the window";
        return false;
    }
    SetLook(m_request.fullscreen);
    XMapRaised(m_display, m_window);
    return true;
}

void NotificationView::SetProperties() {
    const std::string title = m_caption.empty() ? kDefaultTitle : EncodeUtf8(m_caption);
    XSizeHints size{};
    size.flags = USPosition | USSize | PMinSize;
    size.min_width = kMinWindowWidth;
    size.min_height = kMinWindowHeight;
    XWMHints hints{};
    hints.flags = InputHint | XUrgencyHint;
    hints.input = True;
    char name[] = "notifymessage";
    char className[] = "NotifyMessage";
    XClassHint classHint{name, className};
    XSetWMProperties(m_display, m_window, nullptr, nullptr, nullptr, 0, &size, &hints, &classHint);

    const Atom utf8 = Intern("UTF8_STRING");
    for (Atom property : {Atom(XA_WM_NAME), Intern("_NET_WM_NAME")}) {
        XChangeProperty(m_display, m_window, property, utf8, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(title.data()), int(title.size()));
    }
    m_deleteWindow = Intern("WM_DELETE_WINDOW");
    XSetWMProtocols(m_display, m_window, &m_deleteWindow, 1);

    const long pid = long(getpid());
    XChangeProperty(m_display, m_window, Intern("_NET_WM_PID"), XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(&pid), 1);
    // Stay above other windows; full-screen to begin with when asked.
    std::vector<Atom> state = {Intern("_NET_WM_STATE_ABOVE")};
    if (m_request.fullscreen) {
        state.push_back(Intern("_NET_WM_STATE_FULLSCREEN"));
    }
    XChangeProperty(m_display, m_window, Intern("_NET_WM_STATE"), XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(state.data()), int(state.size()));
}

void NotificationView::SetLook(bool large) {
    m_largeLook = large;
    if (m_logoPixmap != 0) {
        XFreePixmap(m_display, m_logoPixmap);
        m_logoPixmap = 0;
        m_logoWidth = m_logoHeight = 0;
    }
    Visual* visual = DefaultVisual(m_display, m_screen);
    if (m_logo.width <= 0 || visual->c_class != TrueColor) {
        return; // no logo, or a display whose colours this simple path cannot map
    }
    const int side = LogoBoxSide(m_height, large);
    const RgbImage scaled = ScaleToFit(m_logo, side, side);
    if (scaled.width <= 0) {
        return;
    }
    const int depth = DefaultDepth(m_display, m_screen);
    XImage* image = XCreateImage(m_display, visual, unsigned(depth), ZPixmap, 0, nullptr,
                                 unsigned(scaled.width), unsigned(scaled.height), 32, 0);
    if (image == nullptr) {
        return;
    }
    image->data = static_cast<char*>(calloc(size_t(image->bytes_per_line), size_t(scaled.height)));
    if (image->data == nullptr) {
        XDestroyImage(image);
        return;
    }
    for (int y = 0; y < scaled.height; ++y) {
        for (int x = 0; x < scaled.width; ++x) {
            const uint8_t* rgb = &scaled.rgb[(size_t(y) * size_t(scaled.width) + size_t(x)) * 3];
            XPutPixel(image, x, y,
                      Channel(rgb[0], visual->red_mask) | Channel(rgb[1], visual->green_mask) |
                          Channel(rgb[2], visual->blue_mask));
        }
    }
    m_logoPixmap = XCreatePixmap(m_display, m_window, unsigned(scaled.width),
                                 unsigned(scaled.height), unsigned(depth));
    XPutImage(m_display, m_logoPixmap, m_gc, image, 0, 0, 0, 0, unsigned(scaled.width),
              unsigned(scaled.height));
    XDestroyImage(image); // frees the pixel data too
    m_logoWidth = scaled.width;
    m_logoHeight = scaled.height;
}

void NotificationView::LeaveFullscreen() {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = m_window;
    event.xclient.message_type = Intern("_NET_WM_STATE");
    event.xclient.format = 32;
    event.xclient.data.l[0] = 0; // remove
    event.xclient.data.l[1] = long(Intern("_NET_WM_STATE_FULLSCREEN"));
    event.xclient.data.l[3] = 1; // from an application
    XSendEvent(m_display, RootWindow(m_display, m_screen), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &event);
    const Rect place = NormalWindowRect(DisplayWidth(m_display, m_screen),
                                        DisplayHeight(m_display, m_screen), m_request.windowOrder);
    m_width = place.width;
    m_height = place.height;
    SetLook(false);
    XMoveResizeWindow(m_display, m_window, place.x, place.y, unsigned(place.width),
                      unsigned(place.height));
}

void NotificationView::Redraw() {
    Fonts& fonts = CurrentFonts();
    const ContentLayout layout = LayoutContent(m_width, m_height, m_largeLook,
                                               fonts.caption->Height(), m_logoWidth, m_logoHeight);
    XClearWindow(m_display, m_window);
    // A frame drawn inside, so that the window's size is exactly its slot's.
    XftDrawRect(m_draw, &m_border, 0, 0, unsigned(m_width), 1);
    XftDrawRect(m_draw, &m_border, 0, m_height - 1, unsigned(m_width), 1);
    XftDrawRect(m_draw, &m_border, 0, 0, 1, unsigned(m_height));
    XftDrawRect(m_draw, &m_border, m_width - 1, 0, 1, unsigned(m_height));

    const MeasureText measureCaption = [&](const std::u32string& s) {
        return fonts.caption->Measure(s);
    };
    fonts.caption->Draw(m_draw, m_foreground, layout.caption.x,
                        layout.caption.y + fonts.caption->Ascent(),
                        FitLine(m_caption, layout.caption.width, measureCaption));
    if (m_logoPixmap != 0) {
        XCopyArea(m_display, m_logoPixmap, m_window, m_gc, 0, 0, unsigned(layout.logo.width),
                  unsigned(layout.logo.height), layout.logo.x, layout.logo.y);
    }
    const int lineHeight = fonts.text->Height() + kLineSpacing;
    const MeasureText measureText = [&](const std::u32string& s) { return fonts.text->Measure(s); };
    const std::vector<std::u32string> lines = WrapText(
        m_message, layout.text.width, size_t(layout.text.height / lineHeight), measureText);
    for (size_t i = 0; i < lines.size(); ++i) {
        fonts.text->Draw(m_draw, m_foreground, layout.text.x,
                         layout.text.y + int(i) * lineHeight + fonts.text->Ascent(), lines[i]);
    }
    DrawButton(layout.button);
}

void NotificationView::DrawButton(const Rect& button) {
    FontChain& font = *CurrentFonts().button;
    XftDrawRect(m_draw, m_pressed ? &m_buttonPressed : &m_buttonFace, button.x, button.y,
                unsigned(button.width), unsigned(button.height));
    const std::u32string label = DecodeUtf8(kButtonLabel);
    const int x = button.x + (button.width - font.Measure(label)) / 2;
    const int baseline = button.y + (button.height - font.Height()) / 2 + font.Ascent();
    font.Draw(m_draw, m_buttonText, x, baseline, label);
}

Outcome NotificationView::Run() {
    const Clock::time_point start = Clock::now();
    const bool timed = m_request.timeoutSeconds > 0;
    const Clock::time_point closeAt = start + std::chrono::seconds(m_request.timeoutSeconds);
    bool fullscreenTimed = m_request.fullscreen && m_request.fullscreenSeconds > 0;
    const Clock::time_point shrinkAt = start + std::chrono::seconds(m_request.fullscreenSeconds);
    const int connection = ConnectionNumber(m_display);

    for (;;) {
        while (XPending(m_display) > 0) {
            XEvent event;
            XNextEvent(m_display, &event);
            const Rect button = ButtonRect(m_width, m_height, m_largeLook);
            switch (event.type) {
            case Expose:
                if (event.xexpose.count == 0) {
                    Redraw();
                }
                break;
            case ConfigureNotify:
                if (event.xconfigure.width != m_width || event.xconfigure.height != m_height) {
                    m_width = event.xconfigure.width;
                    m_height = event.xconfigure.height;
                    Redraw();
                }
                break;
            case ButtonPress:
                if (event.xbutton.button == Button1 &&
                    button.Contains(event.xbutton.x, event.xbutton.y)) {
                    m_pressed = true;
                    DrawButton(button);
                }
                break;
            case ButtonRelease:
                if (event.xbutton.button == Button1 && m_pressed) {
                    m_pressed = false;
                    if (button.Contains(event.xbutton.x, event.xbutton.y)) {
                        return Outcome::Acknowledged;
                    }
                    DrawButton(button);
                }
                break;
            case ClientMessage:
                if (event.xclient.message_type == Intern("WM_PROTOCOLS") &&
                    event.xclient.format == 32 && Atom(event.xclient.data.l[0]) == m_deleteWindow) {
                    return Outcome::Closed;
                }
                break;
            default:
                break;
            }
        }
        const Clock::time_point now = Clock::now();
        if (timed && now >= closeAt) {
            return Outcome::TimedOut;
        }
        if (fullscreenTimed && now >= shrinkAt) {
            fullscreenTimed = false;
            LeaveFullscreen();
            continue; // send the requests, then wait
        }
        Clock::time_point wake = Clock::time_point::max();
        if (timed) {
            wake = closeAt;
        }
        if (fullscreenTimed && shrinkAt < wake) {
            wake = shrinkAt;
        }
        int waitMs = -1;
        if (wake != Clock::time_point::max()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now);
            waitMs = int(left.count()) + 1;
        }
        XFlush(m_display);
        pollfd readable{connection, POLLIN, 0};
        poll(&readable, 1, waitMs);
    }
}

} // namespace

Outcome ShowNotification(const NotificationRequest& request, const RgbImage& logo,
                         std::string& error) {
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        error = "cannot open the X display";
        return Outcome::Failed;
    }
    XSetErrorHandler(ReportXError);
    Outcome outcome = Outcome::Failed;
    {
        NotificationView view(display, request, logo);
        if (view.Create(error)) {
            outcome = view.Run();
        }
    }
    XCloseDisplay(display);
    return outcome;
}

} // namespace notifymsg

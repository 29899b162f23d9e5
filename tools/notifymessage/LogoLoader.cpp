#include "LogoLoader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace notifymsg {

namespace {

constexpr size_t kChunkBytes = 64 * 1024;

struct Sizing {
    int maxSide = 0;
    bool refused = false;
};

void OnSizePrepared(GdkPixbufLoader* loader, int width, int height, gpointer data) {
    Sizing& sizing = *static_cast<Sizing*>(data);
    if (width <= 0 || height <= 0 || width > kMaxLogoSide || height > kMaxLogoSide ||
        (long long)width * height > kMaxLogoPixels) {
        sizing.refused = true;
        gdk_pixbuf_loader_set_size(loader, 0, 0); // the format loaders stop at a 0 x 0 size
        return;
    }
    if (width > sizing.maxSide || height > sizing.maxSide) {
        const double scale = double(sizing.maxSide) / std::max(width, height);
        gdk_pixbuf_loader_set_size(loader, std::max(1, int(width * scale)),
                                   std::max(1, int(height * scale)));
    }
}

std::string Fail(int fd, const std::string& reason) {
    if (fd >= 0) {
        close(fd);
    }
    return reason;
}

} // namespace

GdkPixbuf* FitLogo(GdkPixbuf* logo, int boxSide) {
    const int width = gdk_pixbuf_get_width(logo);
    const int height = gdk_pixbuf_get_height(logo);
    if (width <= boxSide && height <= boxSide) {
        return GDK_PIXBUF(g_object_ref(logo));
    }
    const double scale = double(boxSide) / std::max(width, height);
    return gdk_pixbuf_scale_simple(logo, std::max(1, int(width * scale)),
                                   std::max(1, int(height * scale)), GDK_INTERP_BILINEAR);
}

GdkPixbuf* LoadLogo(const std::string& path, int maxSide, std::string& error) {
    // Non-blocking, so that a FIFO or a device cannot stall the open.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        error = std::string("cannot open it: ") + strerror(errno);
        return nullptr;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = Fail(fd, "not a regular file");
        return nullptr;
    }
    if (info.st_size <= 0 || size_t(info.st_size) > kMaxLogoFileBytes) {
        error = Fail(fd, "empty or larger than " + std::to_string(kMaxLogoFileBytes) + " bytes");
        return nullptr;
    }
    Sizing sizing;
    sizing.maxSide = std::max(1, maxSide);
    GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
    g_signal_connect(loader, "size-prepared", G_CALLBACK(OnSizePrepared), &sizing);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kLogoDecodeMs);
    std::vector<unsigned char> chunk(kChunkBytes);
    size_t total = 0;
    GError* failure = nullptr;
    bool fed = true;
    while (total < kMaxLogoFileBytes && !sizing.refused) {
        const ssize_t got = read(fd, chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        total += size_t(got);
        if (!gdk_pixbuf_loader_write(loader, chunk.data(), size_t(got), &failure)) {
            fed = false;
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            sizing.refused = true;
            error = "took too long to decode";
        }
    }
    close(fd);
    GError* closing = nullptr;
    const bool closed = gdk_pixbuf_loader_close(loader, fed ? &closing : nullptr);
    GdkPixbuf* image = gdk_pixbuf_loader_get_pixbuf(loader);
    GdkPixbuf* result = nullptr;
    if (sizing.refused) {
        if (error.empty()) {
            error = "its size is refused (more than " + std::to_string(kMaxLogoSide) +
                    " pixels a side or " + std::to_string(kMaxLogoPixels) + " pixels)";
        }
    } else if (!fed || !closed || image == nullptr) {
        GError* reason = failure != nullptr ? failure : closing;
        error = std::string("not an image that can be read") +
                (reason != nullptr ? std::string(": ") + reason->message : std::string());
    } else {
        result = FitLogo(image, sizing.maxSide);
    }
    g_clear_error(&failure);
    g_clear_error(&closing);
    g_object_unref(loader);
    return result;
}

} // namespace notifymsg

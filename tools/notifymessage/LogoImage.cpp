#include "LogoImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace notifymsg {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The next header number, skipping blanks and "#" comments; at most 5 digits.
bool HeaderNumber(const std::string& data, size_t& pos, int& value) {
    for (;;) {
        while (pos < data.size() && IsBlank(data[pos])) {
            ++pos;
        }
        if (pos < data.size() && data[pos] == '#') {
            while (pos < data.size() && data[pos] != '\n') {
                ++pos;
            }
            continue;
        }
        break;
    }
    value = 0;
    size_t digits = 0;
    while (pos < data.size() && data[pos] >= '0' && data[pos] <= '9') {
        if (++digits > 5) {
            return false;
        }
        value = value * 10 + (data[pos++] - '0');
    }
    return digits > 0;
}

} // namespace

bool ParseNetpbm(const std::string& data, RgbImage& image, std::string& error) {
    if (data.size() < 2 || data[0] != 'P' || (data[1] != '5' && data[1] != '6')) {
        error = "not a binary PPM or PGM image";
        return false;
    }
    const int channels = data[1] == '6' ? 3 : 1;
    size_t pos = 2;
    int width = 0;
    int height = 0;
    int maxval = 0;
    if (!HeaderNumber(data, pos, width) || !HeaderNumber(data, pos, height) ||
        !HeaderNumber(data, pos, maxval) || pos >= data.size() || !IsBlank(data[pos])) {
        error = "malformed image header";
        return false;
    }
    ++pos; // the single blank before the samples
    if (width < 1 || height < 1 || width > kMaxLogoSide || height > kMaxLogoSide || maxval < 1 ||
        maxval > 65535) {
        error = "image size or depth out of range";
        return false;
    }
    const size_t sampleBytes = maxval < 256 ? 1 : 2;
    const size_t samples = size_t(width) * size_t(height) * size_t(channels);
    if (data.size() - pos < samples * sampleBytes) {
        error = "image data is short";
        return false;
    }
    image.width = width;
    image.height = height;
    image.rgb.assign(size_t(width) * size_t(height) * 3, 0);
    const unsigned char* in = reinterpret_cast<const unsigned char*>(data.data()) + pos;
    for (size_t i = 0; i < samples; ++i) {
        unsigned value = sampleBytes == 1 ? in[i] : (unsigned(in[2 * i]) << 8) | in[2 * i + 1];
        value = std::min(value, unsigned(maxval)) * 255u / unsigned(maxval);
        if (channels == 3) {
            image.rgb[i] = uint8_t(value);
        } else {
            image.rgb[3 * i] = image.rgb[3 * i + 1] = image.rgb[3 * i + 2] = uint8_t(value);
        }
    }
    return true;
}

bool LoadLogo(const std::string& path, RgbImage& image, std::string& error) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    struct stat info;
    std::string data;
    bool ok =
        fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && size_t(info.st_size) <= kMaxLogoFileBytes;
    if (!ok) {
        error = "not a regular file of at most 64 MiB";
    }
    char buffer[65536];
    while (ok) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got == 0) {
            break;
        }
        if (got < 0 || data.size() + size_t(got) > kMaxLogoFileBytes) {
            error = got < 0 ? strerror(errno) : "file grew while being read";
            ok = false;
            break;
        }
        data.append(buffer, size_t(got));
    }
    close(fd);
    return ok && ParseNetpbm(data, image, error);
}

RgbImage ScaleToFit(const RgbImage& image, int boxWidth, int boxHeight) {
    if (image.width <= boxWidth && image.height <= boxHeight) {
        return image;
    }
    RgbImage scaled;
    if (boxWidth < 1 || boxHeight < 1 || image.width < 1 || image.height < 1) {
        return scaled;
    }
    // The smaller of the two ratios, kept exact in 64-bit integers.
    const bool byWidth = int64_t(boxWidth) * image.height <= int64_t(boxHeight) * image.width;
    scaled.width = byWidth ? boxWidth : int(int64_t(image.width) * boxHeight / image.height);
    scaled.height = byWidth ? int(int64_t(image.height) * boxWidth / image.width) : boxHeight;
    scaled.width = std::max(1, scaled.width);
    scaled.height = std::max(1, scaled.height);
    scaled.rgb.resize(size_t(scaled.width) * size_t(scaled.height) * 3);
    for (int y = 0; y < scaled.height; ++y) {
        const int sy = int(int64_t(y) * image.height / scaled.height);
        for (int x = 0; x < scaled.width; ++x) {
            const int sx = int(int64_t(x) * image.width / scaled.width);
            memcpy(&scaled.rgb[(size_t(y) * scaled.width + x) * 3],
                   &image.rgb[(size_t(sy) * image.width + sx) * 3], 3);
        }
    }
    return scaled;
}

} // namespace notifymsg

#include "transport/httputil.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <string_view>

namespace {

// Every reallocation by CopyToHttpBuf is at least this large; messages stay
// below it so that one block holds each of them.
constexpr int64_t kMinBlock = 4096;
constexpr int kFormatArea = 1024;
// The header reader moves unread bytes to the front once this many are spent.
constexpr int kCompactOffset = 2048;

// Returned for "no whole line"; nobody writes to it.
char gEmptyLine[1];

// Brings the fields of a caller's buffer into a consistent state. Relied on
// afterwards: the block holds at least max(buflen, datalen) + 1 bytes.
void Normalise(tagHTTP_BUF* buf) {
    if (buf->data == nullptr) {
        buf->buflen = buf->datalen = buf->offset = 0;
        return;
    }
    buf->buflen = std::max(buf->buflen, 0);
    buf->datalen = std::max(buf->datalen, 0);
    buf->offset = std::clamp(buf->offset, 0, buf->datalen);
}

bool ResizeBlock(tagHTTP_BUF* buf, int64_t size) {
    char* grown = static_cast<char*>(realloc(buf->data, size_t(size)));
    if (grown == nullptr) {
        return false;
    }
    buf->data = grown;
    return true;
}

ssize_t ReceiveSome(int socket, char* into, int64_t count) {
    ssize_t got;
    do {
        got = recv(socket, into, size_t(count), 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

// Index of the first byte of the unread header's terminating blank line, or -1.
int FindUnreadHeaderEnd(const tagHTTP_BUF* buf) {
    if (buf->datalen - buf->offset < 4) {
        return -1;
    }
    int terminatorSize = 0;
    const int at =
        FindHttpHeaderEnd(buf->data + buf->offset, buf->datalen - buf->offset, &terminatorSize);
    return at < 0 ? -1 : buf->offset + at;
}

} // namespace

extern "C" {

void CopyToHttpBuf(tagHTTP_BUF* buf, const char* text) {
    if (buf == nullptr || text == nullptr) {
        return;
    }
    Normalise(buf);
    const size_t n = strlen(text);
    if (n > size_t(INT_MAX - 1 - buf->datalen)) {
        return; // datalen must stay an int
    }
    const int64_t length = int64_t(n);
    const int64_t datalen = buf->datalen;
    const int64_t buflen = buf->buflen;
    if (length >= buflen - datalen) {
        // Kept: the growth rule, with buflen left as it is. The second
        // bound only matters once a message reaches 4096 bytes, where the rule
        // alone would be too small.
        const int64_t size =
            std::max({kMinBlock, length + 2 * buflen - datalen + 1, datalen + length + 1});
        if (!ResizeBlock(buf, size)) {
            return;
        }
    }
    memcpy(buf->data + datalen, text, n + 1);
    buf->datalen += int(n);
}

void vsprintfToHttpBuf(tagHTTP_BUF* buf, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    char area[kFormatArea];
    const int length = vsnprintf(area, sizeof area, format, args);
    if (length >= 0 && length < kFormatArea) {
        CopyToHttpBuf(buf, area);
    } else if (length >= kFormatArea) {
        // Too long for the area: format again into a block of the exact size.
        char* piece = static_cast<char*>(malloc(size_t(length) + 1));
        if (piece != nullptr) {
            vsnprintf(piece, size_t(length) + 1, format, again);
            CopyToHttpBuf(buf, piece);
            free(piece);
        }
    }
    va_end(again);
}

void sprintfToHttpBuf(tagHTTP_BUF* buf, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsprintfToHttpBuf(buf, format, args);
    va_end(args);
}

void CopyHttpBuf(const tagHTTP_BUF* src, tagHTTP_BUF* dst, int n) {
    int available = 0;
    const char* from = nullptr;
    if (src->data != nullptr && src->datalen > 0) {
        const int offset = std::clamp(src->offset, 0, src->datalen);
        available = src->datalen - offset;
        from = src->data + offset;
    }
    const int count = std::clamp(n, 0, available);
    dst->offset = 0;
    dst->data = static_cast<char*>(malloc(size_t(count) + 1));
    if (dst->data == nullptr) {
        dst->buflen = dst->datalen = 0;
        return;
    }
    if (count > 0) {
        memcpy(dst->data, from, size_t(count));
    }
    dst->data[count] = '\0';
    dst->buflen = dst->datalen = count;
}

void FreeHttpBuf(tagHTTP_BUF* buf) {
    if (buf == nullptr) {
        return;
    }
    free(buf->data);
    buf->data = nullptr;
    buf->buflen = buf->datalen = buf->offset = 0;
}

int BuildHttpReqHeader(tagHTTP_BUF* buf, const char* host, int* lengthPos) {
    // The caller's record may be uninitialised: clear it, never free it.
    buf->buflen = buf->datalen = buf->offset = 0;
    buf->data = nullptr;
    if (host == nullptr) {
        host = "";
    }
    sprintfToHttpBuf(buf, "POST http://%s/fakeurl.htm HTTP/1.1\n", host);
    CopyToHttpBuf(buf, "User-Agent: Corvane Manager/1.0\n");
    CopyToHttpBuf(buf, "Content-Type: application/x-www-form-urlencoded\n");
    CopyToHttpBuf(buf, "Content-Length: nnnnn\n");
    if (lengthPos != nullptr) {
        *lengthPos = buf->datalen - 6;
    }
    sprintfToHttpBuf(buf, "Host: %s\n", host);
    CopyToHttpBuf(buf, "Connection: Keep-Alive\n");
    CopyToHttpBuf(buf, "\n");
    return buf->datalen;
}

void SetContentLength(tagHTTP_BUF* buf, int lengthPos, int bodyLength) {
    // Patch only a field that is really there: five characters and a line feed.
    if (buf == nullptr || buf->data == nullptr || lengthPos < 0 || lengthPos > buf->datalen - 6 ||
        buf->data[lengthPos + 5] != '\n') {
        return;
    }
    char field[16];
    // A length that needs more than five characters would overwrite the rest
    // of the header: the placeholder is left as it is, so the receiver rejects
    // the message instead of misreading its length.
    if (snprintf(field, sizeof field, "%5d", bodyLength) != 5) {
        return;
    }
    memcpy(buf->data + lengthPos, field, 5);
}

int FindHttpHeaderEnd(const char* data, int length, int* terminatorSize) {
    if (data == nullptr || length <= 0) {
        return -1;
    }
    const std::string_view text(data, size_t(length));
    size_t at = text.find("\r\n\r\n");
    *terminatorSize = 4;
    if (at == std::string_view::npos) {
        at = text.find("\n\n");
        *terminatorSize = 2;
    }
    return at == std::string_view::npos ? -1 : int(at);
}

char* HttpGetLine(tagHTTP_BUF* buf) {
    if (buf == nullptr || buf->data == nullptr || buf->offset < 0 || buf->offset >= buf->datalen) {
        return gEmptyLine;
    }
    char* start = buf->data + buf->offset;
    char* lineFeed = static_cast<char*>(memchr(start, '\n', size_t(buf->datalen - buf->offset)));
    if (lineFeed == nullptr) {
        return gEmptyLine;
    }
    *lineFeed = '\0';
    if (lineFeed > start && lineFeed[-1] == '\r') {
        lineFeed[-1] = '\0';
    }
    buf->offset = int(lineFeed - buf->data) + 1;
    return start;
}

char* HttpMatchKeyword(char* line, const char* keyword) {
    if (line == nullptr || keyword == nullptr) {
        return nullptr;
    }
    char* equals = strchr(line, '=');
    const size_t keyLength = equals != nullptr ? size_t(equals - line) : strlen(line);
    if (strlen(keyword) != keyLength || strncasecmp(line, keyword, keyLength) != 0) {
        return nullptr;
    }
    return equals != nullptr ? equals + 1 : line;
}

char* ReadHttpHeader(int socket, tagHTTP_BUF* buf) {
    Normalise(buf);
    if (buf->offset > kCompactOffset) {
        memmove(buf->data, buf->data + buf->offset, size_t(buf->datalen - buf->offset));
        buf->datalen -= buf->offset;
        buf->offset = 0;
        buf->data[buf->datalen] = '\0';
    }
    int end;
    while ((end = FindUnreadHeaderEnd(buf)) < 0) {
        if (buf->datalen >= buf->buflen / 2) {
            int64_t grown = std::max<int64_t>(kMinBlock, 2 * int64_t(buf->buflen));
            while (grown <= buf->datalen) {
                grown *= 2;
            }
            grown = std::min<int64_t>(grown, kMaxHttpHeaderBytes);
            if (buf->datalen >= grown || !ResizeBlock(buf, grown + 1)) {
                printf("(httputil.c) Error %d reading HTTP response header\n", EMSGSIZE);
                FreeHttpBuf(buf);
                return nullptr;
            }
            buf->buflen = int(grown);
            buf->data[buf->buflen] = '\0';
        }
        const ssize_t got =
            ReceiveSome(socket, buf->data + buf->datalen, buf->buflen - buf->datalen);
        if (got <= 0) {
            printf("(httputil.c) Error %d reading HTTP response header\n", got < 0 ? errno : 0);
            FreeHttpBuf(buf);
            return nullptr;
        }
        buf->datalen += int(got);
        buf->data[buf->datalen] = '\0';
    }
    buf->data[end] = '\n';
    buf->data[end + 1] = '\0';
    return buf->data + buf->offset;
}

char* ReadHttpBody(int socket, tagHTTP_BUF* buf, int contentLength) {
    Normalise(buf);
    if (buf->data == nullptr) {
        buf->data = static_cast<char*>(calloc(1, 1));
        if (buf->data == nullptr) {
            return nullptr;
        }
    }
    while (buf->offset < buf->datalen && static_cast<signed char>(buf->data[buf->offset]) <= 31) {
        ++buf->offset;
    }
    const int64_t end = int64_t(buf->offset) + contentLength;
    if (contentLength > kMaxHttpBodyBytes || end > INT_MAX - 1) {
        FreeHttpBuf(buf);
        return nullptr;
    }
    for (int64_t missing = end - buf->datalen; missing > 0; missing = end - buf->datalen) {
        if (buf->buflen < end) {
            if (!ResizeBlock(buf, end + 1)) {
                FreeHttpBuf(buf);
                return nullptr;
            }
            buf->buflen = int(end);
            buf->data[buf->buflen] = '\0';
        }
        const ssize_t got = ReceiveSome(socket, buf->data + buf->datalen, missing);
        if (got <= 0) {
            FreeHttpBuf(buf);
            return nullptr;
        }
        buf->datalen += int(got);
    }
    buf->data[buf->datalen] = '\0';
    return buf->data + buf->offset;
}

uint32_t MakeMajorMinVerParam(const char* text) {
    char area[100] = {};
    if (text != nullptr) {
        memcpy(area, text, strnlen(text, sizeof area - 1));
    }
    long minor = 0;
    if (char* dot = strchr(area, '.')) {
        *dot = '\0';
        minor = strtol(dot + 1, nullptr, 10);
    }
    const long major = strtol(area, nullptr, 10);
    uint32_t majorBits = uint32_t(major) & 0xFFFF;
    if (majorBits == 0) {
        majorBits = 1;
    }
    return uint32_t(minor) << 16 | majorBits;
}

} // extern "C"

// Response dispatch on the link's read thread: is a whole message in the
// receive buffer, take it off the front, hand its body to the command's
// handler. Every search is bounded by the buffer's data length, so NULs or
// garbage in the stream cannot run a scan off the end.
#include <string.h>
#include <strings.h>

#include <limits.h>

#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"

namespace vel {

namespace {

constexpr char kContentLength[] = "Content-length:";
constexpr int kContentLengthSize = 15;

int FindBytes(const char* data, int length, const char* pattern) {
    const size_t n = strlen(pattern);
    if (length <= 0 || size_t(length) < n) {
        return -1;
    }
    const void* at = memmem(data, size_t(length), pattern, n);
    return at != nullptr ? int(static_cast<const char*>(at) - data) : -1;
}

// Where the header ends: the first "\r\n\r\n", else the first "\n\n".
bool FindHeaderEnd(const tagHTTP_BUF& buf, int* terminator, int* terminatorSize) {
    int at = FindBytes(buf.data, buf.datalen, "\r\n\r\n");
    if (at >= 0) {
        *terminator = at;
        *terminatorSize = 4;
        return true;
    }
    at = FindBytes(buf.data, buf.datalen, "\n\n");
    if (at >= 0) {
        *terminator = at;
        *terminatorSize = 2;
        return true;
    }
    return false;
}

// Decimal after a "Content-length:" of [from, to): blanks, sign, digits.
long long NumberAfter(const char* from, const char* to) {
    while (from < to && (*from == ' ' || *from == '\t')) {
        ++from;
    }
    bool negative = false;
    if (from < to && (*from == '+' || *from == '-')) {
        negative = *from == '-';
        ++from;
    }
    long long value = 0;
    while (from < to && *from >= '0' && *from <= '9' && value <= INT_MAX) {
        value = value * 10 + (*from - '0');
        ++from;
    }
    return negative ? -value : value;
}

// The first "Content-length:" (any case) inside [begin, end); 0 if none.
long long FindContentLength(const char* begin, const char* end) {
    for (const char* p = begin; end - p >= kContentLengthSize; ++p) {
        if (strncasecmp(p, kContentLength, kContentLengthSize) == 0) {
            return NumberAfter(p + kContentLengthSize, end);
        }
    }
    return 0;
}

} // namespace

bool CHTCTL::MessagePending(tagHTTP_BUF& buf, CTL_HTTP_CONNECTION& connection) {
    if (buf.data == nullptr || buf.datalen < 8) {
        return false;
    }
    int terminator = 0;
    int terminatorSize = 0;
    if (!FindHeaderEnd(buf, &terminator, &terminatorSize)) {
        return false;
    }
    int start = FindBytes(buf.data, terminator, "HTTP/1.");
    if (start < 0) {
        start = FindBytes(buf.data, terminator, "NC_DATA");
    }
    if (start < 0) {
        connection.Disconnect();
        return false;
    }
    const long long length = FindContentLength(buf.data + start, buf.data + terminator);
    if (length <= 0) {
        connection.Disconnect();
        return false;
    }
    const int bodyStart = terminator + terminatorSize;
    return buf.datalen - bodyStart >= length;
}

bool CHTCTL::ProcessMessage(tagHTTP_BUF& buf, CTL_HTTP_CONNECTION& connection) {
    int terminator = 0;
    int terminatorSize = 0;
    if (buf.data == nullptr || !FindHeaderEnd(buf, &terminator, &terminatorSize)) {
        return true;
    }
    char* const data = buf.data;
    const int bodyStart = terminator + terminatorSize;
    // Cut the header: it now ends in one line feed and a NUL.
    data[terminator] = '\n';
    data[terminator + 1] = '\0';
    const int headerSize = terminator + 1;

    bool response = true;
    int start = FindBytes(data, headerSize, "HTTP/1.");
    if (start >= 0) {
        const char* lineEnd =
            static_cast<const char*>(memchr(data + start, '\n', size_t(headerSize - start)));
        const char* blank =
            static_cast<const char*>(memchr(data + start, ' ', size_t(lineEnd - (data + start))));
        if (blank == nullptr || NumberAfter(blank + 1, lineEnd) != 200) {
            return false;
        }
    } else {
        start = FindBytes(data, headerSize, "NC_DATA\n");
        if (start < 0) {
            return false;
        }
        response = false;
    }
    buf.offset = start;

    // Header lines up to the empty line; the last Content-length wins.
    long long length = 0;
    for (const char* line = data + start; line < data + headerSize;) {
        const char* end =
            static_cast<const char*>(memchr(line, '\n', size_t(data + headerSize - line)));
        if (end == line || (end == line + 1 && *line == '\r')) {
            break;
        }
        if (end - line >= kContentLengthSize &&
            strncasecmp(line, kContentLength, kContentLengthSize) == 0) {
            length = NumberAfter(line + kContentLengthSize, end);
        }
        line = end + 1;
    }
    // Below 1, or more than has arrived (the first Content-length, which said
    // the message was whole, lied): the link cannot be trusted.
    if (length < 1 || length > buf.datalen - bodyStart) {
        return false;
    }
    const int bodyEnd = bodyStart + int(length);

    // The body is handled in place, terminated for the handlers' sake; the
    // byte after it (the next message's first, or the buffer's NUL) is put back.
    const char saved = data[bodyEnd];
    data[bodyEnd] = '\0';
    if (response) {
        ProcessMessageBody(data + bodyStart, int(length), connection);
    } else {
        ProcessNCData(data + bodyStart, int(length), connection);
    }
    data[bodyEnd] = saved;

    // Anything before the start line goes with the message.
    const int remaining = buf.datalen - bodyEnd;
    memmove(data, data + bodyEnd, size_t(remaining));
    buf.datalen = remaining;
    buf.offset = 0;
    data[remaining] = '\0';
    return true;
}

bool CHTCTL::ProcessMessageBody(char* body, int length, CTL_HTTP_CONNECTION& connection) {
    tagHTTP_BUF view = {length + 1, length, 0, body};
    const char* command = nullptr;
    while (command == nullptr) {
        char* line = NextBodyLine(view);
        if (line == nullptr) {
            return true;
        }
        command = HttpMatchKeyword(line, "CMD");
    }
    typedef void (CHTCTL::*Handler)(tagHTTP_BUF&, CTL_HTTP_CONNECTION&);
    static const struct {
        const char* m_command;
        Handler m_handler; // null: accepted and ignored
    } kCommands[] = {
        {"OPEN_REPLY", &CHTCTL::OnOpenReply},
        {"CONNECT", &CHTCTL::OnConnect},
        {"HANGUP", &CHTCTL::OnHangup},
        {"NC_DATA", &CHTCTL::OnNCData},
        {"ACK", nullptr},
        {"CLOSE", &CHTCTL::OnClose},
        {"BROWSE_REPLY", &CHTCTL::OnBrowseReply},
        {"CONNECT_REPLY", &CHTCTL::OnConnectReply},
        {"CONFIG_UPDATE", &CHTCTL::OnConfigUpdate},
        {"ADDDOMAIN_REPLY", &CHTCTL::OnAddDomainReply},
        {"HEARTBEAT", nullptr},
        {"MESSAGE", &CHTCTL::OnMessage},
        {"GETFILEINFO_REPLY", &CHTCTL::OnGetFileInfoReply},
    };
    for (const auto& entry : kCommands) {
        if (strcasecmp(command, entry.m_command) == 0) {
            if (entry.m_handler != nullptr) {
                (this->*entry.m_handler)(view, connection);
            }
            return true;
        }
    }
    OnUnknownResponse(view, const_cast<char*>(command));
    return true;
}

void CHTCTL::OnUnknownResponse(tagHTTP_BUF& body, char*) {
    ForEachBodyLine(body, [](char*) {});
}

} // namespace vel

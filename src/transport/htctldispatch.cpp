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
    *terminator = FindHttpHeaderEnd(buf.data, buf.datalen, terminatorSize);
    return *terminator >= 0;
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

bool IsContentLength(const char* at, const char* end) {
    return end - at >= kContentLengthSize &&
           strncasecmp(at, kContentLength, kContentLengthSize) == 0;
}

// Kept: the two readers of a header differ. MessagePending only asks whether
// a whole message has arrived: the start line may be "NC_DATA" alone and the
// first "Content-length:" anywhere after it counts. ProcessMessage, which
// takes the message off, reads header lines: a data block's start line is
// "NC_DATA" and a line feed, and the last "Content-length:" line wins, so a
// later length that claims more than has arrived drops the link.
enum class HeaderRule { kPending, kProcess };

struct HeaderFacts {
    int m_start;        // index of the start line, -1: none
    bool m_response;    // "HTTP/1." rather than a data block
    long long m_length; // the body length the header gives, 0: none
};

// The header is data[0, headerSize).
HeaderFacts ReadHeader(const char* data, int headerSize, HeaderRule rule) {
    HeaderFacts facts = {FindBytes(data, headerSize, "HTTP/1."), true, 0};
    if (facts.m_start < 0) {
        facts.m_start =
            FindBytes(data, headerSize, rule == HeaderRule::kPending ? "NC_DATA" : "NC_DATA\n");
        facts.m_response = false;
    }
    if (facts.m_start < 0) {
        return facts;
    }
    const char* const end = data + headerSize;
    if (rule == HeaderRule::kPending) {
        for (const char* p = data + facts.m_start; p < end; ++p) {
            if (IsContentLength(p, end)) {
                facts.m_length = NumberAfter(p + kContentLengthSize, end);
                break;
            }
        }
        return facts;
    }
    for (const char* line = data + facts.m_start; line < end;) {
        const char* lineEnd = static_cast<const char*>(memchr(line, '\n', size_t(end - line)));
        if (lineEnd == line || (lineEnd == line + 1 && *line == '\r')) {
            break;
        }
        if (IsContentLength(line, lineEnd)) {
            facts.m_length = NumberAfter(line + kContentLengthSize, lineEnd);
        }
        line = lineEnd + 1;
    }
    return facts;
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
    const HeaderFacts header = ReadHeader(buf.data, terminator, HeaderRule::kPending);
    if (header.m_start < 0 || header.m_length <= 0) {
        connection.Disconnect();
        return false;
    }
    const int bodyStart = terminator + terminatorSize;
    return buf.datalen - bodyStart >= header.m_length;
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

    const HeaderFacts header = ReadHeader(data, headerSize, HeaderRule::kProcess);
    if (header.m_start < 0) {
        return false;
    }
    if (header.m_response) {
        const char* start = data + header.m_start;
        const char* lineEnd =
            static_cast<const char*>(memchr(start, '\n', size_t(headerSize - header.m_start)));
        const char* blank = static_cast<const char*>(memchr(start, ' ', size_t(lineEnd - start)));
        if (blank == nullptr || NumberAfter(blank + 1, lineEnd) != 200) {
            return false;
        }
    }
    buf.offset = header.m_start;
    // Below 1, or more than has arrived: the link cannot be trusted.
    const long long length = header.m_length;
    if (length < 1 || length > buf.datalen - bodyStart) {
        return false;
    }
    const int bodyEnd = bodyStart + int(length);

    // The body is handled in place, terminated for the handlers' sake; the
    // byte after it (the next message's first, or the buffer's NUL) is put back.
    const char saved = data[bodyEnd];
    data[bodyEnd] = '\0';
    if (header.m_response) {
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
    std::string command;
    for (bool found = false; !found;) {
        char* line = NextBodyLine(view);
        if (line == nullptr) {
            return true;
        }
        found = TakeField(line, "CMD", command);
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
        if (strcasecmp(command.c_str(), entry.m_command) == 0) {
            if (entry.m_handler != nullptr) {
                (this->*entry.m_handler)(view, connection);
            }
            return true;
        }
    }
    OnUnknownResponse(view, &command[0]);
    return true;
}

void CHTCTL::OnUnknownResponse(tagHTTP_BUF& body, char*) {
    ForEachBodyLine(body, [](char*) {});
}

} // namespace vel

// Gateway messages in both directions: an outgoing one under construction (an
// HTTP POST to a link's gateway, or a bare data frame, then body lines, the
// length patch and one write) and the walk over a received body's lines. Used
// on any thread; the caller holds whatever lock its message needs.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "host/MachineDetails.h"
#include "transport/htctlconnection.h"
#include "transport/htctlparse.h"
#include "transport/htctlsession.h"
#include "transport/httputil.h"

namespace vel {

class OutgoingMessage {
public:
    // A POST addressed to the link's gateway.
    explicit OutgoingMessage(const CTL_HTTP_CONNECTION& connection) {
        m_header = BuildHttpReqHeader(&m_buf, connection.m_gateway.c_str(), &m_lengthPos);
    }
    // A bare data frame: "NC_DATA", its length line and an empty line.
    struct BareFrame {};
    explicit OutgoingMessage(BareFrame) {
        CopyToHttpBuf(&m_buf, "NC_DATA\n");
        CopyToHttpBuf(&m_buf, "Content-Length: nnnnn\n");
        m_lengthPos = m_buf.datalen - 6;
        CopyToHttpBuf(&m_buf, "\n");
        m_header = m_buf.datalen;
    }
    ~OutgoingMessage() { FreeHttpBuf(&m_buf); }
    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    void Add(const char* text) { CopyToHttpBuf(&m_buf, text != nullptr ? text : ""); }
    void Line(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        vsprintfToHttpBuf(&m_buf, format, args);
        va_end(args);
    }
    // "PROTOCOL_VER=major.minor" of a packed version.
    void VersionLine(DWORD version) {
        Line("PROTOCOL_VER=%u.%u\n", unsigned(version & 0xFFFF), unsigned(version >> 16));
    }
    int BodyLength() const { return m_buf.datalen - m_header; }
    // The whole message as it would be written.
    std::string Text() {
        Patch();
        return std::string(m_buf.data != nullptr ? m_buf.data : "", size_t(m_buf.datalen));
    }

    // Patches the length and writes the whole message; the Write result.
    int WriteTo(CTL_HTTP_CONNECTION& connection) {
        Patch();
        return connection.Write(m_buf.data, m_buf.datalen);
    }
    int WriteTo(CTL_HTTP_SESSION& session) {
        Patch();
        return session.Write(m_buf.data, m_buf.datalen);
    }

private:
    void Patch() { SetContentLength(&m_buf, m_lengthPos, BodyLength()); }

    tagHTTP_BUF m_buf = {0, 0, 0, nullptr};
    int m_lengthPos = 0;
    int m_header = 0;
};

// The next line of a received body, or null at the first empty line or the
// end (lines are cut in place, as HttpGetLine does).
inline char* NextBodyLine(tagHTTP_BUF& body) {
    char* line = HttpGetLine(&body);
    return line != nullptr && *line != '\0' ? line : nullptr;
}

// Calls f(line) for each line of a received body up to the first empty line
// or the end.
template <class F> void ForEachBodyLine(tagHTTP_BUF& body, F f) {
    while (char* line = NextBodyLine(body)) {
        f(line);
    }
}

// The one field reader of received bodies: when the KEY=VALUE line's key is
// `key` (any case), stores its value in `value` (as text; as a number with
// the C library's leniency: decimal, unsigned cut to the wire's 32 bits, or
// unsigned 64-bit) and returns true.
inline bool TakeField(char* line, const char* key, std::string& value) {
    const char* found = HttpMatchKeyword(line, key);
    if (found != nullptr) {
        value = found;
    }
    return found != nullptr;
}
inline bool TakeField(char* line, const char* key, int& value) {
    const char* found = HttpMatchKeyword(line, key);
    if (found != nullptr) {
        value = ParseDecimal(found);
    }
    return found != nullptr;
}
inline bool TakeField(char* line, const char* key, uint32_t& value) {
    const char* found = HttpMatchKeyword(line, key);
    if (found != nullptr) {
        value = uint32_t(ParseUnsigned(found));
    }
    return found != nullptr;
}
inline bool TakeField(char* line, const char* key, uint64_t& value) {
    const char* found = HttpMatchKeyword(line, key);
    if (found != nullptr) {
        value = strtoull(found, nullptr, 10);
    }
    return found != nullptr;
}

// The machine as requests name it: the host name and the MAC address of the
// interface behind the link's socket.
struct HostIdentity {
    std::string m_hostName;
    std::string m_mac;
};
inline HostIdentity ReadHostIdentity(const CTL_HTTP_CONNECTION& connection) {
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    HostIdentity identity{host, ""};
    connection.UseSocket([&](int s) { GetMachineMacAddress(identity.m_mac, s); });
    return identity;
}

} // namespace vel

#include "GatewayWire.h"

#include "transport/CRC32.h"
#include "transport/yenc.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <strings.h>

namespace devgw {

std::string Request::Field(const std::string& key) const {
    for (auto it = fields.rbegin(); it != fields.rend(); ++it) {
        if (it->first == key) {
            return it->second;
        }
    }
    return "";
}

bool Request::Has(const std::string& key) const {
    for (const auto& field : fields) {
        if (field.first == key) {
            return true;
        }
    }
    return false;
}

std::string WrapResponse(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The client reads these as NUL-separated texts after the message; a text
// that is not given is left out, except that an empty time-out/caption text
// keeps its place when flags follow it.
std::string NotificationText(const std::string& message, const std::string& timeoutAndCaption,
                             const std::string& flags) {
    std::string text = message;
    if (timeoutAndCaption.empty() && flags.empty()) {
        return text;
    }
    text += '\0';
    text += timeoutAndCaption;
    text += '\0';
    if (!flags.empty()) {
        text += flags;
        text += '\0';
    }
    return text;
}

namespace wire {
namespace {

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

bool Encodable(const std::string& payload) {
    return payload.size() <= kMaxMessageBytes;
}

std::string Base64(const std::string& bytes) {
    if (!Encodable(bytes)) {
        return "";
    }
    std::unique_ptr<char, FreeDeleter> text(
        Encode64(reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size())));
    return text ? std::string(text.get()) : std::string();
}

std::string YEnc(const std::string& bytes) {
    if (!Encodable(bytes)) {
        return "";
    }
    char* out = nullptr;
    int n = yEncode(reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()), &out);
    std::unique_ptr<char, FreeDeleter> owned(out);
    return (owned && n > 0) ? std::string(owned.get(), size_t(n)) : std::string();
}

unsigned Crc(const std::string& payload) {
    if (!Encodable(payload)) {
        return 0;
    }
    return CRC32_Update(0xFFFFFFFFu, payload.data(), int(payload.size()));
}

bool StartsWithNoCase(const std::string& text, size_t at, const char* prefix) {
    size_t n = std::char_traits<char>::length(prefix);
    return text.size() - at >= n && strncasecmp(text.c_str() + at, prefix, n) == 0;
}

} // namespace

bool SameCommand(const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) == 0;
}

size_t HeaderEnd(const std::string& data) {
    for (size_t nl = data.find('\n'); nl != std::string::npos; nl = data.find('\n', nl + 1)) {
        if (nl + 1 < data.size() && data[nl + 1] == '\n') {
            return nl + 2;
        }
        if (nl + 2 < data.size() && data[nl + 1] == '\r' && data[nl + 2] == '\n') {
            return nl + 3;
        }
    }
    return std::string::npos;
}

long ContentLength(const std::string& header) {
    static const char kKey[] = "content-length:";
    long length = 0;
    for (size_t line = 0; line < header.size();) {
        size_t next = header.find('\n', line);
        if (next == std::string::npos) {
            next = header.size();
        }
        if (StartsWithNoCase(header, line, kKey)) {
            size_t i = line + sizeof(kKey) - 1;
            while (i < next && (header[i] == ' ' || header[i] == '\t')) {
                ++i;
            }
            length = 0;
            for (; i < next && header[i] >= '0' && header[i] <= '9'; ++i) {
                length = length * 10 + (header[i] - '0');
                if (length > long(kMaxMessageBytes)) {
                    return -1;
                }
            }
        }
        line = next + 1;
    }
    return length;
}

void ParseFields(const std::string& body, Request& out) {
    out.fields.clear();
    out.command.clear();
    bool haveCommand = false;
    for (size_t line = 0; line < body.size();) {
        size_t next = body.find('\n', line);
        if (next == std::string::npos) {
            next = body.size();
        }
        std::string text = body.substr(line, next - line);
        if (!text.empty() && text.back() == '\r') {
            text.pop_back();
        }
        line = next + 1;
        if (text.empty()) {
            continue;
        }
        size_t eq = text.find('=');
        std::string key = text.substr(0, eq);
        std::string value = eq == std::string::npos ? std::string() : text.substr(eq + 1);
        if (!haveCommand && strcasecmp(key.c_str(), "CMD") == 0) {
            out.command = value;
            haveCommand = true;
        }
        out.fields.emplace_back(std::move(key), std::move(value));
    }
}

Take TakeRequest(std::string& buffer, Request& out) {
    size_t end = HeaderEnd(buffer);
    if (end == std::string::npos) {
        return buffer.size() > kMaxMessageBytes ? Take::TooLarge : Take::Incomplete;
    }
    if (end > kMaxMessageBytes) {
        return Take::TooLarge;
    }
    long length = ContentLength(buffer.substr(0, end));
    if (length < 0) {
        return Take::TooLarge;
    }
    if (buffer.size() - end < size_t(length)) {
        return Take::Incomplete;
    }
    out.header = buffer.substr(0, end);
    out.body = buffer.substr(end, size_t(length));
    out.raw = buffer.substr(0, end + size_t(length));
    buffer.erase(0, end + size_t(length));
    ParseFields(out.body, out);
    return Take::Taken;
}

std::string OpenReplyBody(const Options& options) {
    std::string body = "CMD=OPEN_REPLY\nSERVER_VERSION=" + options.serverVersion + "\n";
    body += "RESULT=" + std::to_string(options.result) + "\n";
    if (!options.cmpi.empty()) {
        body += "CMPI=" + options.cmpi + "\n";
    }
    if (!options.protocolVersion.empty()) {
        body += "PROTOCOL_VER=" + options.protocolVersion + "\n";
    }
    if (options.failedReason >= 0) {
        body += "FAILED_REASON=" + std::to_string(options.failedReason) + "\n";
    }
    return body + "MAXPACKET=928\n";
}

std::string MessageBody(int id, const std::string& sender, const std::string& text) {
    return "CMD=MESSAGE\nID=" + std::to_string(id) + "\nSENDER=" + sender +
           "\nMSG=" + Base64(text) + "\n";
}

std::string ConfigUpdateBody(unsigned cmpiSeconds) {
    return "CMD=CONFIG_UPDATE\nCMPI=" + std::to_string(cmpiSeconds) + "\n";
}

std::string FileInfoReplyBody(const std::string& link, const std::string& fname,
                              uint64_t lastWriteTime, uint64_t size, int result) {
    return "CMD=GETFILEINFO_REPLY\nRESULT=" + std::to_string(result) + "\nLINK=" + link +
           "\nFNAME=" + fname + "\nSUB=\nFSIZE=" + std::to_string(size) +
           "\nLWT=" + std::to_string(lastWriteTime) + "\n";
}

std::string NCDataABody(unsigned connectionId, const std::string& payload, unsigned seq) {
    return "CMD=NC_DATA\nCONNECTION_ID=" + std::to_string(connectionId) +
           "\nNC_SEQNO=" + std::to_string(seq) + "\nNC_CRC=" + std::to_string(Crc(payload)) +
           "\nNC_LEN=" + std::to_string(payload.size()) + "\nNC_DATA=" + Base64(payload) + "\n";
}

std::string NCDataBFrame(unsigned connectionId, const std::string& payload, unsigned seq) {
    std::string body = "CID=" + std::to_string(connectionId) + "\nSEQ=" + std::to_string(seq) +
                       "\nCRC=" + std::to_string(Crc(payload)) +
                       "\nLEN=" + std::to_string(payload.size()) + "\nDATA=" + YEnc(payload) + "\n";
    return "NC_DATA\nContent-length: " + std::to_string(body.size()) + "\n\n" + body;
}

bool GetPath(const std::string& header, std::string& path) {
    size_t lineEnd = header.find_first_of("\r\n");
    std::string line = header.substr(0, lineEnd);
    if (line.compare(0, 4, "GET ") != 0) {
        return false;
    }
    size_t start = line.find_first_not_of(' ', 4);
    if (start == std::string::npos) {
        return false;
    }
    std::string target = line.substr(start, line.find(' ', start) - start);
    size_t scheme = target.find("://");
    if (scheme != std::string::npos) {
        size_t slash = target.find('/', scheme + 3);
        target = slash == std::string::npos ? "/" : target.substr(slash);
    }
    if (target.empty() || target[0] != '/') {
        return false;
    }
    path = target.substr(1);
    return true;
}

std::string GetResponse(const std::string* content) {
    if (!content) {
        static const std::string kNotFound = "not found\n";
        return "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: " +
               std::to_string(kNotFound.size()) + "\r\nConnection: close\r\n\r\n" + kNotFound;
    }
    return "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
           std::to_string(content->size()) + "\r\nConnection: close\r\n\r\n" + *content;
}

std::string Escape(const std::string& bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c >= 0x20 && c < 0x7F) {
                out += char(c);
            } else {
                out += "\\x";
                out += kHex[c >> 4];
                out += kHex[c & 15];
            }
        }
    }
    return out;
}

std::string Describe(const Request& request) {
    std::string line = "client " + std::to_string(request.client) + ":";
    if (request.fields.empty()) {
        line += " (no body, " + std::to_string(request.raw.size()) + " bytes)";
    }
    for (const auto& field : request.fields) {
        line += " " + Escape(field.first) + "=" + Escape(field.second);
    }
    return line;
}

} // namespace wire
} // namespace devgw

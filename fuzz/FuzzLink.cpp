#include "FuzzLink.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ndfuzz {

namespace {

// Keeps the compiler from dropping reads whose only purpose is ASan's check.
volatile unsigned gSink = 0;

void Touch(const void* bytes, int length) {
    if (bytes == nullptr || length <= 0) {
        return;
    }
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    unsigned sum = 0;
    for (int i = 0; i < length; ++i) {
        sum += p[i];
    }
    gSink = gSink + sum;
}

void TouchText(const char* text) {
    if (text != nullptr) {
        Touch(text, int(strlen(text)));
    }
}

void MakeNonBlocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

} // namespace

int FuzzCallback(int code, void*, CTL_CALLBACK* cb) {
    switch (code) {
    case kCtlDataReceived:
        TouchText(cb->data.addr);
        Touch(cb->data.data, cb->data.datalen);
        // A notification is the one record with session 0 and an empty
        // address (browse results carry ">context/address").
        if (cb->message.session == 0 && cb->message.addr != nullptr &&
            cb->message.addr[0] == '\0') {
            TouchText(cb->message.sender);
        }
        return 0;
    case kCtlConfigString:
        if (cb->configstr.buf != nullptr && cb->configstr.buflen > 0) {
            // Fills the whole buffer, as an application may: the transport
            // must terminate it itself.
            memset(cb->configstr.buf, 'A', size_t(cb->configstr.buflen));
        }
        return 0;
    case kCtlConfigInt:
        return cb->configint.dflt;
    case kCtlCalled:
        TouchText(cb->called.ctlname);
        TouchText(cb->called.addr);
        return 0;
    case kCtlFileInfo:
        TouchText(cb->fileinfo.linkname);
        TouchText(cb->fileinfo.filename);
        TouchText(cb->fileinfo.subfolder);
        TouchText(cb->fileinfo.serveraddress);
        return 0;
    default:
        return 0;
    }
}

FuzzLink::FuzzLink() {
    m_ctl = new vel::CHTCTL(443);
    tagCTLCREATEPARAMS params;
    memset(&params, 0, sizeof params);
    params.cbSize = 64;
    memcpy(params.name, "FUZZCLIENT", 10);
    params.ctltype = 8;
    params.slavetype = 1; // Create makes the table but connects nothing
    params.sessions = kFuzzSessions;
    params.callback = FuzzCallback;
    m_ctl->Create(&params);

    m_link = new vel::CTL_HTTP_CONNECTION("127.0.0.1:443", "KEY", m_ctl, nullptr);
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) {
        MakeNonBlocking(pair[0]);
        MakeNonBlocking(pair[1]);
        m_link->m_socket = pair[0];
        m_link->m_use_count = 1;
        m_peer = pair[1];
    }
    {
        vel::CSingleLock lock(&m_ctl->m_lock, TRUE);
        m_ctl->m_connections.push_back(m_link);
        // Requests the replies may answer.
        m_link->m_browse_pending = true;
        m_link->getfileinfo_pending = true;
        m_link->m_connect_session = kAttachedSessions;
    }
    vel::CSingleLock table(&static_cast<ICTLCommon<vel::CTL_HTTP_SESSION>&>(*m_ctl).m_lock, TRUE);
    for (int i = 0; i < kAttachedSessions && i < m_ctl->m_session_count; ++i) {
        m_ctl->m_sessions[i].Attach(m_link, (unsigned long)(i + 1));
    }
    if (kAttachedSessions <= m_ctl->m_session_count) {
        m_ctl->m_sessions[kAttachedSessions - 1].m_inuse = 2; // an outbound call
    }
}

FuzzLink::~FuzzLink() {
    delete m_ctl; // hangs the sessions up and deletes the link
    if (m_peer != -1) {
        close(m_peer);
    }
}

bool FuzzLink::Feed(const uint8_t* data, size_t size) {
    if (m_peer == -1) {
        return false;
    }
    while (size > 0) {
        const ssize_t sent = send(m_peer, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= size_t(sent);
    }
    return true;
}

void FuzzLink::Drain() {
    if (m_peer == -1) {
        return;
    }
    char scratch[4096];
    while (recv(m_peer, scratch, sizeof scratch, 0) > 0) {
    }
}

bool YencTextWouldAbort(const char* text, size_t size) {
    for (size_t i = 0; i < size && text[i] != '\0';) {
        if (text[i] == '=') {
            if (i + 1 >= size || text[i + 1] == '\0') {
                return true;
            }
            i += 2;
        } else {
            ++i;
        }
    }
    return false;
}

bool WouldHitRequiredYencAbort(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    size_t start = 0;
    while (start < size) {
        const void* feed = memchr(text + start, '\n', size - start);
        size_t end = feed != nullptr ? size_t(static_cast<const char*>(feed) - text) : size;
        // The line reader ends a line at a NUL or at a carriage return before
        // its line feed.
        const void* nul = memchr(text + start, '\0', end - start);
        if (nul != nullptr) {
            end = size_t(static_cast<const char*>(nul) - text);
        } else if (end > start && text[end - 1] == '\r') {
            --end;
        }
        const char* line = text + start;
        const size_t length = end - start;
        const void* equals = memchr(line, '=', length);
        if (equals != nullptr) {
            const size_t keyLength = size_t(static_cast<const char*>(equals) - line);
            if (keyLength == 4 && strncasecmp(line, "DATA", 4) == 0 &&
                YencTextWouldAbort(line + 5, length - 5)) {
                return true;
            }
        }
        start = (feed != nullptr ? size_t(static_cast<const char*>(feed) - text) : size) + 1;
    }
    return false;
}

} // namespace ndfuzz

// Transport test helpers: an application callback, links on socket pairs.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "transport/htctl.h"
#include "transport/yenc.h"

namespace transport_test {

// Creation types: the daemon's (its read loop reconnects a lost link) and the
// transport's default, a controlling side (sessions in use, no reconnection).
constexpr int kDaemonType = -1;
constexpr int kControlType = 8;

// What a callback carried, copied while it was valid.
struct Event {
    int code = 0, transport = 0, session = 0, messageid = 0;
    std::string addr, data, sender; // data: code 1 datalen bytes, code 10 the name
};

// Answers codes 7 and 8 from the maps (fill them before threads run), cancels
// (code 4) from `cancelAfter` polls on, and records every other event.
struct App {
    std::mutex mutex;
    std::map<std::string, std::string> text;
    std::map<std::string, int> integers;
    std::vector<Event> events;
    std::atomic<int> cancelAfter{-1}, cancelPolls{0};

    static int Callback(int code, void* cbdata, CTL_CALLBACK* cb) {
        auto* self = static_cast<App*>(cbdata);
        if (code == kCtlCheckCancel) {
            const int polls = self->cancelPolls++;
            return self->cancelAfter >= 0 && polls >= self->cancelAfter ? 1 : 0;
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        Event e{code, 0, 0, 0, "", "", ""};
        if (code == kCtlConfigString) {
            auto it = self->text.find(cb->configstr.key);
            if (it != self->text.end()) {
                strncpy(cb->configstr.buf, it->second.c_str(), size_t(cb->configstr.buflen));
            }
        } else if (code != kCtlConfigInt) {
            const auto& m = cb->message; // zero-filled: absent fields are 0
            e = {code, m.transport, m.session, m.messageid, "", "", ""};
            if (code == kCtlDataReceived) {
                e.addr = m.addr ? m.addr : "";
                e.data.assign(reinterpret_cast<const char*>(m.data), size_t(m.datalen));
                e.sender = m.sender ? m.sender : "";
            } else if (code == kCtlCalled) {
                e.addr = cb->called.addr;
                e.data = cb->called.ctlname;
            }
        }
        self->events.push_back(e);
        if (code == kCtlConfigInt) {
            auto it = self->integers.find(cb->configint.key);
            return it != self->integers.end() ? it->second : cb->configint.dflt;
        }
        return 0;
    }
    std::vector<Event> Of(int code) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Event> out;
        std::copy_if(events.begin(), events.end(), std::back_inserter(out),
                     [code](const Event& e) { return e.code == code; });
        return out;
    }
};

// Everything written to `fd` so far.
inline std::string Drain(int fd) {
    std::string out;
    char chunk[4096];
    ssize_t n;
    while ((n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
        out.append(chunk, size_t(n));
    }
    return out;
}

// Makes `link` "connected" through a socket pair; returns the peer's end.
inline int Pair(vel::CTL_HTTP_CONNECTION& link) {
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
        link.m_socket = fds[0];
        link.m_use_count = 1;
    }
    return fds[1];
}

// A paired link that the test owns.
struct PairedLink {
    explicit PairedLink(vel::CHTCTL* ctl, const char* gateway = "gw.example:443")
        : link(gateway, "key", ctl, nullptr), peer(Pair(link)) {}
    ~PairedLink() { close(peer); }
    std::string Drain() { return transport_test::Drain(peer); }
    vel::CTL_HTTP_CONNECTION link;
    int peer;
};

// A transport created without a gateway (slavetype 1) owning a paired link.
struct Harness {
    App app;
    vel::CHTCTL* ctl = new vel::CHTCTL(vel::kDefaultGatewayPort);
    vel::CTL_HTTP_CONNECTION* link =
        new vel::CTL_HTTP_CONNECTION("gw.example:443", "k", ctl, nullptr);
    int peer = Pair(*link);

    Harness(int ctltype, int sessions) {
        tagCTLCREATEPARAMS p = {};
        p.ctltype = ctltype;
        p.slavetype = 1;
        p.sessions = sessions;
        p.callback = &App::Callback;
        p.cbdata = &app;
        ctl->Create(&p);
        ctl->m_connections.push_back(link);
    }
    ~Harness() {
        delete ctl;
        close(peer);
    }
    void Attach(int index, unsigned long id, unsigned char inuse) {
        vel::CHTCTL::CTransportLocks locks(*ctl);
        ctl->m_sessions[index].Attach(link, id);
        ctl->m_sessions[index].m_inuse = inuse;
    }
    // Hands `body` to the dispatcher as the read loop would.
    void Dispatch(std::string body) { ctl->ProcessMessageBody(&body[0], int(body.size()), *link); }
    std::string Drain() { return transport_test::Drain(peer); }
};

// The request the transport writes to `host` for `body`.
inline std::string Post(const std::string& host, const std::string& body) {
    char length[16];
    snprintf(length, sizeof length, "%5d", int(body.size()));
    return "POST http://" + host + "/fakeurl.htm HTTP/1.1\nUser-Agent: Corvane Manager/1.0\n" +
           "Content-Type: application/x-www-form-urlencoded\nContent-Length: " + length +
           "\nHost: " + host + "\nConnection: Keep-Alive\n\n" + body;
}

// `bytes` as the transport's two text forms carry them.
inline std::string Base64(const std::string& bytes) {
    char* text = Encode64(reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
    const std::string out = text;
    free(text);
    return out;
}
inline std::string YEnc(const std::string& bytes) {
    char* text = nullptr;
    yEncode(reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()), &text);
    const std::string out = text != nullptr ? text : "";
    free(text);
    return out;
}

// A socket listening on 127.0.0.1:`port` (0: any free port), or -1.
inline int ListenLoopback(int port, int backlog = 16) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(s, backlog) != 0) {
        close(s);
        return -1;
    }
    return s;
}

inline int PortOf(int socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

} // namespace transport_test

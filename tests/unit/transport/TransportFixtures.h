// Helpers of the transport tests: a settings callback (its own lock makes it
// safe on the transport's read threads) and a link whose socket is one end of
// a socket pair, so what the transport writes can be read back and a dropped
// link seen.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "transport/htctl.h"

namespace transport_test {

// Answers codes 7 and 8 from maps (absent text: left empty; absent integer:
// the default) and records every callback. Fill the maps before the
// transport runs threads.
struct FakeSettings {
    std::mutex mutex;
    std::map<std::pair<std::string, std::string>, std::string> text;
    std::map<std::pair<std::string, std::string>, int> integers;
    std::vector<std::pair<int, CTL_CALLBACK>> events; // pointers in them are stale
    std::vector<std::string> asked;                   // section/key of codes 7 and 8

    static int Callback(int code, void* cbdata, CTL_CALLBACK* cb) {
        auto* self = static_cast<FakeSettings*>(cbdata);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->events.emplace_back(code, *cb);
        if (code == kCtlConfigString) {
            self->asked.push_back(std::string(cb->configstr.section) + "/" + cb->configstr.key);
            auto it = self->text.find({cb->configstr.section, cb->configstr.key});
            if (it != self->text.end()) {
                strncpy(cb->configstr.buf, it->second.c_str(), size_t(cb->configstr.buflen));
            }
        } else if (code == kCtlConfigInt) {
            self->asked.push_back(std::string(cb->configint.section) + "/" + cb->configint.key);
            auto it = self->integers.find({cb->configint.section, cb->configint.key});
            return it != self->integers.end() ? it->second : cb->configint.dflt;
        }
        return 0;
    }
    void InstallIn(vel::CHTCTL& ctl) {
        ctl.m_callback = &FakeSettings::Callback;
        ctl.m_cbdata = this;
    }
    int Count(int code) {
        std::lock_guard<std::mutex> lock(mutex);
        int n = 0;
        for (const auto& e : events) {
            n += e.first == code;
        }
        return n;
    }
};

// A link "connected" through a socket pair: the transport's end is the link's
// socket (use count 1), the test holds the peer.
struct PairedLink {
    explicit PairedLink(vel::CHTCTL* ctl, const char* gateway = "gw.example:443")
        : link(gateway, "key", ctl, nullptr) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
            link.m_socket = fds[0];
            link.m_use_count = 1;
            peer = fds[1];
        }
    }
    ~PairedLink() { ClosePeer(); }
    void ClosePeer() {
        if (peer != -1) {
            close(peer);
            peer = -1;
        }
    }
    // Everything written to the link so far.
    std::string Drain() {
        std::string out;
        char chunk[4096];
        ssize_t n;
        while ((n = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
            out.append(chunk, size_t(n));
        }
        return out;
    }
    vel::CTL_HTTP_CONNECTION link;
    int peer = -1;
};

// The request header the transport writes for a body of `bodyLength` bytes.
inline std::string RequestHeader(const std::string& host, size_t bodyLength) {
    char length[16];
    snprintf(length, sizeof length, "%5d", int(bodyLength));
    return "POST http://" + host + "/fakeurl.htm HTTP/1.1\nUser-Agent: Corvane Manager/1.0\n" +
           "Content-Type: application/x-www-form-urlencoded\nContent-Length: " + length +
           "\nHost: " + host + "\nConnection: Keep-Alive\n\n";
}

// The whole request for `body`.
inline std::string Post(const std::string& host, const std::string& body) {
    return RequestHeader(host, body.size()) + body;
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

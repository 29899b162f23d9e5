// A blocking loopback TCP client for driving the development gateway byte by
// byte. One test thread uses each client; every read is bounded in time.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

class RawClient {
public:
    explicit RawClient(int port) {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval bounded{3, 0}; // a send never blocks a test for long
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &bounded, sizeof bounded);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(uint16_t(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    ~RawClient() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool Connected() const { return m_fd >= 0; }

    bool Send(const std::string& bytes) {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }

    // Reads until n bytes arrived, the peer closed or resets, or the time is up.
    std::string Read(size_t n, int timeoutMs = 2000) {
        std::string data;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (data.size() < n && !m_ended) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            pollfd readable{m_fd, POLLIN, 0};
            if (left.count() <= 0 || poll(&readable, 1, int(left.count())) <= 0) {
                break;
            }
            char chunk[4096];
            ssize_t got = recv(m_fd, chunk, std::min(sizeof chunk, n - data.size()), 0);
            if (got <= 0) {
                m_ended = true;
                m_reset = got < 0 && errno == ECONNRESET;
            } else {
                data.append(chunk, size_t(got));
            }
        }
        return data;
    }

    // Everything until the peer closes (or the time is up).
    std::string ReadToEnd(int timeoutMs = 2000) { return Read(size_t(-1) / 2, timeoutMs); }

    bool Ended() const { return m_ended; }
    bool WasReset() const { return m_reset; }

private:
    int m_fd = -1;
    bool m_ended = false;
    bool m_reset = false;
};

// A request as the client builds it: bare line feeds, padded length.
inline std::string ClientRequest(const std::string& body) {
    char length[16];
    snprintf(length, sizeof length, "%5d", int(body.size()));
    return "POST http://127.0.0.1/fakeurl.htm HTTP/1.1\nUser-Agent: Corvane Manager/1.0\n"
           "Content-Type: application/x-www-form-urlencoded\nContent-Length: " +
           std::string(length) + "\nHost: 127.0.0.1\nConnection: Keep-Alive\n\n" + body;
}

#include "transport/htctlconnection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log/TextCase.h"
#include "threads/veltrace.h"
#include "transport/TransportTimings.h"
#include "transport/htctl.h"

namespace vel {

CCriticalSection CTL_HTTP_CONNECTION::sendCritical;

namespace {

std::string DottedAddress(const in_addr& address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

} // namespace

CTL_HTTP_CONNECTION::CTL_HTTP_CONNECTION(const char* gateway, const char* gateway_key, CHTCTL* pCTL,
                                         const char* proxy)
    : m_pCTL(pCTL), m_gateway(gateway != nullptr ? gateway : ""),
      m_connect_by_web_proxy(proxy != nullptr && *proxy != '\0'),
      m_gateway_key(UppercaseString(gateway_key != nullptr ? gateway_key : "")),
      m_resume_event(WinCreateEvent(nullptr, FALSE, FALSE, nullptr)),
      m_proxy(proxy != nullptr ? proxy : "") {}

CTL_HTTP_CONNECTION::~CTL_HTTP_CONNECTION() {
    Disconnect();
    Shutdown();
    // A socket still open here was shared (use count above one) or reopened
    // while the read thread was being stopped: nobody can use it any more.
    const int left = m_socket.exchange(-1);
    if (left != -1) {
        CloseSocket(left, false);
    }
    if (m_resume_event != nullptr) {
        CloseHandle(m_resume_event);
    }
}

void CTL_HTTP_CONNECTION::PostponePoll() {
    CSingleLock lock(&m_lock, TRUE);
    m_next_poll_time =
        (unsigned long)uint32_t(NowMs() + uint32_t(m_comms_manage_pkt_period.load()));
}

int CTL_HTTP_CONNECTION::Write(const void* buf, int len) {
    if (m_socket.load() == -1) {
        return -1;
    }
    if (len < 0 || (buf == nullptr && len > 0)) {
        return EINVAL;
    }
    PostponePoll();
    CSingleLock sending(&sendCritical, TRUE);
    std::shared_lock<std::shared_mutex> hold(m_fd_lock);
    const int s = m_socket.load();
    if (s == -1) {
        return EBADF; // closed meanwhile: what send on the old socket would say
    }
    // MSG_NOSIGNAL: a closed peer gives EPIPE, as with SIGPIPE ignored.
    const ssize_t sent = send(s, buf, size_t(len), MSG_NOSIGNAL);
    return sent == ssize_t(len) ? 0 : errno;
}

int CTL_HTTP_CONNECTION::Read(tagHTTP_BUF& buf) {
    if (m_socket.load() == -1) {
        trace("CTL_HTTP_CONNECTION::Read() called with m_socket==INVALID_SOCKET\n");
        return 0;
    }
    PostponePoll();
    const int room = buf.buflen - buf.datalen - 1;
    if (buf.data == nullptr || buf.datalen < 0 || room <= 0) {
        return 0;
    }
    int s;
    ssize_t got;
    int error;
    {
        std::shared_lock<std::shared_mutex> hold(m_fd_lock);
        s = m_socket.load();
        if (s == -1) {
            return 0;
        }
        got = recv(s, buf.data + buf.datalen, size_t(room), 0);
        error = errno;
    }
    if (got > 0) {
        buf.datalen += int(got);
        buf.data[buf.datalen] = '\0';
    } else if (got == -1 && error == ECONNRESET) {
        // Taken out silently: neither the use count nor the owner is told.
        int expected = s;
        if (m_socket.compare_exchange_strong(expected, -1)) {
            CloseSocket(s, true);
        }
        errno = error;
    }
    return int(got);
}

bool CTL_HTTP_CONNECTION::IsReadable() {
    std::shared_lock<std::shared_mutex> hold(m_fd_lock);
    const int s = m_socket.load();
    if (s == -1) {
        return false;
    }
    struct pollfd p = {s, POLLIN, 0};
    return poll(&p, 1, gTransportTimings.m_readablePollMs.load()) > 0;
}

void CTL_HTTP_CONNECTION::CloseSocket(int socket, bool shutdownFirst) {
    if (shutdownFirst) {
        shutdown(socket, SHUT_RDWR); // wakes any thread blocked on it
    }
    std::unique_lock<std::shared_mutex> exclusive(m_fd_lock);
    close(socket);
}

void CTL_HTTP_CONNECTION::Disconnect() {
    if (ReleaseUse() && m_pCTL != nullptr) {
        m_pCTL->OnDisconnected(*this);
    }
}

void CTL_HTTP_CONNECTION::DisconnectOpened(unsigned opened) {
    bool closed;
    {
        // No socket can be opened while this is held, so the check holds
        // until the use is released.
        std::lock_guard<std::mutex> opening(m_connect_lock);
        if (m_opened.load() != opened) {
            return;
        }
        closed = ReleaseUse();
    }
    if (closed && m_pCTL != nullptr) {
        m_pCTL->OnDisconnected(*this); // takes the transport's locks: outside m_connect_lock
    }
}

bool CTL_HTTP_CONNECTION::ReleaseUse() {
    if (m_socket.load() == -1) {
        return false;
    }
    unsigned count = m_use_count.load();
    do {
        if (count == 0) {
            return false;
        }
    } while (!m_use_count.compare_exchange_weak(count, count - 1));
    if (count != 1) {
        return false;
    }
    const int s = m_socket.exchange(-1);
    if (s != -1) {
        CloseSocket(s, true);
    }
    return true;
}

struct CTL_HTTP_CONNECTION::FinishedSignal {
    explicit FinishedSignal(std::shared_ptr<ReadThreadState> state) : m_state(std::move(state)) {}
    // Runs however the body ends, a cancellation's unwinding included.
    ~FinishedSignal() {
        std::lock_guard<std::mutex> lock(m_state->m_mutex);
        m_state->m_finished = true;
        m_state->m_changed.notify_all();
    }
    std::shared_ptr<ReadThreadState> m_state;
};

void CTL_HTTP_CONNECTION::Shutdown() {
    m_quit = true;
    m_sessions_paused = 0;
    if (m_resume_event != nullptr) {
        SetEvent(m_resume_event);
    }
    velthread* thread = m_read_thread.load();
    if (thread == nullptr) {
        return;
    }
    const bool onReadThread = pthread_equal(thread->m_pthread, pthread_self()) != 0;
    thread->try_to_join_then_kill(1000);
    // The thread object is not freed: the detached thread still signals on it
    // after its body has returned.
    m_read_thread = nullptr;
    std::shared_ptr<ReadThreadState> state = m_thread_state;
    std::unique_lock<std::mutex> lock(state->m_mutex);
    state->m_released = true;
    state->m_changed.notify_all();
    if (!onReadThread) {
        state->m_changed.wait(lock, [&] { return state->m_finished; });
    }
}

void CTL_HTTP_CONNECTION::InitReadThread() {
    m_thread_state = std::make_shared<ReadThreadState>();
    velthread* thread = new velthread(ReadThreadFunc, this);
    m_read_thread = thread;
    if (thread->create() != 0) {
        m_read_thread = nullptr;
        delete thread; // never started: nothing else holds it
    }
}

void* CTL_HTTP_CONNECTION::ReadThreadFunc(void* connection) {
    // Cancellation may strike only where the loop allows it (the pause wait):
    // everywhere else it could leave a lock held or a buffer half-built.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto* self = static_cast<CTL_HTTP_CONNECTION*>(connection);
    std::shared_ptr<ReadThreadState> state = self->m_thread_state;
    FinishedSignal finished(state);
    signal(SIGCHLD, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    if (self->m_pCTL != nullptr) {
        self->m_pCTL->ReadThread(*self);
    }
    std::unique_lock<std::mutex> lock(state->m_mutex);
    state->m_changed.wait(lock, [&] { return state->m_released; });
    return nullptr;
}

void CTL_HTTP_CONNECTION::ReleasePause() {
    if (--m_sessions_paused == 0 && m_resume_event != nullptr) {
        SetEvent(m_resume_event);
    }
}

std::string CTL_HTTP_CONNECTION::getlocaladdress() const {
    return UseSocket([](int s) -> std::string {
        sockaddr_in local{};
        socklen_t length = sizeof local;
        if (s == -1 || getsockname(s, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
            return "";
        }
        return ">" + DottedAddress(local.sin_addr);
    });
}

std::string CTL_HTTP_CONNECTION::GetPeerAddress() const {
    return UseSocket([](int s) -> std::string {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (s == -1 || getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            peer.sin_family != AF_INET) {
            return "";
        }
        return DottedAddress(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
    });
}

std::string CTL_HTTP_CONNECTION::GetConnectionAddress() {
    if (m_use_count.load() == 0) {
        return "";
    }
    CSingleLock lock(&m_lock, TRUE);
    return DottedAddress(m_gateway_address);
}

void CTL_HTTP_CONNECTION::GetGatewayTarget(in_addr* address, int* port) {
    CSingleLock lock(&m_lock, TRUE);
    *address = m_gateway_address;
    *port = m_gateway_port;
}

void CTL_HTTP_CONNECTION::StoreGatewayTarget(const in_addr& gateway, int gatewayPort,
                                             const in_addr& proxy, int proxyPort) {
    CSingleLock lock(&m_lock, TRUE);
    m_gateway_address = gateway;
    m_gateway_port = gatewayPort;
    m_proxy_address = proxy;
    m_proxy_port = proxyPort;
}

} // namespace vel

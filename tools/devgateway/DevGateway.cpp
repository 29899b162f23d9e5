// The IO side: listening, accepting, reading and answering, closing; and the
// lifecycle around the IO thread.
#include "DevGateway.h"

#include "GatewayConnection.h"
#include "GatewayWire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace devgw {

namespace {

constexpr size_t kMaxConnections = 256;
constexpr size_t kMaxRecorded = 10000;
constexpr size_t kMaxRecordedBytes = 64u << 20;
constexpr auto kDrainTimeout = std::chrono::seconds(1);
constexpr auto kDropWait = std::chrono::seconds(10);

} // namespace

DevGateway::DevGateway(Options options) : m_options(std::move(options)) {}

DevGateway::~DevGateway() {
    Stop();
}

int DevGateway::Start(uint16_t port) {
    std::lock_guard<std::mutex> life(m_lifecycle);
    if (m_thread.joinable()) {
        return Port();
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int wake[2];
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    if (pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        close(fd);
        return -1;
    }
    int bound = ntohs(address.sin_port);
    m_listenFd = fd;
    m_wakeRead = wake[0];
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_port = bound;
        m_stopping = false;
        m_wakeWrite = wake[1];
    }
    m_thread = std::thread(&DevGateway::IoLoop, this);
    return bound;
}

void DevGateway::Stop() {
    std::lock_guard<std::mutex> life(m_lifecycle);
    if (!m_thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        Wake();
    }
    m_thread.join();
    close(m_listenFd);
    close(m_wakeRead);
    m_listenFd = m_wakeRead = -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    close(m_wakeWrite);
    m_wakeWrite = -1;
    m_port = -1;
    m_changed.notify_all();
}

int DevGateway::Port() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_port;
}

// Called with m_mutex held.
void DevGateway::Wake() {
    if (m_wakeWrite >= 0) {
        char byte = 1;
        [[maybe_unused]] ssize_t n = write(m_wakeWrite, &byte, 1);
    }
}

void DevGateway::IoLoop() {
    unsigned dropsDone = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dropsDone = m_dropsDone;
    }
    for (;;) {
        unsigned dropsAsked;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping) {
                break;
            }
            dropsAsked = m_dropsAsked;
        }
        if (dropsAsked != dropsDone) {
            CloseAll();
            dropsDone = dropsAsked;
        }
        const auto now = Clock::now();
        for (const auto& connection : m_open) {
            if (connection->broken || (connection->finishing && now > connection->deadline)) {
                CloseConnection(connection, connection->broken);
            }
        }
        m_open.erase(std::remove_if(m_open.begin(), m_open.end(),
                                    [](const ConnectionPtr& c) { return c->closed; }),
                     m_open.end());

        std::vector<ConnectionPtr> polled = m_open;
        std::vector<pollfd> fds;
        fds.push_back({m_wakeRead, POLLIN, 0});
        fds.push_back({m_listenFd, POLLIN, 0});
        for (const auto& connection : polled) {
            fds.push_back({connection->fd, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), kPollMs) <= 0) {
            continue;
        }
        if (fds[0].revents) {
            char drain[64];
            while (read(m_wakeRead, drain, sizeof drain) > 0) {
            }
        }
        if (fds[1].revents) {
            AcceptConnections();
        }
        for (size_t i = 0; i < polled.size(); ++i) {
            if (fds[i + 2].revents && !polled[i]->closed) {
                ReadFrom(polled[i]);
            }
        }
    }
    CloseAll();
}

void DevGateway::AcceptConnections() {
    for (;;) {
        int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return;
        }
        if (m_open.size() >= kMaxConnections) {
            Connection(fd).Close(true);
            continue;
        }
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        auto connection = std::make_shared<Connection>(fd);
        m_open.push_back(connection);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_clients.push_back(connection);
        ++m_connectionsEver;
        m_changed.notify_all();
    }
}

void DevGateway::ReadFrom(const ConnectionPtr& connection) {
    char chunk[16384];
    ssize_t n = recv(connection->fd, chunk, sizeof chunk, 0);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        CloseConnection(connection, false);
        return;
    }
    if (connection->finishing) {
        return; // whatever follows an answered GET is discarded
    }
    connection->in.append(chunk, size_t(n));
    if (connection->kind == Connection::Kind::Unknown && !Classify(*connection)) {
        return;
    }
    bool keep = connection->kind == Connection::Kind::Control ? ServeControl(connection)
                                                              : ServeGet(*connection);
    if (!keep) {
        CloseConnection(connection, true);
    }
}

// Decides from the first bytes whether a connection is a control client or a
// plain file request; false while they are still a prefix of "GET ".
bool DevGateway::Classify(Connection& connection) {
    static const std::string kGet = "GET ";
    size_t n = std::min(connection.in.size(), kGet.size());
    if (connection.in.compare(0, n, kGet, 0, n) != 0) {
        int id;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            id = connection.id = m_nextClientId++;
        }
        connection.kind = Connection::Kind::Control;
        Emit("client " + std::to_string(id) + " connected");
        return true;
    }
    if (n < kGet.size()) {
        return false;
    }
    connection.kind = Connection::Kind::Get;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                   [&](const ConnectionPtr& c) { return c.get() == &connection; }),
                    m_clients.end());
    --m_connectionsEver; // file requests are not clients
    m_changed.notify_all();
    return true;
}

bool DevGateway::ServeControl(const ConnectionPtr& connection) {
    for (;;) {
        Request request;
        wire::Take taken = wire::TakeRequest(connection->in, request);
        if (taken == wire::Take::Incomplete) {
            return true;
        }
        if (taken == wire::Take::TooLarge) {
            Emit("client " + std::to_string(connection->id) + ": request too large, dropped");
            return false;
        }
        request.client = connection->id;
        Options options;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            options = m_options;
        }
        std::string reply;
        if (wire::SameCommand(request.command, "OPEN")) {
            if (options.answerOpen) {
                reply = WrapResponse(wire::OpenReplyBody(options));
            }
        } else if (options.ackRequests) {
            reply = WrapResponse("CMD=ACK\n");
        }
        // Recorded and answered under the write lock: whoever sees the record
        // and pushes something gets it behind the reply, and whoever sees the
        // reply finds the request recorded.
        std::string line;
        {
            std::lock_guard<std::mutex> lock(connection->writeMutex);
            line = Record(std::move(request));
            if (!reply.empty()) {
                connection->WriteLocked(reply);
            }
        }
        Emit(line);
    }
}

bool DevGateway::ServeGet(Connection& connection) {
    size_t end = wire::HeaderEnd(connection.in);
    if (end == std::string::npos) {
        return connection.in.size() <= wire::kMaxMessageBytes;
    }
    std::string path;
    bool parsed = wire::GetPath(connection.in.substr(0, end), path);
    std::string content;
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (parsed) {
            m_getPaths.push_back(path);
            if (m_getPaths.size() > kMaxRecorded) {
                m_getPaths.pop_front();
            }
            auto file = m_files.find(path);
            if (file != m_files.end()) {
                content = file->second;
                found = true;
            }
        }
        m_changed.notify_all();
    }
    connection.WriteAll(wire::GetResponse(found ? &content : nullptr));
    shutdown(connection.fd, SHUT_WR);
    connection.finishing = true;
    connection.deadline = Clock::now() + kDrainTimeout;
    connection.in.clear();
    Emit("GET /" + wire::Escape(path) + (found ? " 200" : " 404"));
    return true;
}

void DevGateway::CloseConnection(const ConnectionPtr& connection, bool reset) {
    connection->Close(reset);
    connection->closed = true;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_clients.erase(std::remove(m_clients.begin(), m_clients.end(), connection),
                        m_clients.end());
        m_changed.notify_all();
    }
    if (connection->kind == Connection::Kind::Control) {
        Emit("client " + std::to_string(connection->id) + " disconnected");
    }
}

void DevGateway::CloseAll() {
    for (const auto& connection : m_open) {
        CloseConnection(connection, true);
    }
    m_open.clear();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_dropsDone = m_dropsAsked;
    m_changed.notify_all();
}

std::string DevGateway::Record(Request request) {
    std::string line = wire::Describe(request);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_recordedBytes += request.raw.size();
        m_requests.push_back(std::move(request));
        while (m_requests.size() > 1 &&
               (m_requests.size() > kMaxRecorded || m_recordedBytes > kMaxRecordedBytes)) {
            m_recordedBytes -= m_requests.front().raw.size();
            m_requests.pop_front();
        }
        m_changed.notify_all();
    }
    return line;
}

void DevGateway::Emit(const std::string& line) {
    std::function<void(const std::string&)> sink;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        sink = m_sink;
    }
    if (sink) {
        sink(line);
    }
}

void DevGateway::DropClients() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_port < 0 || m_stopping) {
        return;
    }
    const unsigned ticket = ++m_dropsAsked;
    Wake();
    m_changed.wait_for(lock, kDropWait,
                       [&] { return m_dropsDone - ticket < 0x80000000u || m_port < 0; });
}

} // namespace devgw

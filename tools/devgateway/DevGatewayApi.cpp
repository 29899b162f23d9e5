// The calling side: waiting for and reading the record, pushing to clients,
// configuring.
#include "DevGateway.h"

#include "GatewayConnection.h"
#include "GatewayWire.h"

#include <algorithm>

namespace devgw {

bool DevGateway::WaitForClients(int n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(std::max(0, timeoutMs)),
                              [&] { return int(m_clients.size()) >= n; });
}

bool DevGateway::WaitForConnectionsEver(int n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(std::max(0, timeoutMs)),
                              [&] { return m_connectionsEver >= n; });
}

bool DevGateway::WaitForRequest(const std::string& command, int timeoutMs, Request* out,
                                int count) {
    const int wanted = std::max(1, count);
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(std::max(0, timeoutMs)), [&] {
        int seen = 0;
        for (const auto& request : m_requests) {
            if (wire::SameCommand(request.command, command) && ++seen == wanted) {
                if (out) {
                    *out = request;
                }
                return true;
            }
        }
        return false;
    });
}

std::vector<Request> DevGateway::Requests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_requests.begin(), m_requests.end()};
}

std::vector<Request> DevGateway::RequestsFor(const std::string& command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Request> matching;
    for (const auto& request : m_requests) {
        if (wire::SameCommand(request.command, command)) {
            matching.push_back(request);
        }
    }
    return matching;
}

void DevGateway::ClearRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.clear();
    m_recordedBytes = 0;
}

int DevGateway::ClientCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return int(m_clients.size());
}

std::vector<int> DevGateway::ClientIds() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<int> ids;
    for (const auto& connection : m_clients) {
        ids.push_back(connection->id);
    }
    return ids;
}

bool DevGateway::SendTo(int client, const std::string& bytes) {
    std::vector<ConnectionPtr> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& connection : m_clients) {
            if (client == 0 || connection->id == client) {
                targets.push_back(connection);
            }
        }
    }
    bool sent = !targets.empty();
    for (const auto& connection : targets) {
        sent = connection->WriteAll(bytes) && sent;
    }
    return sent;
}

bool DevGateway::SendRaw(const std::string& bytes, int client) {
    return SendTo(client, bytes);
}

bool DevGateway::SendBody(const std::string& body, int client) {
    return SendTo(client, WrapResponse(body));
}

bool DevGateway::SendMessage(int id, const std::string& text, const std::string& sender,
                             int client) {
    if (text.size() > wire::kMaxMessageBytes) {
        return false;
    }
    return SendBody(wire::MessageBody(id, sender, text), client);
}

bool DevGateway::SendNotification(int id, const std::string& message,
                                  const std::string& timeoutAndCaption, const std::string& flags,
                                  int client) {
    return SendMessage(id, NotificationText(message, timeoutAndCaption, flags), "admin", client);
}

bool DevGateway::SendConfigUpdate(unsigned cmpiSeconds, int client) {
    return SendBody(wire::ConfigUpdateBody(cmpiSeconds), client);
}

bool DevGateway::SendFileInfoReply(const std::string& link, const std::string& fname,
                                   uint64_t lastWriteTime, uint64_t size, int result, int client) {
    return SendBody(wire::FileInfoReplyBody(link, fname, lastWriteTime, size, result), client);
}

bool DevGateway::SendNCDataA(unsigned connectionId, const std::string& payload, unsigned seq,
                             int client) {
    if (payload.size() > wire::kMaxMessageBytes) {
        return false;
    }
    return SendBody(wire::NCDataABody(connectionId, payload, seq), client);
}

bool DevGateway::SendNCDataB(unsigned connectionId, const std::string& payload, unsigned seq,
                             int client) {
    if (payload.size() > wire::kMaxMessageBytes) {
        return false;
    }
    return SendRaw(wire::NCDataBFrame(connectionId, payload, seq), client);
}

void DevGateway::ServeFile(const std::string& path, const std::string& content) {
    size_t start = path.find_first_not_of('/');
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files[start == std::string::npos ? std::string() : path.substr(start)] = content;
}

std::vector<std::string> DevGateway::GetRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_getPaths.begin(), m_getPaths.end()};
}

void DevGateway::SetOptions(const Options& options) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_options = options;
}

void DevGateway::SetEventSink(std::function<void(const std::string&)> sink) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sink = std::move(sink);
}

} // namespace devgw

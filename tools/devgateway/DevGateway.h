// A development gateway: a real TCP server on loopback that speaks the
// gateway's side of the control protocol well enough to drive the client in
// tests and demos. It answers "CMD=OPEN" with an OPEN_REPLY, records every
// request, lets the caller push any command (or raw bytes) to the connected
// clients, and serves files over plain HTTP GET on the same port.
//
// Threads: one accept/IO thread owned by the object; every public method may be
// called from any other thread. m_mutex guards the client list, the record of
// requests and the served files; m_changed is signalled whenever a request is
// recorded or a client comes or goes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace devgw {

// One request received from a client, as parsed by the gateway.
struct Request {
    int client = 0;               // id of the connection it came on (1, 2, ...)
    std::string raw;              // header and body, byte for byte
    std::string header;           // up to and including the empty line
    std::string body;             // Content-Length bytes
    std::string command;          // value of the first CMD= line, as sent
    std::vector<std::pair<std::string, std::string>> fields; // body KEY=VALUE lines in order
    std::string Field(const std::string& key) const;         // last value of key, "" if absent
    bool Has(const std::string& key) const;
};

struct Options {
    bool answerOpen = true;            // reply to CMD=OPEN with an OPEN_REPLY
    std::string cmpi = "";             // CMPI line value; empty: no CMPI line
    std::string serverVersion = "devgateway 1.0";
    std::string protocolVersion = "1.1"; // empty: no PROTOCOL_VER line
    int result = 0;                    // RESULT of the OPEN_REPLY
    int failedReason = -1;             // FAILED_REASON line when >= 0
    bool ackRequests = false;          // answer other requests with CMD=ACK
};

class DevGateway {
public:
    explicit DevGateway(Options options = Options());
    ~DevGateway(); // stops the server and closes every connection

    // Listens on 127.0.0.1:port (0 = any free port); returns the port, or -1.
    int Start(uint16_t port = 0);
    void Stop();
    int Port() const;

    // Waits (bounded) until at least n clients are connected / have ever
    // connected / n requests with this command (any case) were recorded.
    bool WaitForClients(int n, int timeoutMs);
    bool WaitForConnectionsEver(int n, int timeoutMs);
    bool WaitForRequest(const std::string& command, int timeoutMs, Request* out = nullptr,
                        int count = 1);
    std::vector<Request> Requests();
    std::vector<Request> RequestsFor(const std::string& command);
    void ClearRequests();
    int ClientCount();

    // Push to every connected client (client 0) or one client id. Each
    // Send* wraps the body in "HTTP/1.1 200 OK" with a Content-length header.
    bool SendBody(const std::string& body, int client = 0);
    bool SendMessage(int id, const std::string& text, const std::string& sender = "admin",
                     int client = 0); // text may hold NULs; base-64 encoded on the wire
    bool SendNotification(int id, const std::string& message, const std::string& timeoutAndCaption,
                          const std::string& flags, int client = 0);
    bool SendConfigUpdate(unsigned cmpiSeconds, int client = 0);
    bool SendFileInfoReply(const std::string& link, const std::string& fname,
                           uint64_t lastWriteTime, uint64_t size = 0, int result = 0,
                           int client = 0);
    bool SendRaw(const std::string& bytes, int client = 0);
    // Data frames: form A (HTTP response with CMD=NC_DATA) and form B (bare).
    bool SendNCDataA(unsigned connectionId, const std::string& payload, unsigned seq = 1,
                     int client = 0);
    bool SendNCDataB(unsigned connectionId, const std::string& payload, unsigned seq = 1,
                     int client = 0);
    void DropClients(); // closes every client connection (as a reset link)

    // Plain HTTP GET of "/<path>" answers content with 200; others get 404.
    void ServeFile(const std::string& path, const std::string& content);
    std::vector<std::string> GetRequests(); // paths asked for with GET

private:
    // implementation-defined members
};

// The response the gateway sends for a body: status line, Content-length, body.
std::string WrapResponse(const std::string& body);
// The notification text as the client expects it: message NUL caption-part NUL flags NUL.
std::string NotificationText(const std::string& message, const std::string& timeoutAndCaption,
                             const std::string& flags);

} // namespace devgw

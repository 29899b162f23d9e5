// A development gateway: a real TCP server on loopback that speaks the
// gateway's side of the control protocol well enough to drive the client in
// tests and demos. It answers "CMD=OPEN" with an OPEN_REPLY, records every
// request, lets the caller push any command (or raw bytes) to the connected
// clients, and serves files over plain HTTP GET on the same port.
//
// Threads: one accept/IO thread owned by the object; every public method may be
// called from any other thread. m_mutex guards the client list, the record of
// requests and the served files; m_changed is signalled whenever a request is
// recorded or a client comes or goes. Each connection's write lock serialises
// the writes to its socket and its closing (only the IO thread closes it); when
// both are held, the write lock is taken first. m_lifecycle serialises Start
// and Stop. The event sink runs on the IO thread with no lock held.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace devgw {

// One request received from a client, as parsed by the gateway.
struct Request {
    int client = 0;      // id of the connection it came on (1, 2, ...)
    std::string raw;     // header and body, byte for byte
    std::string header;  // up to and including the empty line
    std::string body;    // Content-Length bytes
    std::string command; // value of the first CMD= line, as sent
    std::vector<std::pair<std::string, std::string>> fields; // body KEY=VALUE lines in order
    std::string Field(const std::string& key) const;         // last value of key, "" if absent
    bool Has(const std::string& key) const;
};

struct Options {
    bool answerOpen = true; // reply to CMD=OPEN with an OPEN_REPLY
    std::string cmpi = "";  // CMPI line value; empty: no CMPI line
    std::string serverVersion = "devgateway 1.0";
    std::string protocolVersion = "1.1"; // empty: no PROTOCOL_VER line
    int result = 0;                      // RESULT of the OPEN_REPLY
    int failedReason = -1;               // FAILED_REASON line when >= 0
    bool ackRequests = false;            // answer other requests with CMD=ACK
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
    std::vector<std::string> GetRequests(); // paths asked for with GET (without the "/")

    // Replaces the options; later OPEN requests are answered with the new ones.
    void SetOptions(const Options& options);
    // Ids of the connected clients that have sent something (0 for one that has not yet).
    std::vector<int> ClientIds();
    // Receives one readable line per event (a request recorded, a client come or
    // gone, a file asked for). Called on the IO thread without any lock held; it
    // may push, but must not call DropClients or Stop (they wait for that thread).
    void SetEventSink(std::function<void(const std::string&)> sink);

private:
    struct Connection;
    using ConnectionPtr = std::shared_ptr<Connection>;

    void IoLoop();
    void AcceptConnections();
    void ReadFrom(const ConnectionPtr& connection);
    bool Classify(Connection& connection);
    bool ServeControl(const ConnectionPtr& connection);
    bool ServeGet(Connection& connection);
    void CloseConnection(const ConnectionPtr& connection, bool reset);
    void CloseAll();
    bool SendTo(int client, const std::string& bytes);
    std::string Record(Request request); // returns the request's event line
    void Emit(const std::string& line);
    void Wake();

    Options m_options;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<ConnectionPtr> m_clients; // open, not serving a GET
    std::deque<Request> m_requests;
    size_t m_recordedBytes = 0; // raw bytes held in m_requests
    std::deque<std::string> m_getPaths;
    std::map<std::string, std::string> m_files;
    std::function<void(const std::string&)> m_sink;
    int m_nextClientId = 1;
    int m_connectionsEver = 0;
    int m_port = -1;
    bool m_stopping = false;
    unsigned m_dropsAsked = 0;
    unsigned m_dropsDone = 0;
    int m_wakeWrite = -1;

    std::mutex m_lifecycle;
    std::thread m_thread;
    int m_listenFd = -1; // the IO thread's while it runs
    int m_wakeRead = -1;
    std::vector<ConnectionPtr> m_open; // IO thread only: every open connection
};

// The response the gateway sends for a body: status line, Content-length, body.
std::string WrapResponse(const std::string& body);
// The notification text as the client expects it: message NUL caption-part NUL flags NUL.
// Empty parts are left out: without both it is the message alone; without flags
// it ends after the caption part's NUL; an empty caption part before flags
// stays as an empty text (message NUL NUL flags NUL).
std::string NotificationText(const std::string& message, const std::string& timeoutAndCaption,
                             const std::string& flags);

} // namespace devgw

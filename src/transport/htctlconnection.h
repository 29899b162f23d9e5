// One TCP link to one gateway. The application's threads call Connect and
// Write; the link's own read thread calls Read, IsReadable, Reconnect and
// Disconnect. Locks: sendCritical (class-wide) serialises every send; m_lock
// guards the keep-alive deadline, the resolved addresses and the server
// version; m_fd_lock is held shared while the socket is in use and exclusively
// to close it, so a descriptor is never closed (and reused) under a thread
// still working on it; m_connect_lock serialises opening the socket (and the
// read loop's check that no socket was opened since its read). The fields read
// without a lock are atomics. Order: the transport's connection-list lock,
// then m_connect_lock, then m_lock, then sendCritical, then m_fd_lock.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "threads/velthread.h"
#include "transport/httputil.h"

namespace vel {

class CHTCTL;

// "1.1", packed with the minor number in the high half.
constexpr DWORD kMyProtocolVer = 0x00010001;
constexpr int kDefaultMaxPacket = 928;
constexpr int kDefaultGatewayPort = 443;
constexpr int kDefaultProxyPort = 80;

class CTL_HTTP_CONNECTION {
public:
    CTL_HTTP_CONNECTION(const char* gateway, const char* gateway_key, CHTCTL* pCTL,
                        const char* proxy);
    // Disconnect, Shutdown (waits for the read thread to leave), free the event.
    virtual ~CTL_HTTP_CONNECTION();
    CTL_HTTP_CONNECTION(const CTL_HTTP_CONNECTION&) = delete;
    CTL_HTTP_CONNECTION& operator=(const CTL_HTTP_CONNECTION&) = delete;

    bool IsConnected() const { return m_socket.load() != -1; }
    // Up to six attempts, each followed by the retry sleep; starts the read
    // thread after a success. Always 0: failure shows as !IsConnected().
    int Connect();
    // Closes the socket and makes one attempt (no read thread).
    int Reconnect();
    // 0 or an errno / resolver error.
    int TryToConnect();
    // The CONNECT handshake on m_socket: 0, or -1 with errno set.
    int ConnectByWebProxy();

    // 0, -1 (no socket) or errno.
    int Write(const void* buf, int len);
    // One recv into buf after its data; the recv result.
    int Read(tagHTTP_BUF& buf);
    bool IsReadable();
    void Disconnect();
    // How many sockets this link has opened. The read loop notes it before a
    // read so that a failed read is never blamed on a socket that another
    // user opened meanwhile (Disconnect would close that fresh link).
    unsigned OpenedCount() const { return m_opened.load(); }
    // Disconnect, unless a socket has been opened since `opened` was noted.
    void DisconnectOpened(unsigned opened);
    void Shutdown();
    void InitReadThread();
    static void* ReadThreadFunc(void* connection);
    // Takes a gateway's version where it is lower than the link's. Kept: the
    // packed values are compared, so the minor number weighs more.
    void LowerProtocolVersion(DWORD gatewayVersion) {
        if (gatewayVersion < m_protocol_ver.load()) {
            m_protocol_ver = gatewayVersion;
        }
    }
    void RequestPause() { ++m_sessions_paused; }
    void ReleasePause();

    std::string getlocaladdress() const; // ">a.b.c.d" or ""
    std::string GetPeerAddress() const;  // "a.b.c.d:port" of the gateway's end, or ""
    std::string GetConnectionAddress();  // dotted gateway address while in use, else ""
    const std::string& GetGatewayKey() const { return m_gateway_key; }
    int GetSocket() const { return m_socket.load(); }
    // Runs f(socket) with the socket kept open meanwhile (socket may be -1).
    template <class F> auto UseSocket(F f) const {
        std::shared_lock<std::shared_mutex> hold(m_fd_lock);
        return f(m_socket.load());
    }
    // Resolved gateway address and port (under m_lock).
    void GetGatewayTarget(in_addr* address, int* port);

    bool getfileinfo_pending = false; // under the transport's connection-list lock
    int getfileinfo_result = -1;
    std::atomic<int> m_socket{-1};
    std::atomic<unsigned> m_use_count{0};
    std::atomic<velthread*> m_read_thread{nullptr};
    CHTCTL* const m_pCTL;
    std::atomic<bool> m_quit{false};
    std::atomic<int> m_connect_timer{0};
    CCriticalSection m_lock;
    const std::string m_gateway;
    in_addr m_gateway_address{};
    int m_gateway_port = kDefaultGatewayPort;
    const bool m_connect_by_web_proxy;
    in_addr m_proxy_address{};
    int m_proxy_port = 0;
    const std::string m_gateway_key; // upper-cased clear key
    std::string m_server_version;
    std::atomic<int> m_maxpacket{kDefaultMaxPacket};
    std::atomic<int> m_open_reply_err{0};
    // Call and directory state: under the transport's connection-list lock.
    int m_connect_result = -1;
    bool m_connect_complete = false;
    int m_connect_session = 0;
    std::atomic<unsigned long> m_comms_manage_pkt_period{60000};
    unsigned long m_next_poll_time = 0; // 32-bit wrapping milliseconds
    std::atomic<DWORD> m_protocol_ver{kMyProtocolVer};
    bool m_browse_pending = false;
    bool m_browsing = false;
    bool m_adddomain_result = false;
    bool m_adddomain_pending = false;
    std::atomic<int> m_sessions_paused{0};
    HANDLE const m_resume_event;
    const std::string m_proxy;

    static CCriticalSection sendCritical;

private:
    // Hand-over between the read thread and Shutdown: the thread does not end
    // before Shutdown has stopped it (so the cancel never hits a thread id that
    // has gone), and Shutdown returns only once the thread has left this
    // object. Shared because the thread still signals after Shutdown returns.
    struct ReadThreadState {
        std::mutex m_mutex;
        std::condition_variable m_changed;
        bool m_released = false;
        bool m_finished = false;
    };
    struct FinishedSignal;

    int TryToConnectLocked(); // with m_connect_lock held
    // Disconnect without telling the owner; true when the socket closed.
    bool ReleaseUse();
    void CloseSocket(int socket, bool shutdownFirst);
    void StoreGatewayTarget(const in_addr& gateway, int gatewayPort, const in_addr& proxy,
                            int proxyPort);
    void PostponePoll();

    mutable std::shared_mutex m_fd_lock;
    std::mutex m_connect_lock;
    std::atomic<unsigned> m_opened{0}; // raised under m_connect_lock
    std::shared_ptr<ReadThreadState> m_thread_state;
};

// Parses "host[:port]" (port kept when absent or 0): 0, or the resolver's
// h_errno.
int ParseTarget(const char* target, in_addr* address, int* port);

// Checks a proxy's reply to CONNECT: 0 for status 200, else -1 with errno
// ECONNABORTED.
int ParseProxyReply(const char* reply);

} // namespace vel

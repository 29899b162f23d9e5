// The HTTP-tunnelled transport object. The application's threads call the ICTL
// slots and the message operations; each link's read thread runs ReadThread,
// the dispatcher and the handlers, and raises every callback.
//
// Locks. m_lock (the connection-list lock) guards m_connections, the per-link
// request state of the later operations and whole outgoing data frames;
// ICTLCommon::m_lock guards the session table. Where both are needed m_lock is
// taken first. Both are non-recursive; they record their owner thread so that
// the session teardown (Hangup -> UnlinkSession), which runs both
// with and without them held, takes only the ones its thread lacks:
//  - the destructor takes m_lock and then the table lock (keeping the order)
//    and hangs every session up inside them;
//  - ClearConnectionSessions runs with m_lock held (its own or its caller's)
//    and Hangup / UnlinkSession then take just the table lock;
//  - taking the table lock alone and then asking for m_lock would invert the
//    order: CTransportLocks refuses that by aborting.
// The destructor deletes the links only after releasing m_lock: deleting one
// waits for its read thread, which may itself be waiting for m_lock.
//
// Failures. The ICTL slots and the operations the application calls report
// failure as their interface fixes, said at each (mostly 0 and -1; the result
// codes beside those are CtlResultCode). Everything else in the transport
// returns 0 for success and an errno-style number for failure (-1 where no
// number applies), or a bool that answers a question.
//
// "Interface only:" marks what nothing in the daemon calls but the interface
// requires; "Kept:" marks behaviour kept on purpose.
#pragma once

#include <atomic>
#include <vector>

#include "transport/ICTL.h"
#include "transport/htctlconnection.h"
#include "transport/htctlsession.h"
#include "transport/httputil.h"

namespace vel {

class OutgoingMessage;

class CHTCTL : public ICTLCommon<CTL_HTTP_SESSION> {
public:
    explicit CHTCTL(int port);
    ~CHTCTL() override;

    // The slots and operations the daemon uses.
    int Create(tagCTLCREATEPARAMS* params) override;
    int Hangup(int session) override;
    // Always 0: nothing is sent without a link, and a write's failure is not
    // examined.
    int MessageReceived(tagCTL_MESSAGERECEIVEDINFO* info);
    int MessageAcknowledged(tagCTL_MESSAGEACKNOWLEDGEDINFO* info);
    // The MESSAGEACK of MessageAcknowledged, saying whether it was written: 0
    // when it was, -1 without a link, else the write's error. Bytes written to
    // a link whose peer has just gone unnoticed still count as written.
    int SendAcknowledgement(const tagCTL_MESSAGEACKNOWLEDGEDINFO* info);
    // Called on the link's read thread after each OPEN_REPLY whose RESULT is 0
    // (or absent); set before Create. It must not block nor call back in.
    std::atomic<void (*)()> m_registeredHook{nullptr};
    // 1: the request was written (or the link is down), 0: no link name. In
    // the waiting mode (Interface only: slavetype -1) 1 only for the gateway's
    // success.
    int GetFileInfo(const char* name, tagCTL_GETFILEINFO* info);

    // Interface only: the remaining slots, the data channel's sends, and the
    // directory, call and user-status operations.
    int Send(int session, const void* data, int len) override;
    int Send1(int session, const void* data, int len);
    int SendTo(const char* name, const void* data, int len) override;
    int MaxPacketSize() override { return 896; }
    int Escape(int code, unsigned inlen, void* in, unsigned outlen, void* out) override;
    int Pause(int session, bool pause) override;
    int GetFailedReason() override { return m_failed_reason.load(); }
    int NetworkInstalled(int index, s_CTL_STACKINFO* info) override;
    // name is "n\callee" (with the "CallByName" setting, a gateway name
    // instead of n). Returns the gateway's RESULT (0: the reserved session is
    // established on the link), -1 without an answer, kCtlCallBadTarget for a bad target;
    // flags and the buffers are not used.
    int Call(const char* name, int flags, char* buf1, char* buf2) override;
    // match is "n\name" (n 0: every gateway); results come through callback
    // code 1. Each request's CONTEXT is its gateway's name; `context` is not
    // used.
    int FindSlaves(const char* match, int flags, int context) override;
    // 1 with the gateway's answer in *result, or 0 with errno kCtlErrorBadArgument,
    // kCtlErrorCancelled, kCtlErrorTimedOut or ENOTCONN.
    int AddDomain(const char* name, CTL_ADDDOMAIN_PARAMS* params, long* result) override;

    int UserStatus(const char* name, tagCTL_USERSTATUSINFO* info);
    int CancelCall(CTL_HTTP_CONNECTION* connection, const char* controlName,
                   const char* clientAddress);

    // Start-up: the first link and its registration.
    int InitSlave(tagCTLCREATEPARAMS* params);

    // Settings through the callback (codes 7 and 8) and the cancel poll (4).
    void ctl_configstr(const char* section, const char* key, char* buf, int buflen);
    int ctl_configint(const char* section, const char* key, int dflt);
    int CheckCancelOperation();
    int RaiseCallback(int code, CTL_CALLBACK* cb);

    // Registration and keep-alive.
    int OnConnected(CTL_HTTP_CONNECTION& connection);
    void BuildOpenRequest(CTL_HTTP_CONNECTION& connection, OutgoingMessage& request);
    void OnOpenReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnConfigUpdate(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    int SendSimpleCmd(const char* cmd, CTL_HTTP_CONNECTION& connection);
    void CheckConnection(CTL_HTTP_CONNECTION& connection);
    void ReadThread(CTL_HTTP_CONNECTION& connection);
    int GetGatewayIndexFromName(const char* name);
    char* GetGatewayParamFromIndex(const char* prefix, int index, char* buf, int buflen);
    // 0 when connected (or when Connect gave up: see IsConnected), else the
    // parse or Connect error; `proxy` is for links through a web proxy.
    int ConnectToGateway(const char* target, const char* key, CTL_HTTP_CONNECTION*& connection,
                         const char* name, const char* proxy = nullptr);

    // Response dispatch (read thread).
    bool MessagePending(tagHTTP_BUF& buf, CTL_HTTP_CONNECTION& connection);
    bool ProcessMessage(tagHTTP_BUF& buf, CTL_HTTP_CONNECTION& connection);
    bool ProcessMessageBody(char* body, int length, CTL_HTTP_CONNECTION& connection);
    void OnUnknownResponse(tagHTTP_BUF& body, char* command);

    // Inbound command handlers (read thread).
    void OnConnect(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnHangup(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnNCData(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnClose(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    int ProcessNCData(char* body, int length, CTL_HTTP_CONNECTION& connection);
    void OnBrowseReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnConnectReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnAddDomainReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnMessage(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);
    void OnGetFileInfoReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection);

    // Session teardown.
    void UnlinkSession(CTL_HTTP_SESSION* session, bool notify);
    void ClearConnectionSessions(CTL_HTTP_CONNECTION& connection);
    void OnDisconnected(CTL_HTTP_CONNECTION& connection);
    void CloseGatewayConnection(CTL_HTTP_CONNECTION* connection);

    // Sessions of a link: the first free one from the round-robin base,
    // attached (null when all are taken); the one the gateway numbers so.
    CTL_HTTP_SESSION* CommitSession(CTL_HTTP_CONNECTION* connection, unsigned long connection_id);
    CTL_HTTP_SESSION* GetSession(unsigned long connection_id, CTL_HTTP_CONNECTION& connection);

    char m_name[16] = {};
    char m_serial[11] = {};
    int m_listen_socket = 0;
    int m_listen_thread = 0;
    int m_n_inbound = 0;
    std::atomic<BOOL> m_ready{0};
    std::atomic<bool> m_quit{false};
    int m_read_timeout = 0;
    std::atomic<bool> m_bUnlinking{false};
    int m_ctltype = 8;
    bool m_is247 = false;
    int m_port;
    std::atomic<int> m_failed_reason{0};
    int m_slaveType = 0;
    CTrackedCriticalSection m_lock;
    std::vector<CTL_HTTP_CONNECTION*> m_connections;

    // Takes the connection-list lock and then the table lock, each unless this
    // thread already holds it.
    class CTransportLocks {
    public:
        explicit CTransportLocks(CHTCTL& ctl);

    private:
        CLockUnlessHeld m_list;
        CLockUnlessHeld m_table;
    };
};

// The process-wide transport, made on first use as CHTCTL(443); one thread.
ICTL* get_ctl();
// Deletes it, if any; the argument is not used.
void release_ctl(ICTL* ctl);

// Keep-alive test: due when next - now, in wrapping 32-bit arithmetic, exceeds
// the period (the time has passed, or lies more than a period ahead).
inline bool PollDue(uint32_t nextPollTime, uint32_t now, unsigned long period) {
    return (unsigned long)uint32_t(nextPollTime - now) > period;
}

} // namespace vel

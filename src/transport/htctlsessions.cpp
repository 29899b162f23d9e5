// Sessions the gateway sets up and ends (CONNECT, HANGUP, CLOSE), committing
// and finding a link's sessions, and pausing an outbound session's link. The
// handlers run on the link's read thread, Pause on the application's. Lock
// discipline in htctl.h.
#include <string.h>

#include <string>

#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"

namespace vel {

namespace {

using SessionTable = ICTLCommon<CTL_HTTP_SESSION>;

constexpr int kConnectAccepted = 0;
constexpr int kConnectRefused = 2;
constexpr size_t kCalledNameChars = 15; // of the control name, after "NC_"

// The last CONNECTION_ID of a body; 0 when absent.
unsigned long ReadConnectionId(tagHTTP_BUF& body) {
    uint32_t id = 0;
    ForEachBodyLine(body, [&](char* line) { TakeField(line, "CONNECTION_ID", id); });
    return id;
}

} // namespace

CTL_HTTP_SESSION* CHTCTL::CommitSession(CTL_HTTP_CONNECTION* connection,
                                        unsigned long connection_id) {
    CTransportLocks locks(*this);
    for (int probe = 0; probe < m_session_count; ++probe) {
        const int index = (m_next_avail_session_base + probe) % m_session_count;
        CTL_HTTP_SESSION& session = m_sessions[index];
        if (session.m_inuse == 0) {
            m_next_avail_session_base = (index + 1) % m_session_count;
            session.Attach(connection, connection_id);
            return &session;
        }
    }
    return nullptr;
}

CTL_HTTP_SESSION* CHTCTL::GetSession(unsigned long connection_id, CTL_HTTP_CONNECTION& connection) {
    CLockUnlessHeld list(m_lock);
    for (int i = 0; i < m_session_count; ++i) {
        CTL_HTTP_SESSION& session = m_sessions[i];
        if (session.m_inuse != 0 && session.m_connection_id == connection_id &&
            session.m_connection == &connection) {
            return &session;
        }
    }
    return nullptr;
}

void CHTCTL::OnConnect(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    uint32_t id = 0;
    std::string controlName;
    std::string controlAddress;
    ForEachBodyLine(body, [&](char* line) {
        TakeField(line, "CONNECTION_ID", id) || TakeField(line, "CONTROL_NAME", controlName) ||
            TakeField(line, "CONTROL_ADDR", controlAddress);
    });

    int result = kConnectRefused;
    CTL_HTTP_SESSION* session = m_bUnlinking ? nullptr : CommitSession(&connection, id);
    // The record points at these copies: the session's own texts may change
    // while the application looks at them.
    const std::string calledName = "NC_" + controlName.substr(0, kCalledNameChars);
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    if (session != nullptr) {
        {
            CLockUnlessHeld table(SessionTable::m_lock);
            session->m_control_name = controlName;
            session->m_control_address = controlAddress;
        }
        cb.called.transport = kCtlTransportHttp;
        cb.called.session = session->m_session_id;
        cb.called.ctlname = calledName.c_str();
        cb.called.addr = controlAddress.c_str();
        cb.called.n_bufs = session->m_nbufs;
        result = kConnectAccepted;
    }

    OutgoingMessage reply(connection);
    reply.Add("CMD=CONNECT_REPLY\n");
    reply.Line("CONNECTION_ID=%u\n", unsigned(id));
    reply.Line("CLIENT_NAME=%s\n", m_name);
    reply.Line("RESULT=%d\n", result);
    reply.WriteTo(connection);

    if (session != nullptr) {
        RaiseCallback(kCtlCalled, &cb);
        // The application may have changed the buffer count in the record.
        session->m_nbufs = static_cast<unsigned char>(cb.called.n_bufs);
    }
}

void CHTCTL::OnHangup(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    const unsigned long id = ReadConnectionId(body);
    if (id == 0) {
        return;
    }
    CTL_HTTP_SESSION* session = GetSession(id, connection);
    if (session != nullptr) {
        UnlinkSession(session, true);
    }
}

void CHTCTL::OnClose(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    OnUnknownResponse(body, nullptr); // the body says nothing
    CLockUnlessHeld list(m_lock);
    ClearConnectionSessions(connection);
}

int CHTCTL::Pause(int session, bool pause) {
    // Under the table lock: a session's Detach releases its pause there too,
    // so the link's counter sees each pause and its release exactly once.
    CLockUnlessHeld table(SessionTable::m_lock);
    if (!Valid(session)) {
        return -1;
    }
    CTL_HTTP_SESSION& s = m_sessions[session - 1];
    if (s.m_inuse != 2) {
        return 0; // only outbound sessions pause their link
    }
    const long wanted = pause ? 1 : 0;
    if (s.m_paused.exchange(wanted) == wanted || s.m_connection == nullptr) {
        return 0;
    }
    if (pause) {
        s.m_connection->RequestPause();
    } else {
        s.m_connection->ReleasePause();
    }
    return 0;
}

} // namespace vel

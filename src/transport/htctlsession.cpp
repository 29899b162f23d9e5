// Sessions: the record, hang-up and unlinking, and clearing a lost link's
// sessions. Lock discipline in htctl.h.
#include "transport/htctlsession.h"

#include <string.h>

#include "transport/htctl.h"
#include "transport/htctlframing.h"

namespace vel {

std::atomic<int> CTL_HTTP_SESSION::m_next_session_id{0};

CTL_HTTP_SESSION::CTL_HTTP_SESSION() : m_session_id(++m_next_session_id) {}

void CTL_HTTP_SESSION::Attach(CTL_HTTP_CONNECTION* connection, unsigned long connection_id) {
    m_connection = connection;
    m_inuse = 1;
    m_out_nc_seqno = 1;
    m_in_nc_seqno = 0;
    m_connection_id = connection_id;
    m_paused = 0;
}

void CTL_HTTP_SESSION::Detach() {
    if (m_paused.exchange(0) != 0 && m_inuse == 2 && m_connection != nullptr) {
        m_connection->ReleasePause();
    }
    m_connection = nullptr;
    m_connection_id = 0;
    m_inuse = 0;
}

int CTL_HTTP_SESSION::Write(const void* buf, int len) {
    return m_connection != nullptr ? m_connection->Write(buf, len) : -1;
}

int CHTCTL::Hangup(int session) {
    if (!Valid(session)) {
        return -1; // no such place in the table
    }
    CLockUnlessHeld list(m_lock); // reads the session's link under the list lock
    CTL_HTTP_SESSION& s = m_sessions[session - 1];
    if (s.m_connection_id == 0) {
        CTransportLocks locks(*this);
        s.Detach();
        return 0;
    }
    if (s.m_connection != nullptr) {
        OutgoingMessage request(*s.m_connection);
        request.Add("CMD=HANGUP\n");
        request.Line("CONNECTION_ID=%u\n", unsigned(s.m_connection_id));
        request.WriteTo(s);
    }
    UnlinkSession(&s, false);
    return 0;
}

void CHTCTL::UnlinkSession(CTL_HTTP_SESSION* session, bool notify) {
    if (session == nullptr) {
        return;
    }
    int id;
    {
        CTransportLocks locks(*this);
        id = session->m_session_id;
        session->Detach();
    }
    if (!m_bUnlinking && notify) {
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.hungup.transport = kCtlTransportHttp;
        cb.hungup.session = id;
        RaiseCallback(kCtlHungUp, &cb);
    }
}

void CHTCTL::ClearConnectionSessions(CTL_HTTP_CONNECTION& connection) {
    CLockUnlessHeld list(m_lock);
    // Kept: the entry at index i is checked and session number i (index
    // i - 1) hung up; the place just past the table holds no session.
    for (int i = 1; i <= m_session_count; ++i) {
        if (i < m_session_count && m_sessions[i].m_connection == &connection) {
            Hangup(i);
        }
    }
}

void CHTCTL::OnDisconnected(CTL_HTTP_CONNECTION& connection) {
    ClearConnectionSessions(connection);
}

void CHTCTL::CloseGatewayConnection(CTL_HTTP_CONNECTION* connection) {
    if (connection != nullptr) {
        connection->Disconnect();
    }
}

} // namespace vel

// The transport object's life: construction, Create and the first link,
// settings through the callback, destruction in order.
#include "transport/htctl.h"

#include <stdio.h>
#include <stdlib.h>

#include <string.h>

#include <algorithm>

#include "log/TextCase.h"
#include "transport/password.h"

namespace vel {

namespace {

constexpr int kGatewayAddressLength = 256;
constexpr int kStoredKeyLength = 128;

std::atomic<ICTL*> gCtlInstance{nullptr};

// Upper-cases a field that need not be terminated into `out`, as much of it
// as fits before out's terminator.
template <size_t N, size_t M> void CopyUpper(char (&out)[N], const char (&in)[M]) {
    const std::string text = UppercaseString(std::string(in, strnlen(in, std::min(M, N - 1))));
    memcpy(out, text.c_str(), text.size() + 1);
}

CTrackedCriticalSection& CheckedListLock(CHTCTL& ctl) {
    if (!ctl.m_lock.IsHeldByCurrentThread() &&
        static_cast<ICTLCommon<CTL_HTTP_SESSION>&>(ctl).m_lock.IsHeldByCurrentThread()) {
        fprintf(stderr, "CHTCTL: connection-list lock wanted under the session-table lock\n");
        abort();
    }
    return ctl.m_lock;
}

} // namespace

CHTCTL::CTransportLocks::CTransportLocks(CHTCTL& ctl)
    : m_list(CheckedListLock(ctl)),
      m_table(static_cast<ICTLCommon<CTL_HTTP_SESSION>&>(ctl).m_lock) {}

ICTL* get_ctl() {
    ICTL* ctl = gCtlInstance.load();
    if (ctl == nullptr) {
        ctl = new CHTCTL(kDefaultGatewayPort);
        gCtlInstance = ctl;
    }
    return ctl;
}

void release_ctl(ICTL*) {
    delete gCtlInstance.exchange(nullptr);
}

CHTCTL::CHTCTL(int port) : m_port(port) {}

CHTCTL::~CHTCTL() {
    m_bUnlinking = true;
    m_quit = true; // the read loops stop dispatching while everything goes
    {
        CTransportLocks locks(*this);
        for (int session = 1; session <= m_session_count; ++session) {
            Hangup(session);
        }
    }
    std::vector<CTL_HTTP_CONNECTION*> links;
    {
        CSingleLock lock(&m_lock, TRUE);
        links.swap(m_connections);
    }
    for (CTL_HTTP_CONNECTION* link : links) {
        delete link;
    }
    // The session table, the bitmaps and the table lock go with ICTLCommon.
}

int CHTCTL::Create(tagCTLCREATEPARAMS* params) {
    if (params == nullptr) {
        return -1;
    }
    params->last_op = 0;
    m_callback = params->callback;
    m_cbdata = params->cbdata;
    CopyUpper(m_name, params->name);
    CopyUpper(m_serial, params->serial);
    m_ctltype = params->ctltype;
    m_slaveType = params->slavetype;
    if (m_slaveType == 0 || m_slaveType == 256) {
        const int result = InitSlave(params);
        if (result != 0) {
            return result;
        }
    }
    if (m_sessions != nullptr) {
        return -1; // a second Create would pull the table from under the links
    }
    m_ready = 1;
    CTL_HTTP_SESSION::m_next_session_id = 0;
    {
        // The link's read thread may already look at the table (a lost link
        // clears its sessions).
        CTransportLocks locks(*this);
        AllocateSessions(params->sessions, m_ctltype >= 0);
    }
    return 0;
}

int CHTCTL::InitSlave(tagCTLCREATEPARAMS*) {
    {
        CSingleLock lock(&m_lock, TRUE);
        if (!m_connections.empty()) {
            return -1;
        }
    }
    char gateway[kGatewayAddressLength];
    char stored[kStoredKeyLength];
    ctl_configstr("HTTP", "GatewayAddress", gateway, sizeof gateway);
    ctl_configstr("HTTP", "GSK", stored, sizeof stored);
    auto* link = new CTL_HTTP_CONNECTION(gateway, ClearGatewayKey(stored).c_str(), this, nullptr);
    {
        CSingleLock lock(&m_lock, TRUE);
        m_connections.push_back(link);
    }
    link->Connect();
    if (!link->IsConnected()) {
        {
            CSingleLock lock(&m_lock, TRUE);
            m_connections.erase(std::remove(m_connections.begin(), m_connections.end(), link),
                                m_connections.end());
        }
        delete link;
        return -1;
    }
    OnConnected(*link);
    return 0;
}

int CHTCTL::RaiseCallback(int code, CTL_CALLBACK* cb) {
    return m_callback != nullptr ? m_callback(code, m_cbdata, cb) : 0;
}

void CHTCTL::ctl_configstr(const char* section, const char* key, char* buf, int buflen) {
    if (buf == nullptr || buflen <= 0) {
        return;
    }
    memset(buf, 0, size_t(buflen));
    if (m_callback == nullptr) {
        return;
    }
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    cb.configstr.section = section;
    cb.configstr.key = key;
    cb.configstr.buf = buf;
    cb.configstr.buflen = buflen;
    RaiseCallback(kCtlConfigString, &cb);
    buf[buflen - 1] = '\0'; // the application may fill the whole buffer
}

int CHTCTL::ctl_configint(const char* section, const char* key, int dflt) {
    if (m_callback == nullptr) {
        return dflt;
    }
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    cb.configint.section = section;
    cb.configint.key = key;
    cb.configint.dflt = dflt;
    return RaiseCallback(kCtlConfigInt, &cb);
}

int CHTCTL::CheckCancelOperation() {
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    return RaiseCallback(kCtlCheckCancel, &cb);
}

int CHTCTL::SendTo(const char*, const void*, int) {
    return -1; // not supported
}

int CHTCTL::Escape(int, unsigned, void*, unsigned, void*) {
    return -1; // not supported
}

int CHTCTL::NetworkInstalled(int, s_CTL_STACKINFO*) {
    return 0;
}

} // namespace vel

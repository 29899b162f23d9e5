// One relayed session on a gateway link. The application's threads and the
// read threads reach sessions through the transport: a session's link and
// gateway number (m_connection, m_connection_id) change only with both the
// transport's connection-list lock and the session-table lock held, so either
// lock is enough to read them; the slot state, buffer count and pause flag are
// atomics that may be read without a lock.
#pragma once

#include <atomic>
#include <string>

#include "threads/velthread.h"

namespace vel {

class CTL_HTTP_CONNECTION;

class CTL_HTTP_SESSION {
public:
    CTL_HTTP_SESSION();
    CTL_HTTP_SESSION(const CTL_HTTP_SESSION&) = delete;
    CTL_HTTP_SESSION& operator=(const CTL_HTTP_SESSION&) = delete;

    void Attach(CTL_HTTP_CONNECTION* connection, unsigned long connection_id);
    void Detach();
    // -1 without a link, else the link's Write result.
    int Write(const void* buf, int len);

    std::atomic<unsigned char> m_inuse{0}; // 0 free, 1 inbound CONNECT, 2 outbound call
    std::atomic<unsigned char> m_inbound{0};
    std::atomic<unsigned char> m_nbufs{3};
    char m_remote_name[16] = {};
    char m_addr[32] = {};
    std::atomic<long> m_paused{0}; // exchanged atomically by pause and resume
    const int m_session_id;
    CTL_HTTP_CONNECTION* m_connection = nullptr;
    unsigned long m_connection_id = 0;
    std::string m_control_name;
    std::string m_control_address;
    unsigned long m_out_nc_seqno = 1;
    unsigned long m_in_nc_seqno = 0;
    CCriticalSection m_lock;

    // Source of m_session_id (pre-incremented: the first session gets 1).
    static std::atomic<int> m_next_session_id;
};

} // namespace vel

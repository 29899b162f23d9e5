// The body of a link's read thread: paces the keep-alive, reads, dispatches
// whole messages and drives reconnection. Runs with cancellation disabled
// except in the pause wait (see CTL_HTTP_CONNECTION::ReadThreadFunc).
#include <pthread.h>
#include <stdlib.h>

#include "transport/TransportTimings.h"
#include "transport/htctl.h"

namespace vel {

namespace {

constexpr int kInitialReceiveSize = 2048;
// A gateway message may exceed the 4096 bytes of the outgoing buffers; past
// this size without a whole message in it the link is dropped instead, so a
// header that never ends cannot take all memory.
constexpr int kMaxReceiveSize = 1 << 20;

// The receive buffer; freed however the loop ends (a cancellation included).
class ReceiveBuffer {
public:
    ReceiveBuffer() {
        m_buf.data = static_cast<char*>(malloc(size_t(kInitialReceiveSize) + 1));
        m_buf.buflen = m_buf.data != nullptr ? kInitialReceiveSize : 0;
        Clear();
    }
    ~ReceiveBuffer() { FreeHttpBuf(&m_buf); }
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

    void Clear() {
        m_buf.datalen = 0;
        m_buf.offset = 0;
        if (m_buf.data != nullptr) {
            m_buf.data[0] = '\0';
        }
    }
    // Makes room for at least one more byte; false when the buffer is at its
    // limit (or memory ran out).
    bool EnsureRoom() {
        if (m_buf.data != nullptr && m_buf.buflen - m_buf.datalen - 1 > 0) {
            return true;
        }
        if (m_buf.buflen >= kMaxReceiveSize) {
            return false;
        }
        int bigger = m_buf.buflen > 0 ? m_buf.buflen * 2 : kInitialReceiveSize;
        if (bigger > kMaxReceiveSize) {
            bigger = kMaxReceiveSize;
        }
        char* grown = static_cast<char*>(realloc(m_buf.data, size_t(bigger) + 1));
        if (grown == nullptr) {
            return false;
        }
        m_buf.data = grown;
        m_buf.buflen = bigger;
        m_buf.data[m_buf.datalen] = '\0';
        return true;
    }
    tagHTTP_BUF& Get() { return m_buf; }

private:
    tagHTTP_BUF m_buf = {0, 0, 0, nullptr};
};

// The pause wait has no time limit and its event remembers nothing, so it is
// the one place where the owner's cancel may end the thread.
void WaitWhilePaused(CTL_HTTP_CONNECTION& connection) {
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
    while (connection.m_sessions_paused.load() > 0 && !connection.m_quit) {
        WaitForSingleObject(connection.m_resume_event, INFINITE);
    }
    pthread_setcancelstate(previous, nullptr);
}

} // namespace

void CHTCTL::ReadThread(CTL_HTTP_CONNECTION& connection) {
    ReceiveBuffer receive;
    tagHTTP_BUF& buf = receive.Get();
    uint32_t lastCheck = NowMs();
    {
        CSingleLock lock(&connection.m_lock, TRUE);
        connection.m_next_poll_time =
            uint32_t(lastCheck + uint32_t(connection.m_comms_manage_pkt_period.load()));
    }
    while (!connection.m_quit) {
        const uint32_t now = NowMs();
        const int interval = gTransportTimings.m_checkIntervalMs.load();
        // Kept: the next check is due `interval` after a time set `interval`
        // ahead, so checks are at least twice the interval apart.
        if (int32_t(now - lastCheck) > interval) {
            lastCheck = now + uint32_t(interval);
            CheckConnection(connection);
        }
        // Noted first: what this pass reads comes from this socket or a later one.
        const unsigned opened = connection.OpenedCount();
        if (!connection.IsConnected()) {
            receive.Clear(); // nothing of a lost link may prefix the next one's data
            SleepMs(gTransportTimings.m_idleSleepMs.load());
            continue;
        }
        if (connection.m_sessions_paused.load() > 0) {
            WaitWhilePaused(connection);
        }
        if (m_quit) {
            return;
        }
        if (!connection.IsReadable()) {
            continue;
        }
        if (!receive.EnsureRoom()) {
            connection.DisconnectOpened(opened);
            receive.Clear();
            continue;
        }
        const int got = connection.Read(buf);
        if (got > 0) {
            buf.data[buf.datalen] = '\0';
            while (!connection.m_quit && MessagePending(buf, connection)) {
                if (!ProcessMessage(buf, connection)) {
                    connection.DisconnectOpened(opened);
                    receive.Clear();
                    break;
                }
                if (connection.m_sessions_paused.load() > 0) {
                    break;
                }
            }
        } else {
            // An error, or the gateway closed the link (readable with nothing
            // to read): either way the link is gone, and leaving it open would
            // spin here for ever. A socket that another user has opened since
            // (after closing this one) is not this failure's to close.
            connection.DisconnectOpened(opened);
        }
    }
}

} // namespace vel

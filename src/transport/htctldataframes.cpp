// The data channel: sending a session's data frames (one session or a
// broadcast) on the application's threads, and handing received frames of
// both forms to the application on the link's read thread. Whole outgoing
// frames are written under the connection-list lock, so sequence numbers leave
// in order. Lock discipline in htctl.h.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "transport/CRC32.h"
#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"
#include "transport/yenc.h"

namespace vel {

namespace {

using SessionTable = ICTLCommon<CTL_HTTP_SESSION>;

// Links whose protocol version is above this (1.1 on) take bare frames.
constexpr DWORD kLastHttpFrameVersion = 0x00010000;
constexpr uint32_t kCrcStart = 0xFFFFFFFF;
constexpr int kBroadcastSubset = -4;
constexpr int kBroadcastSubsetNotOmitted = -5;
constexpr unsigned char kDroppedFrameType = 0x5C;
constexpr unsigned char kBufferCountFrameType = 0x04;
constexpr int kBufferCountOffset = 14;

// The keys of the two frame forms, in the order they are sent.
struct FrameKeys {
    const char* m_id;
    const char* m_seq;
    const char* m_crc;
    const char* m_len;
    const char* m_data;
};
constexpr FrameKeys kHttpFrame = {"CONNECTION_ID", "NC_SEQNO", "NC_CRC", "NC_LEN", "NC_DATA"};
constexpr FrameKeys kBareFrame = {"CID", "SEQ", "CRC", "LEN", "DATA"};

void AddFrameBody(OutgoingMessage& frame, const FrameKeys& keys, unsigned long id,
                  unsigned long seq, uint32_t crc, int len, const char* encoded) {
    frame.Line("%s=%u\n", keys.m_id, unsigned(id));
    frame.Line("%s=%u\n", keys.m_seq, unsigned(seq));
    frame.Line("%s=%u\n", keys.m_crc, unsigned(crc));
    frame.Line("%s=%d\n", keys.m_len, len);
    frame.Add(keys.m_data);
    frame.Add("=");
    frame.Add(encoded);
    frame.Add("\n");
}

bool BitSet(const unsigned char* bitmap, int index) {
    return bitmap != nullptr && (bitmap[index / 8] >> (index % 8) & 1) != 0;
}

// A received frame's fields. Its sequence number and CRC are carried but not
// checked, so they are not read.
struct ReceivedFrame {
    uint32_t m_id = 0;
    int m_declaredLength = 0;
    std::string m_data; // still encoded
};

ReceivedFrame ReadFrame(tagHTTP_BUF& body, const FrameKeys& keys) {
    ReceivedFrame frame;
    ForEachBodyLine(body, [&](char* line) {
        TakeField(line, keys.m_id, frame.m_id) ||
            TakeField(line, keys.m_len, frame.m_declaredLength) ||
            TakeField(line, keys.m_data, frame.m_data);
    });
    return frame;
}

// Hands one decoded frame to the application (callback code 1). The length
// reported is the declared one, but never more than was decoded: the
// application reads no further than the bytes that exist.
void DeliverFrame(CHTCTL& ctl, CTL_HTTP_SESSION& session, const unsigned char* decoded,
                  int decodedLength, int declaredLength) {
    const int length = std::clamp(declaredLength, 0, std::max(decodedLength, 0));
    if (length >= 1 && decoded[0] == kDroppedFrameType) {
        return;
    }
    if (length > kBufferCountOffset && decoded[0] == kBufferCountFrameType) {
        session.m_nbufs = decoded[kBufferCountOffset]; // low byte of the 16-bit field
    }
    // The application's copy, with a NUL after it; freed once the callback returns.
    std::vector<unsigned char> payload(decoded, decoded + length);
    payload.push_back(0);
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    cb.data.transport = kCtlTransportHttp;
    cb.data.session = session.m_session_id;
    cb.data.data = payload.data();
    cb.data.datalen = length;
    ctl.RaiseCallback(kCtlDataReceived, &cb);
}

} // namespace

int CHTCTL::Send(int session, const void* data, int len) {
    if (session > 0) {
        return Send1(session, data, len);
    }
    CLockUnlessHeld list(m_lock); // the broadcast's frames leave together
    std::vector<int> chosen;
    {
        CLockUnlessHeld table(SessionTable::m_lock);
        // Kept: the walk stops before the last session number.
        for (int n = 1; n < m_session_count; ++n) {
            const int index = n - 1;
            if (m_sessions[index].m_inuse != 2) {
                continue;
            }
            if (session == kBroadcastSubset || session == kBroadcastSubsetNotOmitted) {
                // Without bitmaps (negative ctltype) a subset holds nobody.
                if (!BitSet(m_subset.subset, index) ||
                    (session == kBroadcastSubsetNotOmitted && BitSet(m_subset.omit, index))) {
                    continue;
                }
            }
            chosen.push_back(n);
        }
    }
    for (int n : chosen) {
        Send1(n, data, len);
    }
    return 0;
}

int CHTCTL::Send1(int session, const void* data, int len) {
    if (session < 1 || len < 0 || (data == nullptr && len > 0)) {
        return -1;
    }
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    const uint32_t crc = CRC32_Update(kCrcStart, bytes, len);
    CLockUnlessHeld list(m_lock);
    if (!Valid(session)) {
        return -1;
    }
    CTL_HTTP_SESSION& s = m_sessions[session - 1];
    if (s.m_connection == nullptr) {
        return -1;
    }
    const unsigned long seq = s.m_out_nc_seqno++;
    if (s.m_connection->m_protocol_ver.load() > kLastHttpFrameVersion) {
        char* encoded = nullptr;
        yEncode(bytes, len, &encoded);
        OutgoingMessage frame{OutgoingMessage::BareFrame()};
        AddFrameBody(frame, kBareFrame, s.m_connection_id, seq, crc, len, encoded);
        free(encoded);
        frame.WriteTo(s);
    } else {
        char* encoded = Encode64(bytes, len);
        OutgoingMessage frame(*s.m_connection);
        frame.Add("CMD=NC_DATA\n");
        AddFrameBody(frame, kHttpFrame, s.m_connection_id, seq, crc, len, encoded);
        free(encoded);
        frame.WriteTo(s);
    }
    return 0; // write errors are not reported
}

void CHTCTL::OnNCData(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    const ReceivedFrame frame = ReadFrame(body, kHttpFrame);
    CTL_HTTP_SESSION* session = frame.m_id != 0 ? GetSession(frame.m_id, connection) : nullptr;
    if (session == nullptr) {
        return;
    }
    int decodedLength = 0;
    unsigned char* decoded = Decode64(frame.m_data.c_str(), &decodedLength);
    if (decoded != nullptr) {
        DeliverFrame(*this, *session, decoded, decodedLength, frame.m_declaredLength);
    }
    free(decoded);
}

int CHTCTL::ProcessNCData(char* body, int length, CTL_HTTP_CONNECTION& connection) {
    if (body == nullptr || length <= 0) {
        return 1;
    }
    tagHTTP_BUF view = {length + 1, length, 0, body};
    const ReceivedFrame frame = ReadFrame(view, kBareFrame);
    CTL_HTTP_SESSION* session = frame.m_id != 0 ? GetSession(frame.m_id, connection) : nullptr;
    if (session == nullptr) {
        return 1;
    }
    unsigned char* decoded = nullptr;
    const int decodedLength = yDecode(
        frame.m_data.c_str(), int(std::min<size_t>(frame.m_data.size(), INT_MAX)), &decoded);
    DeliverFrame(*this, *session, decoded, decodedLength, frame.m_declaredLength);
    free(decoded);
    return 1; // always consumed
}

} // namespace vel

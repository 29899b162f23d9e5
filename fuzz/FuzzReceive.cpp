// The receive path as a whole: bytes from the gateway arrive on the link's
// socket in chunks, the link's Read collects them and the read loop's
// dispatch (MessagePending, ProcessMessage, then the command's handler)
// takes whole messages off the front of the buffer.
//
// Input: one byte choosing the chunk size (0: everything at once), then the
// stream.
#include <stdlib.h>

#include "FuzzLink.h"

namespace {

// The read loop's receive buffer: 2048 bytes to start with, doubled as it
// fills, and the link dropped when 1 MiB holds no whole message.
constexpr int kInitialReceiveSize = 2048;
constexpr int kMaxReceiveSize = 1 << 20;

bool EnsureRoom(tagHTTP_BUF& buf) {
    if (buf.buflen - buf.datalen - 1 > 0) {
        return true;
    }
    if (buf.buflen >= kMaxReceiveSize) {
        return false;
    }
    const int bigger = buf.buflen * 2 > kMaxReceiveSize ? kMaxReceiveSize : buf.buflen * 2;
    char* grown = static_cast<char*>(realloc(buf.data, size_t(bigger) + 1));
    if (grown == nullptr) {
        return false;
    }
    buf.data = grown;
    buf.buflen = bigger;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || ndfuzz::WouldHitRequiredYencAbort(data + 1, size - 1)) {
        return -1; // kept out of the corpus
    }
    const size_t chunk = data[0] != 0 ? data[0] : size;
    ++data;
    --size;

    ndfuzz::FuzzLink fuzz;
    vel::CHTCTL& ctl = fuzz.Ctl();
    vel::CTL_HTTP_CONNECTION& link = fuzz.Link();
    tagHTTP_BUF buf = {kInitialReceiveSize, 0, 0,
                       static_cast<char*>(malloc(size_t(kInitialReceiveSize) + 1))};
    buf.data[0] = '\0';

    size_t fed = 0;
    while (fed < size && link.IsConnected()) {
        if (!EnsureRoom(buf)) {
            link.Disconnect();
            break;
        }
        size_t piece = size - fed < chunk ? size - fed : chunk;
        const size_t room = size_t(buf.buflen - buf.datalen - 1);
        if (piece > room) {
            piece = room;
        }
        if (!fuzz.Feed(data + fed, piece)) {
            break;
        }
        fed += piece;
        const int got = link.Read(buf);
        if (got <= 0) {
            link.Disconnect();
            break;
        }
        buf.data[buf.datalen] = '\0';
        while (!link.m_quit && ctl.MessagePending(buf, link)) {
            if (!ctl.ProcessMessage(buf, link)) {
                link.Disconnect();
                break;
            }
        }
        fuzz.Drain();
    }
    FreeHttpBuf(&buf);
    return 0;
}

// Notification messages: an inbound "MESSAGE" becomes a message block handed
// to callback code 1 (on the link's read thread), and the application's two
// reports, receipt and acknowledgement, go out on the first link (from the
// application's threads, under the connection-list lock).
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"
#include "transport/yenc.h"

namespace vel {

namespace {

constexpr size_t kSenderLength = 100;     // characters of SENDER kept
constexpr size_t kBlockSenderLength = 15; // of those, characters in the block
constexpr int kBlockTextOffset = 18;      // type (2) + sender field (16)
constexpr int kBlockTrailer = 2;          // zero bytes after the text
constexpr unsigned char kBlockType = 12;

// "CMD=<command>", "ID=", "UF=" and, for a known user, "UN=", on the first
// link. 0 when written; -1 without a link, else the write's error.
int SendMessageReport(CHTCTL& ctl, const char* command, int messageId, int userFlags,
                      const char* userName) {
    // The list lock keeps the link alive while it is written to; a caller that
    // already holds it (a code-16 callback) must not block on itself.
    CLockUnlessHeld list(ctl.m_lock);
    if (ctl.m_connections.empty()) {
        return -1;
    }
    CTL_HTTP_CONNECTION& link = *ctl.m_connections.front();
    OutgoingMessage request(link);
    request.Line("CMD=%s\n", command);
    request.Line("ID=%d\n", messageId);
    request.Line("UF=%d\n", userFlags);
    if (userName != nullptr && userName[0] != '\0') {
        request.Line("UN=%s\n", userName);
    }
    return request.WriteTo(link);
}

} // namespace

void CHTCTL::OnMessage(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    std::string encoded;
    std::string sender;
    int messageId = -1;
    ForEachBodyLine(body, [&](char* line) {
        if (TakeField(line, "SENDER", sender)) {
            sender.resize(std::min(sender.size(), kSenderLength));
        } else if (!TakeField(line, "ID", messageId)) {
            TakeField(line, "MSG", encoded);
        }
    });

    int textLength = 0;
    unsigned char* text = Decode64(encoded.c_str(), &textLength);
    if (text == nullptr) {
        textLength = 0; // out of memory: delivered as an empty text
    }
    const size_t blockLength = size_t(textLength) + kBlockTextOffset + kBlockTrailer;
    unsigned char* block = static_cast<unsigned char*>(calloc(blockLength, 1));
    if (block != nullptr) {
        block[0] = kBlockType;
        block[1] = 0;
        // At most 15 characters; the zero-filled block supplies the terminator.
        memcpy(block + 2, sender.data(), std::min(sender.size(), kBlockSenderLength));
        if (textLength > 0) {
            memcpy(block + kBlockTextOffset, text, size_t(textLength));
        }
        char noAddress[1] = {'\0'};
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.message.transport = kCtlTransportHttp;
        cb.message.session = 0;
        cb.message.addr = noAddress;
        cb.message.data = block;
        cb.message.datalen = int(blockLength);
        cb.message.messageid = messageId;
        cb.message.sender = &sender[0];
        RaiseCallback(kCtlDataReceived, &cb);
        free(block);
    }
    free(text);
}

int CHTCTL::MessageReceived(tagCTL_MESSAGERECEIVEDINFO* info) {
    if (info != nullptr) {
        SendMessageReport(*this, "MESSAGERECEIVED", info->messageid, info->userflags,
                          info->username);
    }
    return 0;
}

int CHTCTL::MessageAcknowledged(tagCTL_MESSAGEACKNOWLEDGEDINFO* info) {
    SendAcknowledgement(info);
    return 0;
}

int CHTCTL::SendAcknowledgement(const tagCTL_MESSAGEACKNOWLEDGEDINFO* info) {
    if (info == nullptr) {
        return -1;
    }
    return SendMessageReport(*this, "MESSAGEACK", info->messageid, info->userflags, info->username);
}

} // namespace vel

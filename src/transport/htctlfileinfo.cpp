// File information requests: "CMD=GETFILEINFO" from the application's timer
// thread, "GETFILEINFO_REPLY" on the link's read thread into callback code 16.
// The pending flag and the result of each link live under the connection-list
// lock, and code 16 is raised with that lock held.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "transport/TransportTimings.h"
#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"

namespace vel {

namespace {

constexpr int kWaitingSlaveType = -1;
constexpr int kFileInfoPollMs = 20;
constexpr uint32_t kFileInfoWaitMs = 4999; // given up once more than this has passed

bool ConnectsAtCreate(int slaveType) {
    return slaveType == 0 || slaveType == 256;
}

bool IsEmpty(const char* text) {
    return text == nullptr || text[0] == '\0';
}

// The first link while it is still in the list (the caller holds the lock).
CTL_HTTP_CONNECTION* FirstLink(CHTCTL& ctl) {
    return ctl.m_connections.empty() ? nullptr : ctl.m_connections.front();
}

} // namespace

int CHTCTL::GetFileInfo(const char* name, tagCTL_GETFILEINFO* info) {
    const bool waiting = m_slaveType == kWaitingSlaveType;
    if (waiting && IsEmpty(name)) {
        return 0;
    }
    if (info == nullptr || IsEmpty(info->linkname)) {
        return 0;
    }
    CTL_HTTP_CONNECTION* asked = nullptr;
    {
        CSingleLock lock(&m_lock, TRUE);
        asked = FirstLink(*this);
        if (asked != nullptr) {
            if (asked->IsConnected()) {
                asked->getfileinfo_pending = true;
                asked->getfileinfo_result = 0;
            }
            // Written whether or not the link is up: a down link fails quietly.
            OutgoingMessage request(*asked);
            request.Add("CMD=GETFILEINFO\n");
            request.Line("LINK=%s\n", info->linkname);
            request.WriteTo(*asked);
        }
    }
    if (!waiting) {
        return 1; // the answer comes through callback code 16
    }

    // Waiting mode: the link is looked up again at every poll, so one that
    // left the list meanwhile is never touched.
    const uint32_t started = NowMs();
    int result = kCtlErrorTimedOut;
    for (;;) {
        {
            CSingleLock lock(&m_lock, TRUE);
            CTL_HTTP_CONNECTION* link = FirstLink(*this);
            if (link == nullptr || link != asked) {
                break;
            }
            if (!link->getfileinfo_pending) {
                result = link->getfileinfo_result;
                break;
            }
        }
        if (uint32_t(NowMs() - started) > kFileInfoWaitMs) {
            break;
        }
        SleepMs(kFileInfoPollMs);
    }
    {
        CSingleLock lock(&m_lock, TRUE);
        CTL_HTTP_CONNECTION* link = FirstLink(*this);
        if (link != nullptr && link == asked) {
            link->getfileinfo_pending = false;
            CloseGatewayConnection(link);
        }
    }
    return result == 0 ? 1 : 0;
}

void CHTCTL::OnGetFileInfoReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    std::string link, fileName, subFolder;
    uint64_t fileSize = 0;
    uint64_t lastWriteTime = 0;
    int result = 0;
    ForEachBodyLine(body, [&](char* line) {
        TakeField(line, "RESULT", result) || TakeField(line, "FSIZE", fileSize) ||
            TakeField(line, "LWT", lastWriteTime) || TakeField(line, "LINK", link) ||
            TakeField(line, "FNAME", fileName) || TakeField(line, "SUB", subFolder);
    });
    const std::string serverAddress = connection.GetPeerAddress();

    CSingleLock lock(&m_lock, TRUE);
    // A failed request, or an answer nobody waits for in a mode that does not
    // take unsolicited ones, only ends the pending request.
    if (result == 0 && (connection.getfileinfo_pending || ConnectsAtCreate(m_slaveType))) {
        CTL_CALLBACK cb;
        memset(&cb, 0, sizeof cb);
        cb.fileinfo.linkname = link.c_str();
        cb.fileinfo.filename = fileName.c_str();
        cb.fileinfo.subfolder = subFolder.c_str();
        cb.fileinfo.filesize = fileSize;
        cb.fileinfo.lastwritetime = lastWriteTime;
        cb.fileinfo.serveraddress = serverAddress.c_str();
        RaiseCallback(kCtlFileInfo, &cb);
    }
    connection.getfileinfo_pending = false;
    connection.getfileinfo_result = result;
}

} // namespace vel

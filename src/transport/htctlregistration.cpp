// Registration ("CMD=OPEN"), the gateway's answers to it and the keep-alive.
// All of it runs on the link's read thread, except the first OnConnected.
#include <stdlib.h>

#include "transport/TransportTimings.h"
#include "transport/gengsk.h"
#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"

namespace vel {

namespace {

constexpr int kReconnectCountdown = 30;
constexpr int kChatIdLength = 16;
constexpr int kSettingLength = 256;

// Sets the keep-alive period from a CMPI line (seconds); false for another line.
bool TakePollPeriod(char* line, CTL_HTTP_CONNECTION& connection) {
    uint64_t seconds = 0;
    if (!TakeField(line, "CMPI", seconds)) {
        return false;
    }
    CSingleLock lock(&connection.m_lock, TRUE);
    connection.m_comms_manage_pkt_period = static_cast<unsigned long>(seconds) * 1000ul;
    return true;
}

} // namespace

void CHTCTL::BuildOpenRequest(CTL_HTTP_CONNECTION& connection, OutgoingMessage& request) {
    request.Add("CMD=OPEN\n");
    request.Add("CLIENT_VERSION=1.1\n");
    request.VersionLine(connection.m_protocol_ver.load());
    request.Line("MAXPACKET=%d\n", kDefaultMaxPacket);
    request.Line("CLIENT_NAME=%s\n", m_name);
    request.Line("CLIENT_ADDR=%s\n", connection.getlocaladdress().c_str());
    const HostIdentity identity = ReadHostIdentity(connection);
    request.Line("HOSTNAME=%s\n", identity.m_hostName.c_str());
    request.Line("MACADDRESS=%s\n", identity.m_mac.c_str());
    char* gsk = GenWireGsk(connection.GetGatewayKey().c_str());
    request.Line("GSK=%s\n", gsk != nullptr ? gsk : "");
    free(gsk);

    char chatId[kChatIdLength];
    ctl_configstr("client247", "CHATID", chatId, sizeof chatId);
    if (chatId[0] != '\0') {
        request.Line("CHATID=%s\n", chatId);
    }
    // A1..A4: each asked for only after the one before it was sent.
    for (int i = 1; i <= 4; ++i) {
        char key[4] = {'A', char('0' + i), '\0', '\0'};
        char value[kSettingLength];
        ctl_configstr("client247", key, value, sizeof value);
        if (value[0] == '\0') {
            break;
        }
        request.Line("%s=%s\n", key, value);
    }
    request.Line("APPTYPE=%d\n", m_slaveType);
    char dept[kSettingLength];
    ctl_configstr("HTTP", "*Dept", dept, sizeof dept);
    request.Line("DEPT=%s\n", dept);
}

int CHTCTL::OnConnected(CTL_HTTP_CONNECTION& connection) {
    OutgoingMessage request(connection);
    BuildOpenRequest(connection, request);
    if (request.WriteTo(connection) != 0) {
        connection.Disconnect();
        connection.m_connect_timer = kReconnectCountdown;
        return -1;
    }
    return 0;
}

void CHTCTL::OnOpenReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    std::string gatewayVersion = "1.1"; // when the gateway names none
    int result = 0;
    ForEachBodyLine(body, [&](char* line) {
        std::string text;
        int number = 0;
        if (TakeField(line, "SERVER_VERSION", text)) {
            CSingleLock lock(&connection.m_lock, TRUE);
            connection.m_server_version = text;
        } else if (TakeField(line, "MAXPACKET", number)) {
            connection.m_maxpacket = number;
        } else if (TakeField(line, "RESULT", number)) {
            connection.m_open_reply_err = number;
            result = number;
        } else if (TakeField(line, "FAILED_REASON", number)) {
            m_failed_reason = number;
        } else if (!TakePollPeriod(line, connection)) {
            TakeField(line, "PROTOCOL_VER", gatewayVersion);
        }
    });
    connection.LowerProtocolVersion(MakeMajorMinVerParam(gatewayVersion.c_str()));
    void (*hook)() = m_registeredHook.load();
    if (result == 0 && hook != nullptr) {
        hook();
    }
}

void CHTCTL::OnConfigUpdate(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    ForEachBodyLine(body, [&](char* line) { TakePollPeriod(line, connection); });
}

int CHTCTL::SendSimpleCmd(const char* cmd, CTL_HTTP_CONNECTION& connection) {
    OutgoingMessage request(connection);
    request.Line("CMD=%s\n", cmd);
    return request.WriteTo(connection);
}

void CHTCTL::CheckConnection(CTL_HTTP_CONNECTION& connection) {
    if (connection.IsConnected()) {
        const uint32_t now = NowMs();
        bool due;
        {
            CSingleLock lock(&connection.m_lock, TRUE);
            const unsigned long period = connection.m_comms_manage_pkt_period.load();
            due = PollDue(uint32_t(connection.m_next_poll_time), now, period);
            if (due) {
                connection.m_next_poll_time = uint32_t(now + uint32_t(period));
            }
        }
        if (due) {
            SendSimpleCmd("POLL", connection);
        }
        return;
    }
    // Not while the link or the transport is being torn down: a new socket
    // would outlive its owner.
    if (m_ctltype >= 0 || m_quit || connection.m_quit) {
        return;
    }
    if (--connection.m_connect_timer < 1) {
        connection.m_connect_timer = kReconnectCountdown;
        if (connection.Reconnect() == 0) {
            OnConnected(connection);
        }
    }
}

} // namespace vel

// Registration ("CMD=OPEN"), the gateway's answers to it and the keep-alive.
// All of it runs on the link's read thread, except the first OnConnected.
#include <string.h>
#include <unistd.h>

#include <string>

#include "host/MachineDetails.h"
#include "transport/TransportTimings.h"
#include "transport/gengsk.h"
#include "transport/htctl.h"
#include "transport/htctlparse.h"

namespace vel {

namespace {

constexpr int kReconnectCountdown = 30;
constexpr int kHostNameLength = 128;
constexpr int kChatIdLength = 16;
constexpr int kSettingLength = 256;

// Sets the keep-alive period from a CMPI value in seconds.
void SetPollPeriod(CTL_HTTP_CONNECTION& connection, const char* seconds) {
    CSingleLock lock(&connection.m_lock, TRUE);
    connection.m_comms_manage_pkt_period = ParseUnsigned(seconds) * 1000ul;
}

} // namespace

void CHTCTL::BuildOpenRequest(CTL_HTTP_CONNECTION& connection, tagHTTP_BUF& request) {
    int lengthPos = 0;
    const int header = BuildHttpReqHeader(&request, connection.m_gateway.c_str(), &lengthPos);
    CopyToHttpBuf(&request, "CMD=OPEN\n");
    CopyToHttpBuf(&request, "CLIENT_VERSION=1.1\n");
    const DWORD version = connection.m_protocol_ver.load();
    sprintfToHttpBuf(&request, "PROTOCOL_VER=%u.%u\n", unsigned(version & 0xFFFF),
                     unsigned(version >> 16));
    sprintfToHttpBuf(&request, "MAXPACKET=%d\n", kDefaultMaxPacket);
    sprintfToHttpBuf(&request, "CLIENT_NAME=%s\n", m_name);
    sprintfToHttpBuf(&request, "CLIENT_ADDR=%s\n", connection.getlocaladdress().c_str());

    char host[kHostNameLength] = {};
    gethostname(host, sizeof host - 1);
    sprintfToHttpBuf(&request, "HOSTNAME=%s\n", host);

    std::string mac;
    connection.UseSocket([&](int s) { GetMachineMacAddress(mac, s); });
    sprintfToHttpBuf(&request, "MACADDRESS=%s\n", mac.c_str());

    char* gsk = GenWireGsk(connection.GetGatewayKey().c_str());
    sprintfToHttpBuf(&request, "GSK=%s\n", gsk != nullptr ? gsk : "");
    free(gsk);

    char chatId[kChatIdLength];
    ctl_configstr("client247", "CHATID", chatId, sizeof chatId);
    if (chatId[0] != '\0') {
        sprintfToHttpBuf(&request, "CHATID=%s\n", chatId);
    }
    // A1..A4: each asked for only after the one before it was sent.
    for (int i = 1; i <= 4; ++i) {
        char key[4] = {'A', char('0' + i), '\0', '\0'};
        char value[kSettingLength];
        ctl_configstr("client247", key, value, sizeof value);
        if (value[0] == '\0') {
            break;
        }
        sprintfToHttpBuf(&request, "%s=%s\n", key, value);
    }
    sprintfToHttpBuf(&request, "APPTYPE=%d\n", m_slaveType);
    char dept[kSettingLength];
    ctl_configstr("HTTP", "*Dept", dept, sizeof dept);
    sprintfToHttpBuf(&request, "DEPT=%s\n", dept);
    SetContentLength(&request, lengthPos, request.datalen - header);
}

int CHTCTL::OnConnected(CTL_HTTP_CONNECTION& connection) {
    tagHTTP_BUF request = {0, 0, 0, nullptr};
    BuildOpenRequest(connection, request);
    const int result = connection.Write(request.data, request.datalen);
    FreeHttpBuf(&request);
    if (result != 0) {
        connection.Disconnect();
        connection.m_connect_timer = kReconnectCountdown;
        return -1;
    }
    return 0;
}

void CHTCTL::OnOpenReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    DWORD gatewayVersion = MakeMajorMinVerParam("1.1"); // when the gateway names none
    for (;;) {
        char* line = HttpGetLine(&body);
        if (line == nullptr || *line == '\0') {
            break;
        }
        const char* value;
        if ((value = HttpMatchKeyword(line, "SERVER_VERSION")) != nullptr) {
            CSingleLock lock(&connection.m_lock, TRUE);
            connection.m_server_version = value;
        } else if ((value = HttpMatchKeyword(line, "MAXPACKET")) != nullptr) {
            connection.m_maxpacket = ParseDecimal(value);
        } else if ((value = HttpMatchKeyword(line, "RESULT")) != nullptr) {
            connection.m_open_reply_err = ParseDecimal(value);
        } else if ((value = HttpMatchKeyword(line, "FAILED_REASON")) != nullptr) {
            m_failed_reason = ParseDecimal(value);
        } else if ((value = HttpMatchKeyword(line, "CMPI")) != nullptr) {
            SetPollPeriod(connection, value);
        } else if ((value = HttpMatchKeyword(line, "PROTOCOL_VER")) != nullptr) {
            gatewayVersion = MakeMajorMinVerParam(value);
        }
    }
    // Packed comparison, so the minor number weighs more: kept on purpose.
    if (gatewayVersion < connection.m_protocol_ver.load()) {
        connection.m_protocol_ver = gatewayVersion;
    }
}

void CHTCTL::OnConfigUpdate(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    for (;;) {
        char* line = HttpGetLine(&body);
        if (line == nullptr || *line == '\0') {
            break;
        }
        const char* value = HttpMatchKeyword(line, "CMPI");
        if (value != nullptr) {
            SetPollPeriod(connection, value);
        }
    }
}

int CHTCTL::SendSimpleCmd(const char* cmd, CTL_HTTP_CONNECTION& connection) {
    tagHTTP_BUF request = {0, 0, 0, nullptr};
    int lengthPos = 0;
    const int header = BuildHttpReqHeader(&request, connection.m_gateway.c_str(), &lengthPos);
    sprintfToHttpBuf(&request, "CMD=%s\n", cmd);
    SetContentLength(&request, lengthPos, request.datalen - header);
    const int result = connection.Write(request.data, request.datalen);
    FreeHttpBuf(&request);
    return result;
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

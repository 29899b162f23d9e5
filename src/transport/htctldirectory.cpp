// Directory and call operations: browsing the numbered gateways for clients,
// calling a client through a gateway, registering a domain and reporting the
// user. The operations run and wait on the caller's thread; their replies are
// handled on the links' read threads, which end the waits by clearing the
// links' request state under the connection-list lock.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "log/TextCase.h"
#include "transport/TransportTimings.h"
#include "transport/gengsk.h"
#include "transport/htctl.h"
#include "transport/htctlframing.h"
#include "transport/htctlparse.h"
#include "transport/password.h"

namespace vel {

namespace {

using SessionTable = ICTLCommon<CTL_HTTP_SESSION>;

constexpr size_t kTargetChars = 127;
constexpr int kSettingLength = 256;
constexpr int kStoredKeyLength = 128;
constexpr int kNoAnswer = -1; // a call that got no reply (or was never placed)
constexpr int kCancelPollMs = 20;
constexpr int kReplyPollMs = 100;
constexpr int kWantsHelpFlag = 4;
constexpr int kUserNameFlag = 8;
constexpr size_t kBrowseNameChars = 15;
constexpr size_t kBrowseBlockFixed = 37;
constexpr size_t kBrowseTextOffset = 26;

const char* Text(const char* text) {
    return text != nullptr ? text : "";
}

// The key as it travels: the digest of the key as a link holds it (upper
// case); empty when there is no key.
std::string WireGsk(const std::string& key) {
    if (key.empty()) {
        return "";
    }
    char* gsk = GenWireGsk(UppercaseString(key).c_str());
    std::string wire = gsk != nullptr ? gsk : "";
    free(gsk);
    return wire;
}

// Splits a target "n\name" (at most 127 characters are looked at) at its
// first backslash; false without one.
bool SplitTarget(const char* target, std::string& gateway, std::string& name) {
    if (target == nullptr) {
        return false;
    }
    const std::string text(target, strnlen(target, kTargetChars));
    const size_t slash = text.find('\\');
    if (slash == std::string::npos) {
        return false;
    }
    gateway = text.substr(0, slash);
    name = text.substr(slash + 1);
    return true;
}

// One numbered gateway of the settings.
struct GatewaySettings {
    std::string m_address; // empty: no such gateway
    bool m_useProxy = false;
    std::string m_proxy;
    std::string m_key; // clear
    std::string m_name;
};

std::string Param(CHTCTL& ctl, const char* prefix, int n, int length) {
    std::vector<char> buf(size_t(length), '\0');
    ctl.GetGatewayParamFromIndex(prefix, n, buf.data(), length);
    return buf.data();
}

// Browse and add-domain read the proxy flag as an integer setting, Call as
// text through the gateway parameters.
enum class ProxyFlag { kInteger, kText };

GatewaySettings ReadGateway(CHTCTL& ctl, int n, ProxyFlag flag = ProxyFlag::kInteger) {
    GatewaySettings g;
    g.m_address = n >= 1 ? Param(ctl, "Gateway", n, kSettingLength) : "";
    if (g.m_address.empty()) {
        return g;
    }
    if (flag == ProxyFlag::kInteger) {
        const std::string flagKey = "Gateway_UseWebProxy_" + std::to_string(n);
        g.m_useProxy = ctl.ctl_configint("HTTP", flagKey.c_str(), 0) != 0;
    } else {
        g.m_useProxy =
            ParseDecimal(Param(ctl, "Gateway_UseWebProxy", n, kSettingLength).c_str()) != 0;
    }
    g.m_proxy = Param(ctl, "Gateway_WebProxy", n, kSettingLength);
    g.m_key = ClearGatewayKey(Param(ctl, "Gateway_Gsk", n, kStoredKeyLength).c_str());
    g.m_name = Param(ctl, "Gateway_Name", n, kStoredKeyLength);
    return g;
}

// A connected link to the gateway (its use raised), or null.
CTL_HTTP_CONNECTION* ConnectGateway(CHTCTL& ctl, const GatewaySettings& g, const char* key) {
    if (g.m_address.empty()) {
        return nullptr;
    }
    CTL_HTTP_CONNECTION* link = nullptr;
    ctl.ConnectToGateway(g.m_address.c_str(), key, link, nullptr,
                         g.m_useProxy ? g.m_proxy.c_str() : nullptr);
    return link != nullptr && link->IsConnected() ? link : nullptr;
}

bool Elapsed(uint32_t start, int limitMs) {
    return int64_t(uint32_t(NowMs() - start)) > int64_t(limitMs);
}

// One client of a browse reply.
struct BrowsedClient {
    std::string m_name, m_address, m_hostName, m_mac, m_context, m_status, m_chatId;
    std::string m_a[4];
};

// The block handed to the application for one browsed client.
std::vector<unsigned char> BrowseBlock(const BrowsedClient& c) {
    size_t texts = c.m_hostName.size() + c.m_mac.size() + c.m_chatId.size();
    for (const std::string& a : c.m_a) {
        texts += a.size();
    }
    std::vector<unsigned char> block(texts + kBrowseBlockFixed, 0);
    block[0] = 2; // 16-bit values, least significant byte first
    memcpy(&block[2], c.m_name.data(), std::min(c.m_name.size(), kBrowseNameChars));
    block[20] = ParseDecimal(c.m_status.c_str()) == 1 ? 1 : 0;
    block[22] = 1;
    std::string text;
    if (!c.m_chatId.empty()) {
        text = c.m_hostName + "|" + c.m_mac + "|" + c.m_chatId;
        for (const std::string& a : c.m_a) {
            text += "|" + a;
        }
    } else if (!c.m_hostName.empty()) {
        text = c.m_hostName;
        if (!c.m_mac.empty()) {
            text += "|" + c.m_mac;
        }
    }
    // At most the texts and six bars: the block keeps a NUL after them.
    memcpy(&block[kBrowseTextOffset], text.data(), text.size());
    return block;
}

} // namespace

int CHTCTL::FindSlaves(const char* match, int flags, int) {
    std::string gateway;
    std::string name;
    if (!SplitTarget(match, gateway, name)) {
        return 0;
    }
    const int n = ParseDecimal(gateway.c_str());

    // Each connect is one use of a link (two gateway entries may share one),
    // and each use is given back at the end.
    std::vector<CTL_HTTP_CONNECTION*> used;
    auto browse = [&](const GatewaySettings& g) {
        CTL_HTTP_CONNECTION* link = ConnectGateway(*this, g, g.m_key.c_str());
        if (link == nullptr) {
            return;
        }
        used.push_back(link);
        {
            CLockUnlessHeld list(m_lock);
            link->m_browse_pending = true;
            link->m_browsing = true;
        }
        OutgoingMessage request(*link);
        request.Add("CMD=CTL_BROWSE\n");
        request.Line("MATCH_NAME=%s\n", name.c_str());
        if ((flags & kWantsHelpFlag) != 0) {
            request.Add("WANTSHELP=1\n");
        }
        if ((flags & kUserNameFlag) != 0) {
            request.Add("REQUSERNAME=1\n");
        }
        request.Add("REQHOSTNAME=1\n");
        request.Line("GSK=%s\n", WireGsk(g.m_key).c_str());
        // The gateway's name comes back in each result's address, telling the
        // caller which gateway found the client.
        request.Line("CONTEXT=%s\n", g.m_name.c_str());
        request.Line("CTLTYPE=%d\n", m_ctltype);
        request.WriteTo(*link);
    };
    if (n == 0) {
        for (int g = 1; g < INT_MAX; ++g) {
            const GatewaySettings settings = ReadGateway(*this, g);
            if (settings.m_address.empty()) {
                break;
            }
            browse(settings);
        }
    } else {
        browse(ReadGateway(*this, n));
    }

    // No time limit while a link is up; a link that went down can no longer
    // bring its reply.
    for (;;) {
        {
            CLockUnlessHeld list(m_lock);
            if (std::none_of(m_connections.begin(), m_connections.end(),
                             [](auto* c) { return c->m_browse_pending && c->IsConnected(); })) {
                break;
            }
        }
        SleepMs(kReplyPollMs);
    }
    CLockUnlessHeld list(m_lock);
    for (CTL_HTTP_CONNECTION* link : used) {
        link->m_browsing = false;
        link->m_browse_pending = false;
        CloseGatewayConnection(link);
    }
    return 0;
}

void CHTCTL::OnBrowseReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    BrowsedClient client;
    std::string* const fields[] = {&client.m_name,   &client.m_address, &client.m_hostName,
                                   &client.m_mac,    &client.m_context, &client.m_status,
                                   &client.m_chatId, &client.m_a[0],    &client.m_a[1],
                                   &client.m_a[2],   &client.m_a[3]};
    static const char* const kKeys[] = {"CLIENT_NAME", "CLIENT_IP_ADDRESS",
                                        "HOSTNAME",    "MACADDRESS",
                                        "CONTEXT",     "STATUS",
                                        "CHATID",      "A1",
                                        "A2",          "A3",
                                        "A4"};
    int more = 0;
    bool ended = false;
    ForEachBodyLine(body, [&](char* line) {
        if (ended) {
            return;
        }
        int reason = 0;
        std::string end;
        if (TakeField(line, "FAILED_REASON", reason)) {
            m_failed_reason = reason;
        } else if (TakeField(line, "END_CLIENT", end)) {
            if (client.m_name.empty()) {
                ended = true; // a client without a name ends the list
                return;
            }
            bool pending;
            {
                CLockUnlessHeld list(m_lock);
                pending = connection.m_browse_pending;
            }
            if (pending) {
                std::vector<unsigned char> block = BrowseBlock(client);
                std::string addr = ">" + client.m_context + "/" + client.m_address;
                CTL_CALLBACK cb;
                memset(&cb, 0, sizeof cb);
                cb.data.transport = kCtlTransportHttp;
                cb.data.addr = &addr[0];
                cb.data.data = block.data();
                cb.data.datalen = int(block.size());
                RaiseCallback(kCtlDataReceived, &cb);
            }
            client = BrowsedClient();
        } else if (!TakeField(line, "MORE", more)) {
            for (size_t i = 0; i < sizeof kKeys / sizeof kKeys[0]; ++i) {
                if (TakeField(line, kKeys[i], *fields[i])) {
                    break;
                }
            }
        }
    });
    if (more == 0) {
        CLockUnlessHeld list(m_lock);
        connection.m_browse_pending = false;
    }
}

int CHTCTL::Call(const char* name, int, char*, char*) {
    std::string gatewayPart;
    std::string callee;
    if (!SplitTarget(name, gatewayPart, callee)) {
        return kCtlCallBadTarget;
    }
    // With "CallByName" the part before the backslash names the gateway.
    const int n = ctl_configint("HTTP", "CallByName", 0) != 0
                      ? GetGatewayIndexFromName(gatewayPart.c_str())
                      : ParseDecimal(gatewayPart.c_str());
    const GatewaySettings g = ReadGateway(*this, n, ProxyFlag::kText);
    if (g.m_address.empty()) {
        return kCtlCallBadTarget;
    }

    const int session = ReserveSession();
    if (session == 0) {
        return kNoAnswer;
    }
    CTL_HTTP_CONNECTION* link = ConnectGateway(*this, g, g.m_key.c_str());
    if (link == nullptr) {
        CTransportLocks locks(*this);
        m_sessions[session - 1].Detach();
        return kNoAnswer;
    }
    {
        CLockUnlessHeld list(m_lock);
        link->m_connect_session = session;
        link->m_connect_complete = false;
        link->m_connect_result = kNoAnswer;
    }
    OutgoingMessage request(*link);
    request.Add("CMD=CTL_CONNECT\n");
    request.VersionLine(link->m_protocol_ver.load());
    request.Line("CONTROL_NAME=%s\n", m_name);
    request.Line("CLIENT_IP_ADDRESS=%s\n", callee.c_str());
    // Here only the parts that are known.
    const HostIdentity identity = ReadHostIdentity(*link);
    if (!identity.m_hostName.empty()) {
        request.Line("HOSTNAME=%s\n", identity.m_hostName.c_str());
    }
    if (!identity.m_mac.empty() && identity.m_mac != "000000000000") {
        request.Line("MACADDRESS=%s\n", identity.m_mac.c_str());
    }
    request.Line("GSK=%s\n", WireGsk(g.m_key).c_str());
    request.WriteTo(*link);

    // The reply ends the wait; a cancelled call waits for the gateway's
    // answer to the cancel. Each wait ends when the link goes or after the
    // reply time-out.
    auto complete = [&] {
        CLockUnlessHeld list(m_lock);
        return link->m_connect_complete;
    };
    const int limit = gTransportTimings.m_replyTimeoutMs.load();
    uint32_t start = NowMs();
    bool cancelled = false;
    while (!complete() && link->IsConnected() && !Elapsed(start, limit)) {
        if (!cancelled && CheckCancelOperation() != 0) {
            cancelled = true;
            CancelCall(link, m_name, callee.c_str());
            start = NowMs();
        }
        SleepMs(cancelled ? kReplyPollMs : kCancelPollMs);
    }

    int result;
    {
        CTransportLocks locks(*this);
        result = link->m_connect_complete ? link->m_connect_result : kNoAnswer;
        link->m_connect_session = 0;
        CTL_HTTP_SESSION& s = m_sessions[session - 1];
        if (result == 0) {
            s.Attach(link, s.m_connection_id); // the reply stored the gateway's number
            s.m_inuse = 2;
        } else {
            s.Detach();
        }
    }
    if (result != 0) {
        CloseGatewayConnection(link); // an established session keeps its link
    }
    return result;
}

int CHTCTL::CancelCall(CTL_HTTP_CONNECTION* connection, const char* controlName,
                       const char* clientAddress) {
    if (connection == nullptr) {
        return -1;
    }
    OutgoingMessage request(*connection);
    request.Add("CMD=CTL_CANCEL_CONNECT\n");
    request.Line("CONTROL_NAME=%s\n", Text(controlName));
    request.Line("CLIENT_IP_ADDRESS=%s\n", Text(clientAddress));
    request.WriteTo(*connection);
    return 0;
}

void CHTCTL::OnConnectReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    int result = -1;
    std::string clientName;
    uint32_t id = 0;
    std::string version = "1.1"; // when the gateway names none
    ForEachBodyLine(body, [&](char* line) {
        int reason = 0;
        if (TakeField(line, "FAILED_REASON", reason)) {
            m_failed_reason = reason;
        } else {
            TakeField(line, "RESULT", result) || TakeField(line, "CONNECTION_ID", id) ||
                TakeField(line, "PROTOCOL_VER", version) ||
                TakeField(line, "CLIENT_NAME", clientName);
        }
    });
    // The session's gateway number changes under both locks.
    CTransportLocks locks(*this);
    const int session = connection.m_connect_session;
    if (Valid(session)) {
        CTL_HTTP_SESSION& s = m_sessions[session - 1];
        memset(s.m_remote_name, 0, sizeof s.m_remote_name);
        memcpy(s.m_remote_name, clientName.data(),
               std::min(clientName.size(), sizeof s.m_remote_name - 1));
        s.m_connection_id = id;
    }
    connection.m_connect_result = result;
    connection.LowerProtocolVersion(MakeMajorMinVerParam(version.c_str()));
    connection.m_connect_complete = true;
}

int CHTCTL::AddDomain(const char* name, CTL_ADDDOMAIN_PARAMS* params, long* result) {
    if (name == nullptr || *name == '\0' || params == nullptr) {
        errno = kCtlErrorBadArgument;
        return 0;
    }
    const GatewaySettings g = ReadGateway(*this, ParseDecimal(name));
    CTL_HTTP_CONNECTION* link = ConnectGateway(*this, g, "");
    if (link == nullptr) {
        errno = g.m_address.empty() ? kCtlErrorBadArgument : ENOTCONN;
        return 0;
    }
    {
        CLockUnlessHeld list(m_lock);
        link->m_adddomain_pending = true;
        link->m_adddomain_result = false;
    }
    OutgoingMessage request(*link);
    request.Add("CMD=ADDDOMAIN\n");
    request.Line("GUID=%s\n", Text(params->guid));
    request.Line("DESC=%s\n", Text(params->description));
    request.Line("KEY=%s\n", Text(params->key));
    request.Add("GSK=********\n"); // never the key itself
    request.WriteTo(*link);

    auto pending = [&] {
        CLockUnlessHeld list(m_lock);
        return link->m_adddomain_pending;
    };
    const int limit = gTransportTimings.m_replyTimeoutMs.load();
    const uint32_t start = NowMs();
    int error = 0;
    while (pending()) {
        if (CheckCancelOperation() != 0) {
            error = kCtlErrorCancelled;
            break;
        }
        if (Elapsed(start, limit)) {
            error = kCtlErrorTimedOut;
            break;
        }
        SleepMs(kCancelPollMs);
    }
    bool replied;
    bool added;
    {
        CLockUnlessHeld list(m_lock);
        replied = !link->m_adddomain_pending;
        added = link->m_adddomain_result;
        link->m_adddomain_pending = false;
        CloseGatewayConnection(link);
    }
    if (!replied) {
        errno = error;
        return 0;
    }
    if (result != nullptr) {
        *result = added ? 1 : 0;
    }
    return 1;
}

void CHTCTL::OnAddDomainReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION& connection) {
    int result = 0;
    // "ERROR" carries nothing this side uses.
    ForEachBodyLine(body, [&](char* line) { TakeField(line, "RESULT", result); });
    CLockUnlessHeld list(m_lock);
    connection.m_adddomain_result = result != 0;
    connection.m_adddomain_pending = false;
}

int CHTCTL::UserStatus(const char*, tagCTL_USERSTATUSINFO* info) {
    if (info == nullptr) {
        return -1;
    }
    CLockUnlessHeld list(m_lock);
    if (m_connections.empty()) {
        return 0;
    }
    CTL_HTTP_CONNECTION& link = *m_connections.front();
    OutgoingMessage request(link);
    request.Add("CMD=USERSTATUS\n");
    request.Line("USER=%s\n", Text(info->username));
    if (info->department != nullptr && *info->department != '\0') {
        request.Line("DEPT=%s\n", info->department);
    }
    if (info->apptype != 0) {
        request.Line("APPTYPE=%d\n", info->apptype);
    }
    request.WriteTo(link);
    return 0;
}

} // namespace vel

// The numbered gateway list of the settings and connecting a named gateway.
// Callers: the directory and call operations, on the application's threads.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <limits.h>

#include "transport/htctl.h"

namespace vel {

namespace {

constexpr int kGatewayNameLength = 128;
constexpr int kKeyLength = 128;

} // namespace

int CHTCTL::GetGatewayIndexFromName(const char* name) {
    for (int n = 1; n < INT_MAX; ++n) {
        char key[kKeyLength];
        snprintf(key, sizeof key, "Gateway_Name_%d", n);
        char value[kGatewayNameLength];
        ctl_configstr("HTTP", key, value, sizeof value);
        if (value[0] == '\0') {
            return 0;
        }
        if (name != nullptr && strcasecmp(value, name) == 0) {
            return n;
        }
    }
    return 0;
}

char* CHTCTL::GetGatewayParamFromIndex(const char* prefix, int index, char* buf, int buflen) {
    if (buf == nullptr || buflen <= 0) {
        return buf;
    }
    memset(buf, 0, size_t(buflen));
    char key[kKeyLength];
    snprintf(key, sizeof key, "%s_%d", prefix != nullptr ? prefix : "", index);
    ctl_configstr("HTTP", key, buf, buflen);
    return buf;
}

int CHTCTL::ConnectToGateway(const char* target, const char* key, CTL_HTTP_CONNECTION*& connection,
                             const char* name, const char* proxy) {
    in_addr address{};
    int port = kDefaultGatewayPort;
    const int parsed = ParseTarget(target, &address, &port);
    if (parsed != 0) {
        return parsed;
    }
    {
        CSingleLock lock(&m_lock, TRUE);
        for (CTL_HTTP_CONNECTION* existing : m_connections) {
            in_addr linkAddress{};
            int linkPort = 0;
            existing->GetGatewayTarget(&linkAddress, &linkPort);
            if (linkAddress.s_addr == address.s_addr && linkPort == port) {
                connection = existing;
                const int result = existing->Connect();
                // A failed Connect is returned from here, inside the list
                // lock, and the lock was once left held on this path. Held
                // for ever, a non-recursive lock would block every later user
                // of the list (the destructor included), so the scoped lock is
                // released on this return like on every other; the caller
                // still gets the error.
                return result;
            }
        }
    }
    auto* link = new CTL_HTTP_CONNECTION(name != nullptr ? name : target, key, this, proxy);
    {
        CSingleLock lock(&m_lock, TRUE);
        m_connections.push_back(link);
    }
    connection = link;
    return link->Connect(); // a link that fails to connect stays in the list
}

} // namespace vel

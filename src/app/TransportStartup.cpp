#include "app/TransportStartup.h"

#include <string.h>

#include <algorithm>

#include "app/AppTimings.h"
#include "app/Notification.h"
#include "app/Undelivered.h"
#include "app/corvanenotify.h"
#include "host/MachineDetails.h"
#include "log/Log.h"

std::atomic<vel::CHTCTL*> transport{nullptr};

namespace {

constexpr int kClientType = -1; // negative: the transport reconnects by itself
constexpr int kSlaveType = 256; // connects to the gateway at Create
constexpr int kSessionCount = 10;

} // namespace

int NextRetryDelay(int delaySeconds) {
    return delaySeconds > kMaxRetryDelaySeconds / 2 ? kMaxRetryDelaySeconds : delaySeconds * 2;
}

void FillCreateParams(tagCTLCREATEPARAMS& params, const std::string& systemName) {
    memset(&params, 0, sizeof params);
    params.cbSize = kCreateParamsSize;
    memcpy(params.name, systemName.data(), std::min(systemName.size(), sizeof params.name));
    params.ctltype = kClientType;
    params.slavetype = kSlaveType;
    params.sessions = kSessionCount;
    params.callback = &ClientCallback;
    params.cbdata = nullptr;
}

bool StartTransport() {
    std::string systemName;
    vel::GetMachineSystemName(systemName);
    tagCTLCREATEPARAMS params;
    FillCreateParams(params, systemName);
    int delay = kFirstRetryDelaySeconds;
    for (;;) {
        auto* attempt = new vel::CHTCTL(kTransportPort);
        if (gKeepUndelivered) {
            attempt->m_registeredHook = &WakeForRegistration;
        }
        transport = attempt;
        if (attempt->Create(&params) == 0) {
            return true;
        }
        // Forgotten before it goes, so no thread can reach a destroyed object.
        transport = nullptr;
        delete attempt;
        gAppTimings.m_retryWait.load()(delay);
        delay = NextRetryDelay(delay);
        vel::Log("Couldn't connect. Trying again.");
    }
}

void StopTransport() {
    delete transport.exchange(nullptr);
}

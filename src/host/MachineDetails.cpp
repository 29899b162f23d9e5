#include "host/MachineDetails.h"

#include "host/CommandText.h"
#include "host/PipeSubprocess.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utmp.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace vel {

namespace {

constexpr int kHardwareAddressLength = 6;

// The hardware address of "eth0". A failed query (no such card, no
// permission) is not reported: the address then reads as all zeros.
void QueryEth0(int sock, unsigned char (&address)[kHardwareAddressLength]) {
    struct ifreq request;
    memset(&request, 0, sizeof request);
    memcpy(request.ifr_name, "eth0", sizeof "eth0");
    int querySocket = sock == -1 ? socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) : sock;
    if (querySocket == -1 || ioctl(querySocket, SIOCGIFHWADDR, &request) != 0) {
        memset(&request, 0, sizeof request);
    }
    if (sock == -1 && querySocket != -1) {
        close(querySocket);
    }
    memcpy(address, request.ifr_hwaddr.sa_data, sizeof address);
}

// A fixed-size login-record field as text: up to its first zero byte, and
// never past `size` bytes.
std::string FieldText(const char* field, std::size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string LineText(const struct utmp& record) {
    return FieldText(record.ut_line, sizeof record.ut_line);
}

// The id field has no terminator when all four bytes are used; its text then
// runs on into the user field and beyond, but stops at the record's end.
std::string IdText(const struct utmp& record) {
    const std::size_t offset = offsetof(struct utmp, ut_id);
    return FieldText(reinterpret_cast<const char*>(&record) + offset, sizeof record - offset);
}

// The console's X display: ":0", "host:0.0", but not ":1".
bool IsConsoleDisplay(const std::string& text) {
    std::size_t colon = text.rfind(':');
    return colon != std::string::npos && colon + 1 < text.size() && text[colon + 1] == '0';
}

// The user of the last login record, of any type, whose field is on the
// console display; name is left alone when none is.
void ScanLoginRecords(std::string (*field)(const struct utmp&), std::string& name) {
    setutent();
    while (const struct utmp* record = getutent()) {
        if (IsConsoleDisplay(field(*record))) {
            name = FieldText(record->ut_user, sizeof record->ut_user);
        }
    }
    endutent();
}

struct DisplayManager {
    const char* process;
    const char* account;
};

// Probed in this order. xdm reports the kdm account on purpose.
constexpr DisplayManager kDisplayManagers[] = {
    {"mdkkdm", "mdkkdm"}, {"kdm", "kdm"}, {"gdm-binary", "gdm"}, {"gdm", "gdm"}, {"xdm", "kdm"},
};

constexpr const char* kKdeProbe = "/bin/pidof kdeinit";

} // namespace

void GetMachineSystemName(std::string& name) {
    char buffer[kMaxHostnameLength] = {0};
    if (gethostname(buffer, sizeof buffer) != 0) {
        name = "";
        return;
    }
    name.assign(buffer, strnlen(buffer, sizeof buffer));
}

void GetMachineMacAddress(std::string& mac, int sock) {
    unsigned char address[kHardwareAddressLength];
    QueryEth0(sock, address);
    char text[2 * kHardwareAddressLength + 1] = {0};
    for (int i = 0; i < kHardwareAddressLength; ++i) {
        snprintf(text + 2 * i, sizeof text - 2 * i, "%02X", address[i]);
    }
    mac = text;
}

void GetMachineIpAddress(std::string& ip, int sock) {
    // Bytes 2..5 of the hardware address read as an IPv4 address: the
    // gateway only needs a stable per-machine value here.
    unsigned char address[kHardwareAddressLength];
    QueryEth0(sock, address);
    struct in_addr asIpv4;
    memcpy(&asIpv4, address + 2, sizeof asIpv4);
    char text[INET_ADDRSTRLEN] = {0};
    ip = inet_ntop(AF_INET, &asIpv4, text, sizeof text) != nullptr ? text : "0.0.0.0";
}

void GetMachineUserName(std::string& name) {
    name = "";
    ScanLoginRecords(LineText, name);
    if (name.empty()) {
        ScanLoginRecords(IdText, name);
    }
    if (!name.empty()) {
        return;
    }
    // Nobody on the console: show the notification on the login screen.
    for (const DisplayManager& manager : kDisplayManagers) {
        if (ProcessRunning(manager.process)) {
            name = manager.account;
            return;
        }
    }
}

bool ProcessRunning(const std::string& processName) {
    FILE* ps = popen("/bin/ps -A -o command", "re");
    if (ps == nullptr) {
        return false;
    }
    char line[1024];
    bool found = false;
    while (!found && fgets(line, sizeof line, ps) != nullptr) {
        std::size_t length = strlen(line);
        if (length > 0) {
            --length; // the line feed
        }
        found = PsLineMatches(std::string(line, length), processName);
    }
    pclose(ps);
    return found;
}

bool DesktopEnvironmentIsKDE() {
    std::string output;
    PipeSubprocess(kKdeProbe, output);
    return !output.empty();
}

bool DesktopEnvironmentIsGnome() {
    // GNOME is assumed whenever KDE is not running.
    std::string output;
    PipeSubprocess(kKdeProbe, output);
    return output.empty();
}

void DesktopUser(std::string& name) {
    name = "";
    if (DesktopEnvironmentIsKDE()) {
        PipeSubprocess("ps -o user= -C startkde", name);
    } else if (DesktopEnvironmentIsGnome()) {
        PipeSubprocess("ps -o user= -C gnome-session", name);
    }
}

} // namespace vel

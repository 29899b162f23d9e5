// Who and where this machine is: host name, eth0 hardware address, desktop
// user and process probes. Re-entrant except GetMachineUserName, which walks
// the C library's shared login-record cursor (one caller at a time).
#pragma once

#include <string>

namespace vel {

constexpr int kMaxHostnameLength = 256;

void GetMachineSystemName(std::string& name);
void GetMachineMacAddress(std::string& mac, int sock);
void GetMachineIpAddress(std::string& ip, int sock);
void GetMachineUserName(std::string& name);
bool ProcessRunning(const std::string& processName);
bool DesktopEnvironmentIsKDE();
bool DesktopEnvironmentIsGnome();
void DesktopUser(std::string& name);

} // namespace vel

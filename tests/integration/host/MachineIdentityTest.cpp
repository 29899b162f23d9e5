#include "HostTesting.h"
#include "host/MachineDetails.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using hosttest::RunningProcess;

void ExpectAddresses(const std::string& mac, const std::string& ip) {
    std::string gotMac = "stale", gotIp = "stale";
    vel::GetMachineMacAddress(gotMac, -1);
    vel::GetMachineIpAddress(gotIp, -1);
    EXPECT_EQ(gotMac, mac);
    EXPECT_EQ(gotIp, ip);
}

// Run by the default sandbox: eth0 with 00:1a:2b:3c:4d:5e, host nd-host-test.
TEST(MachineAddress, KnownMacAndHostName) {
    ExpectAddresses("001A2B3C4D5E", "43.60.77.94");
    std::string name = "stale";
    vel::GetMachineSystemName(name);
    EXPECT_EQ(name, "nd-host-test");
}

// Run by a sandbox with --no-eth0.
TEST(MachineAddress, NoEth0) {
    ExpectAddresses("000000000000", "0.0.0.0");
}

// Replaces the sandbox's login records (its private /run/utmp).
void WriteLoginRecords(const std::vector<hosttest::Login>& logins) {
    hosttest::WriteFile(_PATH_UTMP, hosttest::LoginRecords(logins));
}

std::string UserName() {
    std::string name = "stale";
    vel::GetMachineUserName(name);
    return name;
}

TEST(MachineUserName, LastConsoleLoginThenIdFieldThenDisplayManager) {
    const std::pair<std::vector<hosttest::Login>, const char*> logins[] = {
        {{{"alice", ":0"}, {"bob", ":0"}}, "bob"}, // the last match wins
        {{{"alice", ":0"}, {"bob", ":1"}, {"carol", "pts/0"}}, "alice"},
        {{{"gina", "tty7", ":0"}}, "gina"}, // second pass, on the id field
        {{{"gina", "tty7", ":0"}, {"hank", ":0"}}, "hank"},
    };
    for (const auto& [records, user] : logins) {
        WriteLoginRecords(records);
        EXPECT_EQ(UserName(), user) << "expected " << user;
    }
    // No login: the first display manager found in probe order (ps shows the
    // program name given here) names the user.
    WriteLoginRecords({});
    const std::pair<std::vector<const char*>, const char*> managers[] = {
        {{"/usr/sbin/gdm3"}, ""}, // not "gdm"
        {{"/usr/bin/xdm"}, "kdm"},
        {{"/usr/bin/xdm", "[gdm]"}, "gdm"},
        {{"/usr/sbin/gdm", "/usr/bin/kdm"}, "kdm"},
    };
    for (const auto& [programs, user] : managers) {
        std::vector<std::unique_ptr<RunningProcess>> running;
        for (const char* program : programs) {
            running.push_back(std::make_unique<RunningProcess>(
                std::vector<std::string>{program, "120"}, "/bin/sleep"));
        }
        EXPECT_EQ(UserName(), user) << "expected " << user;
    }
}

} // namespace

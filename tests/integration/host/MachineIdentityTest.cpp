#include "HostTesting.h"
#include "host/MachineDetails.h"

#include <utmp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
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

struct LoginRecord {
    const char* line;
    const char* id;
    const char* user;
};

template <std::size_t N> void CopyField(char (&field)[N], const char* text) {
    memcpy(field, text, std::min(strlen(text), N));
}

// Replaces the sandbox's login records (its private /run/utmp).
void WriteLoginRecords(const std::vector<LoginRecord>& records) {
    std::ofstream out(_PATH_UTMP, std::ios::binary | std::ios::trunc);
    for (const LoginRecord& login : records) {
        struct utmp record;
        memset(&record, 0, sizeof record);
        record.ut_type = USER_PROCESS;
        CopyField(record.ut_line, login.line);
        CopyField(record.ut_id, login.id);
        CopyField(record.ut_user, login.user);
        out.write(reinterpret_cast<const char*>(&record), sizeof record);
    }
    ASSERT_TRUE(out.good());
}

std::string UserName() {
    std::string name = "stale";
    vel::GetMachineUserName(name);
    return name;
}

TEST(MachineUserName, LastConsoleLoginThenIdFieldThenDisplayManager) {
    const std::pair<std::vector<LoginRecord>, const char*> logins[] = {
        {{{":0", "", "alice"}, {":0", "", "bob"}}, "bob"}, // the last match wins
        {{{":0", "", "alice"}, {":1", "", "bob"}, {"pts/0", "", "carol"}}, "alice"},
        {{{"tty7", ":0", "gina"}}, "gina"}, // second pass, on the id field
        {{{"tty7", ":0", "gina"}, {":0", "", "hank"}}, "hank"},
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

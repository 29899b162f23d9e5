#include "HostTesting.h"
#include "host/MachineDetails.h"

#include <sys/socket.h>
#include <unistd.h>
#include <utmp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using hosttest::RunningProcess;
const char* const kProbePath = ND_PROBE_PATH;

void ExpectAddresses(const std::string& mac, const std::string& ip) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_NE(sock, -1);
    for (int s : {-1, sock}) {
        std::string gotMac = "stale";
        std::string gotIp = "stale";
        vel::GetMachineMacAddress(gotMac, s);
        vel::GetMachineIpAddress(gotIp, s);
        EXPECT_EQ(gotMac, mac) << "socket " << s;
        EXPECT_EQ(gotIp, ip) << "socket " << s;
    }
    close(sock);
}

// Run by the default sandbox: eth0 with 00:1a:2b:3c:4d:5e.
TEST(MachineAddress, KnownMac) {
    ExpectAddresses("001A2B3C4D5E", "43.60.77.94");
}

// Run by a sandbox with --mac fe:dc:ba:98:76:54: bytes above 127 stay bytes.
TEST(MachineAddress, HighBytesMac) {
    ExpectAddresses("FEDCBA987654", "186.152.118.84");
}

// Run by a sandbox with --no-eth0.
TEST(MachineAddress, NoEth0) {
    ExpectAddresses("000000000000", "0.0.0.0");
}

TEST(MachineSystemName, IsTheHostName) {
    std::string name = "stale";
    vel::GetMachineSystemName(name);
    EXPECT_EQ(name, "nd-host-test");
}

struct LoginRecord {
    short type;
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
        record.ut_type = login.type;
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

class MachineUserName : public testing::Test {
protected:
    void TearDown() override { WriteLoginRecords({}); }
};

TEST_F(MachineUserName, TakesTheLastConsoleLogin) {
    const std::pair<std::vector<LoginRecord>, const char*> cases[] = {
        {{{USER_PROCESS, ":0", "", "alice"}}, "alice"},
        {{{USER_PROCESS, ":0", "", "alice"}, {USER_PROCESS, ":0", "", "bob"}}, "bob"},
        {{{USER_PROCESS, ":0", "", "alice"}, {USER_PROCESS, ":1", "", "bob"}}, "alice"},
        {{{USER_PROCESS, ":1", "", "bob"}, {USER_PROCESS, "pts/0", "", "carol"}}, ""},
        {{{DEAD_PROCESS, "host:0.0", "", "dave"}}, "dave"}, // any record type
        {{{USER_PROCESS, "tty7:", "", "erin"}}, ""},        // nothing after the colon
        // A full line field ends at its 32nd byte, not in the id field.
        {{{USER_PROCESS, ":0", "", "ben"},
          {USER_PROCESS, "tty-with-a-32-byte-long-name-xyz", ":0", "ann"}},
         "ben"},
        // Second pass, on the id field, only when no line matched.
        {{{USER_PROCESS, "tty7", ":0", "gina"}}, "gina"},
        {{{USER_PROCESS, "tty7", ":0", "gina"}, {USER_PROCESS, ":0", "", "hank"}}, "hank"},
        // A full id field runs on into the user field: "abc:" + "0wen".
        {{{USER_PROCESS, "tty7", "abc:", "0wen"}}, "0wen"},
        {{{USER_PROCESS, "tty7", "abc:", "xavier"}}, ""},
    };
    for (const auto& [records, user] : cases) {
        WriteLoginRecords(records);
        EXPECT_EQ(UserName(), user) << "expected " << user;
    }
}

TEST_F(MachineUserName, FallsBackToTheFirstRunningDisplayManager) {
    const std::pair<std::vector<std::vector<std::string>>, const char*> cases[] = {
        {{}, ""},
        {{{"/usr/bin/xdm"}}, "kdm"},
        {{{"/usr/sbin/gdm", "--nodaemon"}}, "gdm"},
        {{{"/usr/sbin/gdm-binary"}}, "gdm"},
        {{{"kdm"}}, "kdm"},
        {{{"/usr/bin/mdkkdm"}}, "mdkkdm"},
        {{{"/usr/bin/xdm"}, {"/usr/sbin/gdm"}}, "gdm"},
        {{{"/usr/sbin/gdm"}, {"/usr/bin/kdm"}}, "kdm"},
        {{{"/usr/sbin/xdm-helper"}}, ""},
    };
    WriteLoginRecords({});
    for (const auto& [processes, user] : cases) {
        std::vector<std::unique_ptr<RunningProcess>> running;
        for (const std::vector<std::string>& argv : processes) {
            running.push_back(std::make_unique<RunningProcess>(argv, kProbePath));
        }
        EXPECT_EQ(UserName(), user) << "expected " << user;
    }
}

TEST_F(MachineUserName, ALoginWinsOverADisplayManager) {
    RunningProcess gdm({"/usr/sbin/gdm"}, kProbePath);
    WriteLoginRecords({{USER_PROCESS, ":0", "", "alice"}});
    EXPECT_EQ(UserName(), "alice");
}

// The matching rules are the unit tests' (PsLineMatches); here ps is really
// read, line feeds dropped.
TEST(ProcessRunning, MatchesProgramNamesOfRealProcesses) {
    const std::tuple<std::vector<std::string>, const char*, bool> cases[] = {
        {{"/usr/sbin/gdm", "--nodaemon"}, "gdm", true},
        {{"gdm-binary"}, "gdm", false},
        {{"/opt/my", "tool"}, "/opt/my tool", true}, // the whole line
    };
    for (const auto& [argv, probe, running] : cases) {
        RunningProcess process(argv, kProbePath);
        EXPECT_EQ(vel::ProcessRunning(probe), running) << argv[0] << " / " << probe;
    }
    EXPECT_FALSE(vel::ProcessRunning("gdm")) << "every probe has been killed";
}

TEST(DesktopUser, IsTheOwnerOfTheSessionProcess) {
    hosttest::TempDir dir;
    const std::tuple<std::vector<std::string>, bool, const char*> cases[] = {
        {{"kdeinit", "startkde", "gnome-session"}, true, "root"},
        {{"kdeinit"}, true, ""},
        {{"gnome-session"}, false, "root"},
        {{}, false, ""},
    };
    for (const auto& [programs, kde, owner] : cases) {
        std::vector<std::unique_ptr<RunningProcess>> running;
        for (const std::string& program : programs) {
            std::string path = hosttest::InstallProgram(kProbePath, dir.Path(), program);
            running.push_back(
                std::make_unique<RunningProcess>(std::vector<std::string>{path}, path));
        }
        EXPECT_EQ(vel::DesktopEnvironmentIsKDE(), kde);
        EXPECT_EQ(vel::DesktopEnvironmentIsGnome(), !kde);
        std::string user = "stale";
        vel::DesktopUser(user);
        EXPECT_EQ(user, owner) << programs.size() << " programs";
    }
}

} // namespace

// The Debian package as an admin gets it: built with cpack, unpacked into a
// scratch root inside the sandbox, its files checked, then the daemon it
// installs started the way its systemd unit says (Type=forking, PIDFile)
// against the development gateway, with a key written by its notifykey.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "DevGateway.h"
#include "E2E.h"

namespace {

using namespace e2e;

constexpr const char* kWork = "/run/nd-package";
const std::string kRoot = "/run/nd-package/root";
const std::string kUnit = kRoot + "/lib/systemd/system/notifydaemon.service";

// Runs a command; its exit status (-1 if it did not end in time) and output
// (standard output and error) without trailing newlines.
int RunCommand(const std::vector<std::string>& args, std::string* output = nullptr,
               int timeoutSeconds = 30) {
    const std::string outPath = std::string(kWork) + "/command.out";
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const pid_t pid =
        Spawn(args[0][0] == '/' ? args[0] : "/usr/bin/" + args[0], args, {}, {{1, out}, {2, out}});
    close(out);
    const int status = WaitForExit(pid, timeoutSeconds);
    if (output != nullptr) {
        *output = ReadFile(outPath);
        output->erase(output->find_last_not_of("\n ") + 1);
    }
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A setting of the unit file (each name appears once, in [Service]).
std::string Service(const std::string& name) {
    std::smatch value;
    const std::string unit = ReadFile(kUnit);
    return std::regex_search(unit, value, std::regex("\n" + name + "=(.*)")) ? value.str(1) : "";
}

class Package : public testing::Test {
protected:
    static void SetUpTestSuite() {
        mkdir(kWork, 0755);
        if (RunCommand({"cpack", "--config", ND_CPACK_CONFIG, "-G", "DEB", "-B",
                        std::string(kWork) + "/out"},
                       &s_error, 240) != 0 ||
            RunCommand({"dpkg-deb", "-x", s_deb, kRoot}, &s_error) != 0) {
            return;
        }
        s_error.clear();
    }
    void SetUp() override { ASSERT_EQ(s_error, ""); }

    static std::string Field(const std::string& name) {
        std::string value;
        RunCommand({"dpkg-deb", "-f", s_deb, name}, &value);
        return value;
    }

    static const std::string s_deb;
    static std::string s_error;
};

const std::string Package::s_deb =
    std::string(kWork) + "/out/notifydaemon_" ND_VERSION "_amd64.deb";
std::string Package::s_error;

TEST_F(Package, HoldsTheInstallLayout) {
    EXPECT_EQ(Field("Package") + " " + Field("Version"), "notifydaemon " ND_VERSION);
    const std::string depends = Field("Depends");
    for (const char* needed : {"procps", "wget", "libx11-6", "libgtk-4-1", "libxau6"}) {
        EXPECT_NE(depends.find(needed), std::string::npos) << depends;
    }
    const std::pair<const char*, mode_t> files[] = {
        {"/usr/sxa/daemon/notifydaemon", 0755},
        {"/usr/sxa/daemon/notifykey", 0755},
        {"/usr/sxa/gui/message/notifymessage", 0755},
        {"/usr/sxa/daemon/config.dat.sample", 0644},
        {"/lib/systemd/system/notifydaemon.service", 0644},
        {"/etc/logrotate.d/notifydaemon", 0644},
    };
    for (const auto& [path, mode] : files) {
        struct stat info;
        ASSERT_EQ(stat((kRoot + path).c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 07777, mode) << path;
    }
    std::string listing;
    ASSERT_EQ(RunCommand({"dpkg-deb", "-c", s_deb}, &listing), 0);
    EXPECT_EQ(listing.find("/usr/sxa/daemon/config.dat\n"), std::string::npos)
        << "the admin's settings are never shipped";

    EXPECT_EQ(Service("Type"), "forking");
    EXPECT_EQ(Service("ExecStart"), "/usr/sxa/daemon/notifydaemon");
    EXPECT_EQ(Service("PIDFile"), "/usr/sxa/daemon/notifydaemon.pid");
    const std::string logrotate = ReadFile(kRoot + "/etc/logrotate.d/notifydaemon");
    EXPECT_NE(logrotate.find("\n/var/log/notifydaemon.log {\n"), std::string::npos);
    EXPECT_NE(logrotate.find("copytruncate"), std::string::npos);
    ASSERT_EQ(RunCommand({"dpkg-deb", "-e", s_deb, std::string(kWork) + "/control"}), 0);
    EXPECT_EQ(ReadFile(std::string(kWork) + "/control/conffiles"),
              "/etc/logrotate.d/notifydaemon\n");
    const std::string sample = ReadFile(kRoot + "/usr/sxa/daemon/config.dat.sample");
    for (const char* key :
         {"[gateway]", "gatewayip=", "gatewayport=", "gatewaykey=", "department=", "[agent]",
          "UpdateInterval=", "[UI]", "FullScreen=", "FullScreenTimeout=", "LargeLogoPath="}) {
        EXPECT_NE(sample.find(std::string("\n") + key), std::string::npos) << key;
    }
}

TEST_F(Package, InstalledDaemonStartsAsItsUnitSaysWithAKeyFromNotifykey) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the forked daemon comes back to us
    ASSERT_EQ(RunCommand({"cp", "-a", kRoot + "/usr/sxa/.", "/usr/sxa/"}), 0);
    if (access("/usr/bin/systemd-analyze", X_OK) == 0) {
        std::string report;
        EXPECT_EQ(RunCommand({"systemd-analyze", "verify", kUnit}, &report), 0) << report;
    }
    std::string stored;
    ASSERT_EQ(RunCommand({"/usr/sxa/daemon/notifykey", "Pkg-Key-15bytes"}, &stored), 0) << stored;
    devgw::DevGateway gateway;
    ASSERT_GT(gateway.Start(0), 0);
    WriteFile(kConfigPath, "[gateway]\ngatewayip=127.0.0.1\ngatewayport=" +
                               std::to_string(gateway.Port()) + "\ngatewaykey=" + stored + "\n");

    // Type=forking: the started process exits 0 once the daemon is on its way,
    // and the daemon's pid is then read from PIDFile, the daemon's own pid file.
    EXPECT_EQ(RunCommand({Service("ExecStart")}), 0);
    ASSERT_TRUE(WaitUntil([&] { return atoi(ReadFile(Service("PIDFile")).c_str()) > 0; }, 10000));
    pid_t daemon = atoi(ReadFile(Service("PIDFile")).c_str());
    EXPECT_EQ(ReadFile(kPidPath), std::to_string(daemon));
    EXPECT_EQ(ReadFile("/proc/" + std::to_string(daemon) + "/cmdline"),
              Service("ExecStart") + std::string(1, '\0'));
    devgw::Request open;
    EXPECT_TRUE(gateway.WaitForRequest("OPEN", 30000, &open)); // 10 s after connecting
    // The transport upper-cases the clear key before deriving its wire form.
    EXPECT_EQ(open.Field("GSK"), WireKey("PKG-KEY-15BYTES"));

    // systemctl stop: SIGTERM, and the status it ends with counts as success.
    kill(daemon, SIGTERM);
    const int status = WaitForExit(daemon, 10);
    ASSERT_TRUE(status != -1 && WIFEXITED(status));
    EXPECT_EQ(std::to_string(WEXITSTATUS(status)), Service("SuccessExitStatus"));
    EXPECT_EQ(ReadFile(kPidPath), "");
    StopDaemon(daemon);
}

} // namespace

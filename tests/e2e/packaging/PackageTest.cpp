// The Debian package as an admin gets it: built with cpack, unpacked into a
// scratch root inside the sandbox, its files checked, then the daemon it
// installs started the way its systemd unit says (Type=forking, PIDFile)
// against the development gateway, with a key written by its notifykey.
#include "DevGateway.h"
#include "transport/gengsk.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace {

constexpr const char* kWork = "/run/nd-package";
constexpr const char* kRoot = "/run/nd-package/root";
constexpr const char* kDaemonPidPath = "/usr/sxa//daemon/notifydaemon.pid";
constexpr int kCpackMs = 240000;
constexpr int kRegistrationMs = 30000; // the daemon registers 10 s after connecting

using Clock = std::chrono::steady_clock;

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs a command; its exit status (-1 if it did not end in time) and output.
int RunCommand(const std::vector<std::string>& args, std::string* output = nullptr,
               int timeoutMs = 30000) {
    const std::string outPath = std::string(kWork) + "/command.out";
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        FILE* out = freopen(outPath.c_str(), "w", stdout);
        if (out == nullptr || dup2(fileno(stdout), 2) < 0) {
            _exit(126);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (output != nullptr) {
        *output = ReadAll(outPath);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Trim(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// The [Service] settings of a unit file.
std::map<std::string, std::string> ServiceSettings(const std::string& unit) {
    std::map<std::string, std::string> settings;
    std::istringstream in(unit);
    std::string section;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] == '[') {
            section = line;
        } else if (section == "[Service]" && !line.empty() && line[0] != '#' &&
                   line.find('=') != std::string::npos) {
            settings[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        }
    }
    return settings;
}

class Package : public testing::Test {
protected:
    static void SetUpTestSuite() {
        mkdir(kWork, 0755);
        std::string output;
        const int status = RunCommand(
            {"cpack", "--config", ND_CPACK_CONFIG, "-G", "DEB", "-B", std::string(kWork) + "/out"},
            &output, kCpackMs);
        if (status != 0) {
            s_error = "cpack failed:\n" + output;
            return;
        }
        const std::string deb = std::string(kWork) + "/out/notifydaemon_" ND_VERSION "_amd64.deb";
        if (access(deb.c_str(), R_OK) != 0) {
            s_error = "no " + deb + " after cpack:\n" + output;
            return;
        }
        s_deb = deb;
        if (RunCommand({"dpkg-deb", "-x", deb, kRoot}, &output) != 0) {
            s_error = "dpkg-deb -x failed:\n" + output;
        }
    }
    void SetUp() override { ASSERT_TRUE(s_error.empty()) << s_error; }

    static std::string Field(const std::string& name) {
        std::string value;
        RunCommand({"dpkg-deb", "-f", s_deb, name}, &value);
        return Trim(value);
    }

    static std::string s_deb;
    static std::string s_error;
};

std::string Package::s_deb;
std::string Package::s_error;

TEST_F(Package, HoldsTheInstallLayout) {
    EXPECT_EQ(Field("Package"), "notifydaemon");
    EXPECT_EQ(Field("Version"), ND_VERSION);
    const std::string depends = Field("Depends");
    for (const char* needed : {"procps", "wget", "libx11-6", "libxft2"}) {
        EXPECT_NE(depends.find(needed), std::string::npos) << depends;
    }

    const std::string root = kRoot;
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
        ASSERT_EQ(stat((root + path).c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 07777, mode) << path;
    }
    std::string listing;
    ASSERT_EQ(RunCommand({"dpkg-deb", "-c", s_deb}, &listing), 0);
    EXPECT_EQ(listing.find("/usr/sxa/daemon/config.dat\n"), std::string::npos)
        << "the admin's settings are never shipped";

    const std::map<std::string, std::string> service =
        ServiceSettings(ReadAll(root + "/lib/systemd/system/notifydaemon.service"));
    EXPECT_EQ(service.at("Type"), "forking");
    EXPECT_EQ(service.at("ExecStart"), "/usr/sxa/daemon/notifydaemon");
    EXPECT_EQ(service.at("PIDFile"), "/usr/sxa/daemon/notifydaemon.pid");

    const std::string logrotate = ReadAll(root + "/etc/logrotate.d/notifydaemon");
    EXPECT_NE(logrotate.find("\n/var/log/notifydaemon.log {\n"), std::string::npos);
    EXPECT_NE(logrotate.find("copytruncate"), std::string::npos);
    std::string control;
    ASSERT_EQ(RunCommand({"dpkg-deb", "-e", s_deb, std::string(kWork) + "/control"}, &control), 0);
    EXPECT_EQ(ReadAll(std::string(kWork) + "/control/conffiles"),
              "/etc/logrotate.d/notifydaemon\n");

    const std::string sample = ReadAll(root + "/usr/sxa/daemon/config.dat.sample");
    for (const char* key :
         {"[gateway]", "gatewayip=", "gatewayport=", "gatewaykey=", "department=", "[agent]",
          "UpdateInterval=", "[UI]", "FullScreen=", "FullScreenTimeout=", "LargeLogoPath="}) {
        EXPECT_NE(sample.find(std::string("\n") + key), std::string::npos) << key;
    }
}

TEST_F(Package, InstalledDaemonStartsAsItsUnitSaysWithAKeyFromNotifykey) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the forked daemon comes back to us
    ASSERT_EQ(RunCommand({"cp", "-a", std::string(kRoot) + "/usr/sxa/.", "/usr/sxa/"}), 0);
    const std::string unitPath = std::string(kRoot) + "/lib/systemd/system/notifydaemon.service";
    const std::map<std::string, std::string> service = ServiceSettings(ReadAll(unitPath));
    if (access("/usr/bin/systemd-analyze", X_OK) == 0) {
        std::string report;
        EXPECT_EQ(RunCommand({"systemd-analyze", "verify", unitPath}, &report), 0) << report;
    }

    const std::string clearKey = "Pkg-Key-15bytes";
    std::string stored;
    ASSERT_EQ(RunCommand({"/usr/sxa/daemon/notifykey", clearKey}, &stored), 0) << stored;
    devgw::DevGateway gateway;
    ASSERT_GT(gateway.Start(0), 0);
    std::ofstream("/usr/sxa/daemon/config.dat")
        << "[gateway]\ngatewayip=127.0.0.1\ngatewayport=" << gateway.Port()
        << "\ngatewaykey=" << Trim(stored) << "\n";

    // Type=forking: the started process exits 0 once the daemon is on its way,
    // and the daemon's pid is then read from PIDFile.
    EXPECT_EQ(RunCommand({service.at("ExecStart")}), 0);
    pid_t daemon = -1;
    for (int i = 0; i < 500 && daemon <= 0; ++i) {
        daemon = atoi(ReadAll(service.at("PIDFile")).c_str());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(ReadAll(kDaemonPidPath), std::to_string(daemon)) << "the unit's PIDFile is the "
                                                                  "daemon's own pid file";
    EXPECT_EQ(ReadAll("/proc/" + std::to_string(daemon) + "/cmdline"),
              service.at("ExecStart") + std::string(1, '\0'));

    devgw::Request open;
    const bool registered = gateway.WaitForRequest("OPEN", kRegistrationMs, &open);
    // The transport upper-cases the clear key before deriving its wire form.
    std::string upper = clearKey;
    for (char& c : upper) {
        c = char(toupper(static_cast<unsigned char>(c)));
    }
    char* wire = GenWireGsk(upper.c_str());
    const std::string expectedGsk = wire != nullptr ? wire : "";
    free(wire);
    EXPECT_TRUE(registered);
    EXPECT_EQ(open.Field("GSK"), expectedGsk);

    // systemctl stop: SIGTERM, and the status it ends with counts as success.
    kill(daemon, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(std::to_string(WEXITSTATUS(status)), service.at("SuccessExitStatus"));
    EXPECT_EQ(ReadAll(kDaemonPidPath), "");
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

} // namespace

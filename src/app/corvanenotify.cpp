#include "app/corvanenotify.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include "app/Daemon.h"
#include "app/StartupStages.h"
#include "app/Undelivered.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"
#include "config/SettingsReader.h"
#include "host/SessionDiscovery.h"
#include "log/Log.h"

std::set<int> gReceivedMessages;
int gTimerSleepMinutes = 60;
int fullscreen = 0;
std::string fullscreentimeout;
std::string largelogopath;
bool gSessionDiscovery = false;
bool gKeepUndelivered = false;
int current_window_num = 0;
uint64_t gLastWriteTime = 0;
int gNamedPipe = -1;

namespace {

// Started with 0, 1 or 2 closed, the log file would take one of those numbers
// and Daemonise would then point it at /dev/null. Fill any gap first.
void KeepStandardDescriptorsTaken() {
    for (;;) {
        int fd = open("/dev/null", O_RDWR);
        if (fd == -1) {
            return;
        }
        if (fd > 2) {
            close(fd);
            return;
        }
    }
}

[[noreturn]] void GiveUp(const char* message) {
    vel::Log(message);
    vel::UnDaemonise();
    exit(1);
}

} // namespace

int NotifyMain(int, char**) {
    KeepStandardDescriptorsTaken();
    vel::StartLog();
    try {
        vel::Daemonise();
        std::string product;
        vel::install_product(product);
        vel::Log(product + " version " + kProductVersion + " starting up...");
        if (!Configure()) {
            GiveUp("Configuration Failed");
        }
        if (!ConfigurationIsComplete()) {
            GiveUp("Configuration not set (or incomplete). Will not start up.");
        }
        vel::Log("Configuration is good.");
        signal(SIGPIPE, SIG_IGN);
        CreateChannelSocketPairs();
        if (gKeepUndelivered) {
            StartKeptDelivery();
        }
        SpawnAcknowledgeThread();
        StartTransport();
        SpawnTimerThread();
        vel::Log("Started up successfully.");
        for (;;) {
            sleep(1000);
        }
    } catch (const std::exception& e) {
        vel::Log(e.what());
        vel::UnDaemonise();
        vel::Log("Shut down successfully.");
    }
    return 0;
}

void MainSignalHandler(int) {}

bool Configure() {
    std::string path;
    vel::install_path(path);
    path += "daemon/config.dat";
    vel::Preferences* prefs = vel::Preferences::getInstance();
    std::ifstream file(path);
    unsigned long checksum = 0; // computed by the reader, compared with nothing
    if (!file.is_open() || !vel::ReadLines(file, checksum, prefs, 0)) {
        vel::Log("Couldn't load config.dat");
        return false;
    }
    prefs->setConfigString("Client", "Protocols", "3");
    MapNamesFromNewFileFormatToTheOneHtctlExpects();
    gTimerSleepMinutes = prefs->getConfigInt("agent", "UpdateInterval", gTimerSleepMinutes);
    fullscreen = prefs->getConfigInt("UI", "FullScreen", fullscreen);
    fullscreentimeout = prefs->getConfigString("UI", "FullScreenTimeout");
    largelogopath = prefs->getConfigString("UI", "LargeLogoPath");
    gSessionDiscovery = prefs->getConfigInt("UI", "SessionDiscovery", 0) == 1;
    gKeepUndelivered = prefs->getConfigInt("agent", "KeepUndelivered", 0) == 1;
    if (gSessionDiscovery && !vel::LogindRunning()) {
        vel::Log("Session discovery: systemd-logind is not running here, so the X server is "
                 "probed as without it");
    }
    return true;
}

void MapNamesFromNewFileFormatToTheOneHtctlExpects() {
    vel::Preferences* prefs = vel::Preferences::getInstance();
    prefs->setConfigString("HTTP", "GatewayAddress",
                           prefs->getConfigString("gateway", "gatewayip") + ":" +
                               prefs->getConfigString("gateway", "gatewayport"));
    prefs->setConfigString("HTTP", "GSK", prefs->getConfigString("gateway", "gatewaykey"));
    prefs->setConfigString("HTTP", "*Dept", prefs->getConfigString("gateway", "department"));
}

bool ConfigurationIsComplete() {
    // The raw keys of the file are checked, not the mapped HTTP ones.
    vel::Preferences* prefs = vel::Preferences::getInstance();
    return !prefs->getConfigString("gateway", "gatewayip").empty() &&
           !prefs->getConfigString("gateway", "gatewaykey").empty();
}

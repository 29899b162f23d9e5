#include "HostTesting.h"
#include "app/corvanenotify.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

// Points the install directory at a scratch one holding daemon/config.dat.
struct SettingsTest : testing::Test {
    void SetUp() override {
        ASSERT_EQ(mkdir((dir.Path() + "/daemon").c_str(), 0755), 0);
        vel::initialise_install_details(dir.Path() + "/");
        gTimerSleepMinutes = 60;
    }
    void TearDown() override {
        vel::initialise_install_details("/usr/sxa/");
        prefs->preferences.clear();
    }
    bool Load(const std::string& text) {
        prefs->preferences.clear();
        hosttest::WriteFile(dir.Path() + "/daemon/config.dat", text);
        return Configure();
    }
    std::string Get(const char* section, const char* key) {
        return prefs->getConfigString(section, key);
    }

    hosttest::TempDir dir;
    vel::Preferences* prefs = vel::Preferences::getInstance();
};

// Transport keys derived from [gateway]; completeness judged on the raw keys.
TEST_F(SettingsTest, TransportKeysAreDerivedFromTheGatewaySection) {
    // Settings, address, key, department, complete.
    const std::tuple<const char*, const char*, const char*, const char*, bool> cases[] = {
        {"[gateway]\ngatewayip=10.0.0.5\ngatewayport=443\ngatewaykey=K3Y\ndepartment=Accounts\n",
         "10.0.0.5:443", "K3Y", "Accounts", true},
        {"[GATEWAY]\ngatewayip=h\ngatewaykey=\n", "h:", "", "", false},
        {"[HTTP]\nGatewayAddress=old:1\nGSK=old\n*Dept=old\n[Client]\nProtocols=7\n"
         "[gateway]\ngatewaykey=new\n",
         ":", "new", "", false},
    };
    for (const auto& [settings, address, key, department, complete] : cases) {
        SCOPED_TRACE(settings);
        ASSERT_TRUE(Load(settings));
        EXPECT_EQ(Get("HTTP", "GatewayAddress"), address);
        EXPECT_EQ(Get("HTTP", "GSK"), key);
        EXPECT_EQ(Get("HTTP", "*Dept"), department);
        EXPECT_EQ(Get("Client", "Protocols"), "3");
        EXPECT_EQ(ConfigurationIsComplete(), complete);
    }
}

// The values read are checked end to end; absent ones are checked here.
TEST_F(SettingsTest, AbsentApplicationSettings) {
    fullscreen = 1;
    fullscreentimeout = largelogopath = "old";
    ASSERT_TRUE(Load("[gateway]\ngatewayip=10.0.0.5\n"));
    EXPECT_EQ(gTimerSleepMinutes, 60) << "an absent interval keeps the current value";
    EXPECT_EQ(fullscreen, 1);
    EXPECT_EQ(fullscreentimeout, "");
    EXPECT_EQ(largelogopath, "");
}

// Only 1 turns discovery on; anything else keeps the X server probe.
TEST_F(SettingsTest, SessionDiscoveryIsOnOnlyWithOne) {
    const std::pair<const char*, bool> cases[] = {
        {"", false},
        {"SessionDiscovery=0\n", false},
        {"SessionDiscovery=1\n", true},
        {"SessionDiscovery=2\n", false},
        {"SessionDiscovery=yes\n", false},
    };
    for (const auto& [line, on] : cases) {
        gSessionDiscovery = !on;
        ASSERT_TRUE(Load(std::string("[gateway]\ngatewayip=h\n[UI]\n") + line));
        EXPECT_EQ(gSessionDiscovery, on) << line;
    }
}

} // namespace

#include "app/corvanenotify.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Points the install directory at a scratch one holding daemon/config.dat.
class SettingsTest : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/nd-settings-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        ASSERT_EQ(mkdir((m_dir + "/daemon").c_str(), 0755), 0);
        vel::initialise_install_details(m_dir + "/");
        m_prefs->preferences.clear();
        gTimerSleepMinutes = 60;
        fullscreen = 0;
        fullscreentimeout.clear();
        largelogopath.clear();
    }

    void TearDown() override {
        unlink(SettingsPath().c_str());
        rmdir((m_dir + "/daemon").c_str());
        rmdir(m_dir.c_str());
        vel::initialise_install_details("/usr/sxa/");
    }

    std::string SettingsPath() const { return m_dir + "/daemon/config.dat"; }
    void WriteSettings(const std::string& text) { std::ofstream(SettingsPath()) << text; }
    const std::string& Get(const char* section, const char* key) {
        return m_prefs->getConfigString(section, key);
    }

    std::string m_dir;
    vel::Preferences* m_prefs = vel::Preferences::getInstance();
};

TEST_F(SettingsTest, MissingFileIsReported) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Configure());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(" Couldn't load config.dat\n"), std::string::npos) << err;
    EXPECT_EQ(Get("Client", "Protocols"), "") << "nothing is derived";
}

TEST_F(SettingsTest, TransportKeysAreDerivedFromTheGatewaySection) {
    const struct {
        const char* name;
        const char* settings;
        const char* address;
        const char* key;
        const char* department;
    } cases[] = {
        {"all set",
         "[gateway]\ngatewayip=10.0.0.5\ngatewayport=443\ngatewaykey=K3Y\ndepartment=Accounts\n",
         "10.0.0.5:443", "K3Y", "Accounts"},
        {"no port", "[gateway]\ngatewayip=10.0.0.5\n", "10.0.0.5:", "", ""},
        {"nothing", "", ":", "", ""},
        {"section name in another case", "[GATEWAY]\ngatewayip=h\ngatewayport=1\n", "h:1", "", ""},
        {"file's own derived keys are overwritten",
         "[HTTP]\nGatewayAddress=old:1\nGSK=old\n*Dept=old\n[Client]\nProtocols=7\n"
         "[gateway]\ngatewaykey=new\n",
         ":", "new", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_prefs->preferences.clear();
        WriteSettings(c.settings);
        ASSERT_TRUE(Configure());
        EXPECT_EQ(Get("HTTP", "GatewayAddress"), c.address);
        EXPECT_EQ(Get("HTTP", "GSK"), c.key);
        EXPECT_EQ(Get("HTTP", "*Dept"), c.department);
        EXPECT_EQ(Get("Client", "Protocols"), "3");
    }
}

TEST_F(SettingsTest, ApplicationSettingsAreReadOrKeepTheirDefaults) {
    WriteSettings("[agent]\nUpdateInterval=5\n[UI]\nFullScreen=1\nFullScreenTimeout=30\n"
                  "LargeLogoPath=/usr/sxa/logo big.png\n");
    ASSERT_TRUE(Configure());
    EXPECT_EQ(gTimerSleepMinutes, 5);
    EXPECT_EQ(fullscreen, 1);
    EXPECT_EQ(fullscreentimeout, "30");
    EXPECT_EQ(largelogopath, "/usr/sxa/logo big.png");

    m_prefs->preferences.clear();
    WriteSettings("[gateway]\ngatewayip=10.0.0.5\n");
    ASSERT_TRUE(Configure());
    EXPECT_EQ(gTimerSleepMinutes, 5) << "an absent interval keeps the current value";
    EXPECT_EQ(fullscreen, 1);
    EXPECT_EQ(fullscreentimeout, "");
    EXPECT_EQ(largelogopath, "");
}

TEST_F(SettingsTest, CompletenessLooksAtTheRawGatewayKeys) {
    const struct {
        const char* settings;
        bool complete;
    } cases[] = {
        {"[gateway]\ngatewayip=h\ngatewaykey=k\n", true},
        {"[gateway]\ngatewayip=h\n", false},
        {"[gateway]\ngatewaykey=k\n", false},
        {"[gateway]\ngatewayip=h\ngatewaykey=\n", false},
        {"[HTTP]\nGatewayAddress=h:1\nGSK=k\n", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings);
        m_prefs->preferences.clear();
        WriteSettings(c.settings);
        ASSERT_TRUE(Configure());
        EXPECT_EQ(ConfigurationIsComplete(), c.complete);
    }
}

} // namespace

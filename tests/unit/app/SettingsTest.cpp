#include "HostTesting.h"
#include "app/corvanenotify.h"
#include "config/InstallEnvironment.h"
#include "config/Preferences.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

// Points the install directory at a scratch one holding daemon/config.dat.
class SettingsTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir((m_dir.Path() + "/daemon").c_str(), 0755), 0);
        vel::initialise_install_details(m_dir.Path() + "/");
        m_prefs->preferences.clear();
        gTimerSleepMinutes = 60;
        fullscreen = 0;
        fullscreentimeout.clear();
        largelogopath.clear();
    }
    void TearDown() override { vel::initialise_install_details("/usr/sxa/"); }

    void WriteSettings(const std::string& text) {
        hosttest::WriteFile(m_dir.Path() + "/daemon/config.dat", text);
    }
    const std::string& Get(const char* section, const char* key) {
        return m_prefs->getConfigString(section, key);
    }

    hosttest::TempDir m_dir;
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
    const std::tuple<const char*, const char*, const char*, const char*, const char*> cases[] = {
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
    for (const auto& [name, settings, address, key, department] : cases) {
        SCOPED_TRACE(name);
        m_prefs->preferences.clear();
        WriteSettings(settings);
        ASSERT_TRUE(Configure());
        EXPECT_EQ(Get("HTTP", "GatewayAddress"), address);
        EXPECT_EQ(Get("HTTP", "GSK"), key);
        EXPECT_EQ(Get("HTTP", "*Dept"), department);
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
    const std::tuple<const char*, bool> cases[] = {
        {"[gateway]\ngatewayip=h\ngatewaykey=k\n", true},
        {"[gateway]\ngatewayip=h\n", false},
        {"[gateway]\ngatewaykey=k\n", false},
        {"[gateway]\ngatewayip=h\ngatewaykey=\n", false},
        {"[HTTP]\nGatewayAddress=h:1\nGSK=k\n", false},
    };
    for (const auto& [settings, complete] : cases) {
        SCOPED_TRACE(settings);
        m_prefs->preferences.clear();
        WriteSettings(settings);
        ASSERT_TRUE(Configure());
        EXPECT_EQ(ConfigurationIsComplete(), complete);
    }
}

} // namespace

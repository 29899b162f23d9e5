// The daemon end to end: registration, a notification shown by the display
// program, its receipt and acknowledgement at the gateway, repeats, window
// order, the customisation download and the start-up back-off. Uses the build
// with shortened waits; RealTimingTest.cpp runs the shipped daemon.
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <thread>

#include "NotifyFixture.h"
#include "transport/gengsk.h"

namespace notify_e2e {
namespace {

constexpr int kWaitMs = 5000;
const std::string kStartLine = "Corvane Notify Client for Linux version 2.02 starting up...";
const std::string kRetry = "Couldn't connect. Trying again.";
const std::string kStarted = "Started up successfully.";

std::string WireKey() {
    char* gsk = GenWireGsk(kClearKey);
    std::string text = gsk != nullptr ? gsk : "";
    free(gsk);
    return text;
}

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The display program's record for one message appears once it has run.
bool WaitForDisplay(int messageId, size_t runs = 1) {
    return WaitUntil([&] { return DisplayRunsFor(messageId).size() >= runs; }, kWaitMs);
}

TEST_F(NotifyTest, StartUpRegistersAndAsksForTheCustomisationFile) {
    ASSERT_GT(StartRegistered(kFastDaemon), 0);
    ASSERT_TRUE(WaitUntil([] { return CountInLog(kStarted) == 1; }, kWaitMs));
    EXPECT_EQ(LogMessages(),
              (std::vector<std::string>{kStartLine, "Configuration is good.", kStarted}));

    const devgw::Request open = Bodies("OPEN").at(0);
    EXPECT_EQ(open.Field("CLIENT_NAME"), "ND-E2E-HOST"); // the host name, upper-cased
    EXPECT_EQ(open.Field("HOSTNAME"), "nd-e2e-host");
    EXPECT_EQ(open.Field("CLIENT_ADDR"), ">127.0.0.1");
    EXPECT_EQ(open.Field("MACADDRESS"), "001A2B3C4D5E");
    EXPECT_EQ(open.Field("GSK"), WireKey());
    EXPECT_EQ(open.Field("APPTYPE"), "256");
    EXPECT_EQ(open.Field("DEPT"), "Support");

    ASSERT_TRUE(WaitForRequests("GETFILEINFO", 1, kWaitMs));
    EXPECT_EQ(Bodies("GETFILEINFO").at(0).body, "CMD=GETFILEINFO\nLINK=notify-customization.lnk\n");
    EXPECT_EQ(Bodies("GETFILEINFO").size(), 1u) << "the next one waits an interval";
}

TEST_F(NotifyTest, NotificationRoundTrip) {
    ASSERT_GT(StartRegistered(kFastDaemon), 0);
    WriteFile(kAnswerPath, "6 alice\n");
    const Clock::time_point sent = Clock::now();
    ASSERT_TRUE(m_gateway->SendNotification(1001, "hello", "30|Notice", "5"));

    ASSERT_TRUE(WaitForRequests("MESSAGEACK", 1, kWaitMs));
    const double roundTripMs = MsSince(sent);
    std::cout << "[measure] notification to acknowledgement at the gateway: " << roundTripMs
              << " ms\n";
    RecordProperty("round_trip_ms", int(roundTripMs));

    ASSERT_TRUE(WaitForDisplay(1001));
    const DisplayRun run = DisplayRunsFor(1001).at(0);
    EXPECT_EQ(run.args, (std::vector<std::string>{kDisplayPath})) << "no arguments";
    const std::pair<const char*, const char*> expected[] = {
        {"MESSAGE", "hello"},
        {"CAPTION", "Notice"},
        {"TIMEOUT", "30"},
        {"FLAGS", "5"},
        {"MESSAGE_ID", "1001"},
        {"WINDOW_ORDER", "0"},
        {"FULLSCREEN", "1"},
        {"FULLSCREEN_TIMEOUT", "45"},
        {"LARGE_LOGO_PATH", "/usr/sxa/logo.png"},
        {"DISPLAY", ":0.0"},
        {"XAUTHORITY", kAuthorityPath},
        {"XAUTHLOCALHOSTNAME", "localhost"},
    };
    for (const auto& entry : expected) {
        EXPECT_EQ(run.Env(entry.first), entry.second) << entry.first;
    }

    ASSERT_EQ(Bodies("MESSAGERECEIVED").size(), 1u);
    EXPECT_EQ(Bodies("MESSAGERECEIVED")[0].body, "CMD=MESSAGERECEIVED\nID=1001\nUF=0\nUN=alice\n");
    EXPECT_EQ(Bodies("MESSAGEACK").at(0).body, "CMD=MESSAGEACK\nID=1001\nUF=6\nUN=alice\n");

    // The same id again launches and reports nothing. Notifications are
    // handled in order, so once the next one is acknowledged the repeat has
    // been dealt with.
    ASSERT_TRUE(m_gateway->SendNotification(1001, "hello again", "30|Notice", "5"));
    ASSERT_TRUE(m_gateway->SendNotification(1002, "next", "", ""));
    ASSERT_TRUE(WaitForRequests("MESSAGEACK", 2, kWaitMs));
    EXPECT_EQ(DisplayRunsFor(1001).size(), 1u);
    EXPECT_EQ(Bodies("MESSAGERECEIVED").size(), 2u);
    EXPECT_EQ(Bodies("MESSAGERECEIVED").back().Field("ID"), "1002");
    EXPECT_EQ(Bodies("MESSAGEACK").back().Field("ID"), "1002");
    ASSERT_TRUE(WaitForDisplay(1002));
    const DisplayRun plain = DisplayRunsFor(1002).at(0);
    EXPECT_EQ(plain.Env("MESSAGE"), "next");
    EXPECT_EQ(plain.Env("CAPTION"), "");
    EXPECT_EQ(plain.Env("TIMEOUT"), "");
    EXPECT_EQ(plain.Env("FLAGS"), "0");
    EXPECT_EQ(plain.Env("WINDOW_ORDER"), "1");
}

TEST_F(NotifyTest, WindowOrderWrapsAndDisplayProgramsAreReaped) {
    const pid_t daemon = StartRegistered(kFastDaemon);
    ASSERT_GT(daemon, 0);
    for (int id = 2001; id <= 2011; ++id) {
        ASSERT_TRUE(m_gateway->SendNotification(id, "n" + std::to_string(id), "", ""));
    }
    ASSERT_TRUE(WaitForRequests("MESSAGERECEIVED", 11, 3 * kWaitMs));
    std::vector<std::string> orders;
    for (int id = 2001; id <= 2011; ++id) {
        ASSERT_TRUE(WaitForDisplay(id)) << id;
        orders.push_back(DisplayRunsFor(id).at(0).Env("WINDOW_ORDER"));
    }
    EXPECT_EQ(orders,
              (std::vector<std::string>{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "0"}));
    EXPECT_TRUE(Bodies("MESSAGEACK").empty()) << "no answer was given";
    EXPECT_TRUE(WaitUntil([&] { return ZombieChildren(daemon) == 0; }, kWaitMs));
}

TEST_F(NotifyTest, NewerCustomisationFileIsFetchedAndInstalled) {
    ASSERT_GT(StartRegistered(kFastDaemon), 0);
    ASSERT_TRUE(WaitForRequests("GETFILEINFO", 1, kWaitMs));
    m_gateway->ServeFile("notify-customization.lnk", "logo=first\n");

    // A message after a reply proves the reply has been handled: both go
    // through the same thread in order.
    int nextId = 3000;
    auto settle = [&] {
        ++nextId;
        const size_t before = Bodies("MESSAGERECEIVED").size();
        return m_gateway->SendNotification(nextId, "sync", "", "") &&
               WaitForRequests("MESSAGERECEIVED", before + 1, 3 * kWaitMs);
    };

    ASSERT_TRUE(m_gateway->SendFileInfoReply("notify-customization.lnk", "sxa-custom.dat", 1000));
    ASSERT_TRUE(settle());
    EXPECT_EQ(m_gateway->GetRequests(), (std::vector<std::string>{"notify-customization.lnk"}));
    EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    struct stat info;
    ASSERT_EQ(stat(kCustomPath, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
    ASSERT_EQ(stat("/var/cache/notifydaemon", &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);

    m_gateway->ServeFile("notify-customization.lnk", "logo=second\n");
    const struct {
        const char* name;
        const char* link;
        const char* file;
        uint64_t lastWrite;
    } ignored[] = {
        {"same time", "notify-customization.lnk", "sxa-custom.dat", 1000},
        {"older", "notify-customization.lnk", "sxa-custom.dat", 999},
        {"another link", "other.lnk", "sxa-custom.dat", 2000},
        {"file name that is a command", "notify-customization.lnk",
         "x;touch /run/nd-notify/injected", 2000},
    };
    for (const auto& c : ignored) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(m_gateway->SendFileInfoReply(c.link, c.file, c.lastWrite));
        ASSERT_TRUE(settle());
        EXPECT_EQ(m_gateway->GetRequests().size(), 1u);
        EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    }
    EXPECT_NE(access("/run/nd-notify/injected", F_OK), 0);

    // The link name in capitals is accepted and asked for as written; this
    // gateway has no file there, so the failed download leaves custom.dat as
    // it was, and that time counts as fetched all the same.
    ASSERT_TRUE(m_gateway->SendFileInfoReply("NOTIFY-CUSTOMIZATION.LNK", "sxa-custom.dat", 2000));
    ASSERT_TRUE(settle());
    EXPECT_EQ(m_gateway->GetRequests(),
              (std::vector<std::string>{"notify-customization.lnk", "NOTIFY-CUSTOMIZATION.LNK"}));
    EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    EXPECT_NE(access("/var/cache/notifydaemon/sxa-custom.dat", F_OK), 0) << "nothing left over";
    ASSERT_TRUE(m_gateway->SendFileInfoReply("notify-customization.lnk", "sxa-custom.dat", 2000));
    ASSERT_TRUE(settle());
    EXPECT_EQ(m_gateway->GetRequests().size(), 2u);

    ASSERT_TRUE(m_gateway->SendFileInfoReply("notify-customization.lnk", "sxa-custom.dat", 3000));
    ASSERT_TRUE(settle());
    EXPECT_EQ(m_gateway->GetRequests().size(), 3u);
    EXPECT_EQ(ReadFile(kCustomPath), "logo=second\n");
    ASSERT_EQ(stat(kCustomPath, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
}

TEST_F(NotifyTest, TimerAsksAgainEveryInterval) {
    // UpdateInterval 1: one minute, which this build shortens to one second.
    ASSERT_GT(StartRegistered(kFastDaemon, 1), 0);
    ASSERT_TRUE(WaitForRequests("GETFILEINFO", 1, kWaitMs));
    const Clock::time_point first = Clock::now();
    ASSERT_TRUE(WaitForRequests("GETFILEINFO", 3, kWaitMs));
    const double twoIntervalsMs = MsSince(first);
    EXPECT_GT(twoIntervalsMs, 1500);
    EXPECT_LT(twoIntervalsMs, 4000);
}

TEST_F(NotifyTest, UnreachableGatewayIsRetriedWithGrowingWaits) {
    // A free port with nothing listening, until the gateway starts there.
    int port;
    {
        devgw::DevGateway probe;
        port = probe.Start();
        ASSERT_GT(port, 0);
    }
    Settings settings;
    settings.port = port;
    WriteSettings(settings);
    ASSERT_GT(StartDaemon(kFastDaemon), 0);

    // Each failed attempt is followed by a wait, then the retry line, then
    // the next attempt. This build waits 600, 1200, 2400 ms (60, 120, 240 s).
    std::vector<Clock::time_point> retries;
    for (size_t n = 1; n <= 2; ++n) {
        ASSERT_TRUE(WaitUntil([&] { return CountInLog(kRetry) >= n; }, 3 * kWaitMs));
        retries.push_back(Clock::now());
    }
    // The third attempt fails within about 120 ms; start the gateway during
    // the wait that follows, so the fourth attempt gets through.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(CountInLog(kStarted), 0u);
    devgw::DevGateway& gateway = StartGateway(uint16_t(port));
    ASSERT_TRUE(WaitUntil([&] { return CountInLog(kRetry) >= 3; }, 3 * kWaitMs));
    retries.push_back(Clock::now());
    ASSERT_TRUE(gateway.WaitForRequest("OPEN", kWaitMs));
    ASSERT_TRUE(WaitUntil([] { return CountInLog(kStarted) == 1; }, kWaitMs));

    const double secondWait =
        std::chrono::duration<double, std::milli>(retries[1] - retries[0]).count();
    const double thirdWait =
        std::chrono::duration<double, std::milli>(retries[2] - retries[1]).count();
    std::cout << "[measure] retry lines " << secondWait << " ms and " << thirdWait
              << " ms apart (waits of 1200 and 2400 ms plus an attempt)\n";
    EXPECT_GT(secondWait, 1100);
    EXPECT_LT(secondWait, 2000);
    EXPECT_GT(thirdWait, 2300);
    EXPECT_LT(thirdWait, 3500);
    EXPECT_EQ(CountInLog(kRetry), 3u);
    EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, "Configuration is good.", kRetry,
                                                       kRetry, kRetry, kStarted}));
}

} // namespace
} // namespace notify_e2e

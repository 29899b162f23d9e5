// The daemon with shortened waits end to end: registration, notifications
// shown, received and acknowledged, repeats, window order, the customisation
// file; RealDaemon* runs the shipped daemon.
#include <sys/stat.h>

#include <iostream>

#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

constexpr int kWaitMs = 5000;

bool WaitForDisplay(int messageId) {
    return WaitUntil([&] { return !DisplayRuns(messageId).empty(); }, kWaitMs);
}

// UpdateInterval 1: one minute, which this build shortens to one second. The
// third request comes two intervals after the first, so no sooner than two
// intervals after the start; that holds however late this process looks, and
// a stopped timer fails the wait. (Measuring from the moment the first
// request was seen took this process's own delays for the daemon's.)
TEST_F(NotifyTest, StartUpRegistersAndAsksForTheCustomisationFileEveryInterval) {
    constexpr int kIntervalMs = 1000;
    const Clock::time_point started = Clock::now();
    ASSERT_GT(StartRegistered(kFastDaemon, 1), 0);
    ASSERT_TRUE(WaitUntil([] { return CountInLog(kStarted) == 1; }, kWaitMs));
    EXPECT_EQ(LogMessages(), (std::vector<std::string>{kStartLine, kGood, kStarted}));
    EXPECT_EQ(Bodies("OPEN").at(0).body,
              "CMD=OPEN\nCLIENT_VERSION=1.1\nPROTOCOL_VER=1.1\nMAXPACKET=928\n"
              "CLIENT_NAME=ND-E2E-HOST\nCLIENT_ADDR=>127.0.0.1\nHOSTNAME=nd-e2e-host\n"
              "MACADDRESS=001A2B3C4D5E\nGSK=" +
                  WireKey(kClearKey) + "\nAPPTYPE=256\nDEPT=Support\n");
    ASSERT_TRUE(WaitFor("GETFILEINFO", 1, kWaitMs));
    EXPECT_EQ(Bodies("GETFILEINFO").at(0).body, "CMD=GETFILEINFO\nLINK=notify-customization.lnk\n");
    ASSERT_TRUE(WaitFor("GETFILEINFO", 3, 2 * kIntervalMs + kWaitMs));
    EXPECT_GE(MsSince(started), 2 * kIntervalMs);
}

TEST_F(NotifyTest, NotificationRoundTripRepeatAndWindowOrder) {
    const pid_t daemon = StartRegistered(kFastDaemon);
    ASSERT_GT(daemon, 0);
    WriteFile(kAnswerPath, "6 alice\n");
    const Clock::time_point sent = Clock::now();
    ASSERT_TRUE(m_gateway->SendNotification(1001, "hello", "30|Notice", "5"));
    ASSERT_TRUE(WaitFor("MESSAGEACK", 1, kWaitMs));
    std::cout << "[measure] notification to acknowledgement: " << MsSince(sent) << " ms\n";
    ASSERT_TRUE(WaitForDisplay(1001));
    const DisplayRun run = DisplayRuns(1001).at(0);
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
        {"DISPLAY", ":0.0"},
        {"LARGE_LOGO_PATH", "/usr/sxa/logo.png"},
        {"XAUTHORITY", kAuthorityPath},
        {"XAUTHLOCALHOSTNAME", "localhost"},
    };
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(run.Env(name), value) << name;
    }
    ASSERT_EQ(Count("MESSAGERECEIVED"), 1u);
    EXPECT_EQ(Bodies("MESSAGERECEIVED")[0].body, "CMD=MESSAGERECEIVED\nID=1001\nUF=0\nUN=alice\n");
    EXPECT_EQ(Bodies("MESSAGEACK").at(0).body, "CMD=MESSAGEACK\nID=1001\nUF=6\nUN=alice\n");

    // A repeated id launches and reports nothing; notifications are handled
    // in order, so once the next one is acknowledged the repeat was dealt with.
    ASSERT_TRUE(m_gateway->SendNotification(1001, "hello again", "30|Notice", "5"));
    ASSERT_TRUE(m_gateway->SendNotification(1002, "next", "", ""));
    ASSERT_TRUE(WaitFor("MESSAGEACK", 2, kWaitMs));
    EXPECT_EQ(DisplayRuns(1001).size(), 1u);
    EXPECT_EQ(Count("MESSAGERECEIVED"), 2u);
    EXPECT_EQ(Count("MESSAGEACK", 1002), 1u);
    ASSERT_TRUE(WaitForDisplay(1002));
    const DisplayRun plain = DisplayRuns(1002).at(0);
    EXPECT_EQ(plain.Env("CAPTION") + "|" + plain.Env("TIMEOUT") + "|" + plain.Env("FLAGS") + "|" +
                  plain.Env("WINDOW_ORDER"),
              "||0|1");

    // Window orders run 0 to 9, then start again; display programs are reaped.
    std::string orders;
    for (int id = 1003; id <= 1011; ++id) {
        ASSERT_TRUE(m_gateway->SendNotification(id, "n", "", ""));
    }
    for (int id = 1003; id <= 1011; ++id) {
        ASSERT_TRUE(WaitForDisplay(id)) << id;
        orders += DisplayRuns(id).at(0).Env("WINDOW_ORDER");
    }
    EXPECT_EQ(orders, "234567890");
    EXPECT_TRUE(WaitUntil([&] { return ZombieChildren(daemon) == 0; }, kWaitMs));
}

TEST_F(NotifyTest, NewerCustomisationFileIsFetchedAndInstalled) {
    ASSERT_GT(StartRegistered(kFastDaemon), 0);
    ASSERT_TRUE(WaitFor("GETFILEINFO", 1, kWaitMs));
    m_gateway->ServeFile("notify-customization.lnk", "logo=first\n");
    // Replies and pushes go through one thread in order: a message after a
    // reply proves the reply has been handled.
    int nextId = 3000;
    auto reply = [&](const char* link, const char* file, uint64_t lastWrite) {
        const size_t before = Count("MESSAGERECEIVED");
        return m_gateway->SendFileInfoReply(link, file, lastWrite) &&
               m_gateway->SendNotification(++nextId, "sync", "", "") &&
               WaitFor("MESSAGERECEIVED", before + 1, 3 * kWaitMs);
    };
    auto mode = [](const char* path) {
        struct stat info = {};
        stat(path, &info);
        return info.st_mode & 07777;
    };
    const char* kLink = "notify-customization.lnk";
    ASSERT_TRUE(reply(kLink, "sxa-custom.dat", 1000));
    EXPECT_EQ(m_gateway->GetRequests(), (std::vector<std::string>{kLink}));
    EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    EXPECT_EQ(mode(kCustomPath), 0644u);
    EXPECT_EQ(mode("/var/cache/notifydaemon"), 0755u);

    m_gateway->ServeFile(kLink, "logo=second\n");
    const struct {
        const char* name;
        const char* link;
        const char* file;
        uint64_t lastWrite;
    } ignored[] = {
        {"same time", kLink, "sxa-custom.dat", 1000},
        {"older", kLink, "sxa-custom.dat", 999},
        {"another link", "other.lnk", "sxa-custom.dat", 2000},
        {"file name that is a command", kLink, "x;touch /run/nd-notify/injected", 2000},
    };
    for (const auto& c : ignored) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(reply(c.link, c.file, c.lastWrite));
        EXPECT_EQ(m_gateway->GetRequests().size(), 1u);
        EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    }
    EXPECT_NE(access("/run/nd-notify/injected", F_OK), 0);

    // The link in capitals is asked for as written; this gateway has no file
    // there, so custom.dat stays, and that time counts as fetched all the same.
    ASSERT_TRUE(reply("NOTIFY-CUSTOMIZATION.LNK", "sxa-custom.dat", 2000));
    EXPECT_EQ(m_gateway->GetRequests(),
              (std::vector<std::string>{kLink, "NOTIFY-CUSTOMIZATION.LNK"}));
    EXPECT_EQ(ReadFile(kCustomPath), "logo=first\n");
    EXPECT_NE(access("/var/cache/notifydaemon/sxa-custom.dat", F_OK), 0) << "nothing left over";
    ASSERT_TRUE(reply(kLink, "sxa-custom.dat", 2000));
    EXPECT_EQ(m_gateway->GetRequests().size(), 2u);

    ASSERT_TRUE(reply(kLink, "sxa-custom.dat", 3000));
    EXPECT_EQ(m_gateway->GetRequests().size(), 3u);
    EXPECT_EQ(ReadFile(kCustomPath), "logo=second\n");
    EXPECT_EQ(mode(kCustomPath), 0644u);
}

// The shipped daemon with its real waits: it sleeps 10 s after connecting
// before it registers.
TEST_F(NotifyTest, RealDaemonRegistersAndCarriesANotification) {
    const Clock::time_point started = Clock::now();
    ASSERT_GT(StartRegistered(kRealDaemon, 60, 30000), 0);
    const double registrationMs = MsSince(started);
    std::cout << "[measure] start-up to registration (real timing): " << registrationMs << " ms\n";
    EXPECT_GT(registrationMs, 9000);
    ASSERT_TRUE(WaitFor("GETFILEINFO", 1, kWaitMs));
    WriteFile(kAnswerPath, "1 alice\n");
    const Clock::time_point sent = Clock::now();
    ASSERT_TRUE(m_gateway->SendNotification(77, "real", "10|Real", "2"));
    ASSERT_TRUE(WaitFor("MESSAGEACK", 1, kWaitMs));
    std::cout << "[measure] notification to acknowledgement (real timing): " << MsSince(sent)
              << " ms\n";
    EXPECT_EQ(Bodies("MESSAGERECEIVED").at(0).body, "CMD=MESSAGERECEIVED\nID=77\nUF=0\nUN=alice\n");
    EXPECT_EQ(Bodies("MESSAGEACK").at(0).body, "CMD=MESSAGEACK\nID=77\nUF=1\nUN=alice\n");
    ASSERT_EQ(DisplayRuns(77).size(), 1u);
    EXPECT_EQ(DisplayRuns(77)[0].Env("MESSAGE"), "real");
}

} // namespace
} // namespace notify_e2e

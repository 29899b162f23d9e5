// Faults from the network and around the daemon (docs/reliability.md): after
// each it still runs, registers again, shows each distinct notification once
// and reports acknowledgements. Last, a round trip under valgrind.
#include <sys/stat.h>

#include <regex>

#include "GatewayWire.h"
#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

constexpr int kWaitMs = 15000;
// Reconnection waits for keep-alive countdowns of some seconds each.
constexpr int kReconnectMs = 30000;
constexpr int kBurst = 1000;

// The bytes of one MESSAGE push, as the gateway sends it.
std::string Push(int id, const std::string& message, const std::string& timeoutAndCaption = "30|N",
                 const std::string& flags = "1") {
    return devgw::WrapResponse(devgw::wire::MessageBody(
        id, "admin", devgw::NotificationText(message, timeoutAndCaption, flags)));
}

class FaultTest : public NotifyTest {
protected:
    void SetUp() override {
        NotifyTest::SetUp();
        WriteFile(kAnswerPath, "6 alice\n"); // the display program acknowledges
        ASSERT_GT(StartRegistered(kFastDaemon), 0);
    }

    void TearDown() override {
        const std::string stat = ReadFile("/proc/" + std::to_string(m_daemon) + "/stat");
        EXPECT_TRUE(stat.rfind(')') != std::string::npos && stat[stat.rfind(')') + 2] != 'Z')
            << "the daemon ended";
        NotifyTest::TearDown();
        Install(ND_STUB_PATH, kDisplayPath);
    }

    bool Registrations(size_t n) { return WaitFor("OPEN", n, kReconnectMs); }

    // Sends notification `id` and waits for its display and acknowledgement:
    // pushes are handled in order, so all sent before are handled too.
    void ExpectRoundTrip(int id, bool send = true) {
        ASSERT_TRUE(!send || m_gateway->SendRaw(Push(id, "fresh " + std::to_string(id))));
        ASSERT_TRUE(WaitUntil([&] { return !DisplayRuns(id).empty(); }, kWaitMs)) << id;
        ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGEACK", id) >= 1; }, kWaitMs)) << id;
        EXPECT_EQ(Bodies("MESSAGEACK").back().Field("UF"), "6");
    }

    void ExpectDisplayedOnce(int id, size_t receivedBefore = 0) {
        EXPECT_EQ(DisplayRuns(id).size(), 1u) << id;
        EXPECT_EQ(Count("MESSAGERECEIVED", id) + receivedBefore, 1u) << id;
    }
};

TEST_F(FaultTest, LinkResetInTheMiddleOfAMessage) {
    const std::string bytes = Push(101, "cut short");
    ASSERT_TRUE(m_gateway->SendRaw(bytes.substr(0, bytes.size() / 2)));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let it be read
    m_gateway->DropClients();
    ASSERT_TRUE(Registrations(2));
    EXPECT_TRUE(DisplayRuns(101).empty()) << "half a message is never displayed";
    // The whole message on the new link, then again (the gateway redelivers).
    ASSERT_TRUE(m_gateway->SendRaw(bytes));
    ExpectRoundTrip(101, false);
    ASSERT_TRUE(m_gateway->SendRaw(bytes));
    ExpectRoundTrip(102);
    ExpectDisplayedOnce(101);
    EXPECT_EQ(Count("OPEN"), 2u);
}

TEST_F(FaultTest, MessageDribbledOneByteAtATime) {
    for (char byte : Push(201, "one byte at a time", "45|Slow", "3")) {
        ASSERT_TRUE(m_gateway->SendRaw(std::string(1, byte)));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ExpectRoundTrip(201, false);
    const DisplayRun run = DisplayRuns(201).at(0);
    EXPECT_EQ(run.Env("MESSAGE") + "|" + run.Env("CAPTION") + "|" + run.Env("TIMEOUT") + "|" +
                  run.Env("FLAGS"),
              "one byte at a time|Slow|45|3");
    ExpectDisplayedOnce(201);
    EXPECT_EQ(Count("OPEN"), 1u) << "the link was never dropped";
}

TEST_F(FaultTest, MessageFarAbove4096Bytes) {
    // 80000 bytes on the wire, below the limit of one environment entry.
    std::string text;
    for (int i = 0; text.size() < 60000; ++i) {
        text += "line " + std::to_string(i) + " of a long notice; ";
    }
    ASSERT_TRUE(m_gateway->SendRaw(Push(301, text, "30|Long")));
    ExpectRoundTrip(301, false);
    EXPECT_EQ(DisplayRuns(301).at(0).Env("MESSAGE"), text);
    ExpectDisplayedOnce(301);
    EXPECT_EQ(Count("OPEN"), 1u);
}

TEST_F(FaultTest, HeaderThatNeverEnds) {
    // Header lines past the daemon's 1 MiB receive limit and no empty line.
    ASSERT_TRUE(m_gateway->SendRaw("HTTP/1.1 200 OK\r\nContent-length: 20\r\n"));
    const std::string filler = "X-Filler: " + std::string(1000, 'x') + "\r\n";
    for (int i = 0; i < 1500 && Count("OPEN") < 2; ++i) {
        m_gateway->SendRaw(filler); // fails once the daemon has let go
    }
    ASSERT_TRUE(Registrations(2));
    ExpectRoundTrip(401);
    ExpectDisplayedOnce(401);
}

TEST_F(FaultTest, GarbageInsteadOfAResponse) {
    static const char kBinary[] = "\x01\xfe\x00garbage\xff\r\n\r\nmore";
    const std::pair<const char*, std::string> kGarbage[] = {
        {"binary bytes ending a header", std::string(kBinary, sizeof kBinary - 1)},
        {"status 404", "HTTP/1.1 404 Not Found\r\nContent-length: 8\r\n\r\nCMD=ACK\n"},
        {"no length", "HTTP/1.1 200 OK\r\nServer: x\r\n\r\nCMD=ACK\n"},
    };
    int id = 500;
    size_t registrations = 1;
    for (const auto& [name, bytes] : kGarbage) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(m_gateway->SendRaw(bytes));
        ASSERT_TRUE(Registrations(++registrations));
        ExpectRoundTrip(++id);
        ExpectDisplayedOnce(id);
    }
}

TEST_F(FaultTest, BurstOfAThousandNotifications) {
    std::string burst;
    for (int i = 0; i < kBurst; ++i) {
        burst += Push(10000 + i, "burst " + std::to_string(i));
    }
    ASSERT_TRUE(m_gateway->SendRaw(burst));
    ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGEACK") >= size_t(kBurst); }, 180000))
        << Count("MESSAGEACK") << " acknowledgements";
    // Delivered again as a whole: nothing is displayed or reported twice.
    ASSERT_TRUE(m_gateway->SendRaw(burst));
    ExpectRoundTrip(20000);
    EXPECT_EQ(DisplayRuns().size(), size_t(kBurst) + 1);
    EXPECT_EQ(Count("MESSAGERECEIVED"), size_t(kBurst) + 1);
    EXPECT_EQ(Count("MESSAGEACK"), size_t(kBurst) + 1);
    EXPECT_EQ(Count("OPEN"), 1u);
    EXPECT_EQ(ZombieChildren(m_daemon), 0);
}

TEST_F(FaultTest, GatewayRestartedWhileTheDaemonRuns) {
    ExpectRoundTrip(601);
    const size_t receivedBefore = Count("MESSAGERECEIVED", 601);
    const uint16_t port = uint16_t(m_gateway->Port());
    m_gateway->Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // down for a while
    StartGateway(port);
    ASSERT_TRUE(Registrations(1)) << "registers with the restarted gateway";
    // The new gateway delivers the old notification again, then a new one.
    ASSERT_TRUE(m_gateway->SendRaw(Push(601, "fresh 601")));
    ExpectRoundTrip(602);
    ExpectDisplayedOnce(601, receivedBefore);
    ExpectDisplayedOnce(602);
    EXPECT_EQ(Count("MESSAGEACK", 601), 0u) << "acknowledged to the old gateway only";
}

TEST_F(FaultTest, DisplayProgramMissing) {
    unlink(kDisplayPath);
    ASSERT_TRUE(m_gateway->SendRaw(Push(701, "nobody shows this")));
    // The receipt is reported though nothing was shown; the launcher's child
    // logs its failed exec.
    ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGERECEIVED", 701) == 1; }, kWaitMs));
    ASSERT_TRUE(
        WaitUntil([] { return CountInLog("Error launching child process") == 1; }, kWaitMs));
    Install(ND_STUB_PATH, kDisplayPath);
    ExpectRoundTrip(702);
    ASSERT_TRUE(m_gateway->SendRaw(Push(701, "nobody shows this")));
    ExpectRoundTrip(703);
    EXPECT_TRUE(DisplayRuns(701).empty()) << "an id is taken once, shown or not";
    EXPECT_EQ(Count("MESSAGERECEIVED", 701), 1u);
}

TEST_F(FaultTest, DisplayProgramCrashing) {
    // Each run leaves a mark (not a display record) before it crashes.
    unlink(kDisplayPath);
    WriteFile(kDisplayPath, std::string("#!/bin/sh\n: > ") + kRecordDir +
                                "/crashed-$MESSAGE_ID\nkill -SEGV $$\n");
    chmod(kDisplayPath, 0755);
    for (int id = 801; id <= 805; ++id) {
        ASSERT_TRUE(m_gateway->SendRaw(Push(id, "crash")));
    }
    ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGERECEIVED", 805) == 1; }, kWaitMs));
    for (int id = 801; id <= 805; ++id) {
        const std::string mark = std::string(kRecordDir) + "/crashed-" + std::to_string(id);
        EXPECT_TRUE(WaitUntil([&] { return access(mark.c_str(), F_OK) == 0; }, kWaitMs)) << id;
    }
    EXPECT_TRUE(WaitUntil([&] { return ZombieChildren(m_daemon) == 0; }, kWaitMs))
        << "crashed display programs are reaped";
    EXPECT_EQ(Count("MESSAGEACK"), 0u);
    Install(ND_STUB_PATH, kDisplayPath);
    ExpectRoundTrip(806);
    ExpectDisplayedOnce(806);
    EXPECT_EQ(Count("MESSAGERECEIVED"), 6u);
}

// The shipped daemon under memcheck through one round trip, stopped with
// SIGTERM: no definite leaks and no memory errors.
class ValgrindTest : public NotifyTest {};
TEST_F(ValgrindTest, NotificationRoundTripLeavesNoDefiniteLeaks) {
#ifdef ND_DAEMON_INSTRUMENTED
    GTEST_SKIP() << "the daemon is built with a sanitizer";
#endif
    const char* kValgrind = "/usr/bin/valgrind";
    if (access(kValgrind, X_OK) != 0) {
        GTEST_SKIP() << "valgrind is not installed";
    }
    constexpr int kSlowMs = 90000; // the 10 s sleep after connecting, slowed down
    WriteSettings(StartGateway().Port());
    Install(kRealDaemon, kInstalledDaemon);
    WriteFile(kAnswerPath, "2 alice\n");
    ASSERT_GT(Spawn(kValgrind, {kValgrind, "--leak-check=full", "--show-leak-kinds=definite",
                                "--errors-for-leak-kinds=definite",
                                "--log-file=/run/nd-notify/memcheck.%p", kInstalledDaemon}),
              0);
    ASSERT_TRUE(WaitUntil([] { return atoi(ReadFile(kPidPath).c_str()) > 0; }, kSlowMs));
    const pid_t daemon = m_daemon = atoi(ReadFile(kPidPath).c_str());
    ASSERT_TRUE(WaitFor("OPEN", 1, kSlowMs));
    ASSERT_TRUE(m_gateway->SendNotification(901, "checked by memcheck", "30|Leaks", "1"));
    ASSERT_TRUE(WaitFor("MESSAGEACK", 1, kSlowMs));
    ASSERT_EQ(DisplayRuns(901).size(), 1u);

    // SIGTERM ends the daemon with _exit(1); memcheck checks for leaks then.
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    int status = 0;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(daemon, &status, WNOHANG) == daemon; }, kSlowMs));
    m_daemon = -1;
    EXPECT_TRUE(ExitedWith(status, 1)) << status;
    const std::string report = ReadFile("/run/nd-notify/memcheck." + std::to_string(daemon));
    std::smatch lost;
    EXPECT_TRUE(report.find("All heap blocks were freed") != std::string::npos ||
                (std::regex_search(report, lost, std::regex("definitely lost: ([0-9,]+) bytes")) &&
                 lost[1] == "0"))
        << report;
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
}

} // namespace
} // namespace notify_e2e

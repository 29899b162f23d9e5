// Faults from the network and around the daemon: a link reset in the middle of
// a message, a message dribbled byte by byte, one far above 4096 bytes, a
// header that never ends, garbage instead of a response, a burst of 1000
// notifications, the gateway restarted, the display program missing or
// crashing. After each the daemon still runs, registers again where the link
// went, displays every distinct notification once (a redelivery included) and
// reports every acknowledgement given while the link is up.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "GatewayWire.h"
#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

constexpr int kWaitMs = 15000;
// A lost link is tried again at once, later ones after a countdown of keep-
// alive checks (some seconds); a restarted gateway may wait for one more.
constexpr int kReconnectMs = 30000;
constexpr int kBurst = 1000;
constexpr int kBurstWaitMs = 180000;
constexpr const char* kStub = ND_STUB_PATH;

// The bytes of one MESSAGE push, as the gateway sends it.
std::string NotificationBytes(int id, const std::string& message,
                              const std::string& timeoutAndCaption = "30|Notice",
                              const std::string& flags = "1") {
    return devgw::WrapResponse(devgw::wire::MessageBody(
        id, "admin", devgw::NotificationText(message, timeoutAndCaption, flags)));
}

void InstallDisplayProgram(const std::string& content) {
    unlink(kDisplayPath);
    WriteFile(kDisplayPath, content);
    chmod(kDisplayPath, 0755);
}

class FaultTest : public NotifyTest {
protected:
    void SetUp() override {
        NotifyTest::SetUp();
        WriteFile(kAnswerPath, "6 alice\n"); // the display program acknowledges
        ASSERT_GT(StartRegistered(kFastDaemon), 0);
    }

    void TearDown() override {
        EXPECT_TRUE(Alive()) << "the daemon ended";
        NotifyTest::TearDown();
        InstallDisplayProgram(ReadFile(kStub));
    }

    bool Alive() const {
        const std::string stat = ReadFile("/proc/" + std::to_string(m_daemon) + "/stat");
        const size_t close = stat.rfind(')');
        return m_daemon > 0 && close != std::string::npos && close + 2 < stat.size() &&
               stat[close + 2] != 'Z';
    }

    // Requests of a command (any case) carrying this message id.
    size_t CountFor(const std::string& command, int id) {
        size_t n = 0;
        for (const devgw::Request& request : m_gateway->RequestsFor(command)) {
            n += request.Field("ID") == std::to_string(id) ? 1 : 0;
        }
        return n;
    }

    bool Registrations(size_t n) { return WaitForRequests("OPEN", n, kReconnectMs); }

    // The notification is displayed and its acknowledgement reaches the
    // gateway (the display program gives one for every run).
    void ExpectRoundTrip(int id) {
        ASSERT_TRUE(WaitUntil([&] { return !DisplayRunsFor(id).empty(); }, kWaitMs)) << id;
        ASSERT_TRUE(WaitUntil([&] { return CountFor("MESSAGEACK", id) >= 1; }, kWaitMs)) << id;
        EXPECT_EQ(m_gateway->RequestsFor("MESSAGEACK").back().Field("UF"), "6");
    }

    // Sends a fresh notification and waits for its round trip. Pushes are
    // handled in order, so whatever was sent before has been handled too.
    void ExpectFreshDelivered(int id) {
        ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(id, "fresh " + std::to_string(id))));
        ExpectRoundTrip(id);
    }

    void ExpectDisplayedOnce(int id) {
        EXPECT_EQ(DisplayRunsFor(id).size(), 1u) << id;
        EXPECT_EQ(CountFor("MESSAGERECEIVED", id) + m_receivedBefore[id], 1u) << id;
    }

    // Which of the ids first..first+count-1 lack a display, receipt or
    // acknowledgement.
    std::string Missing(int first, int count) {
        std::map<int, int> shown, received, acknowledged;
        for (const DisplayRun& run : DisplayRuns()) {
            ++shown[atoi(run.Env("MESSAGE_ID").c_str())];
        }
        for (const devgw::Request& request : m_gateway->RequestsFor("MESSAGERECEIVED")) {
            ++received[atoi(request.Field("ID").c_str())];
        }
        for (const devgw::Request& request : m_gateway->RequestsFor("MESSAGEACK")) {
            ++acknowledged[atoi(request.Field("ID").c_str())];
        }
        std::string text;
        for (int id = first; id < first + count; ++id) {
            if (shown[id] != 1 || received[id] != 1 || acknowledged[id] != 1) {
                text += "id " + std::to_string(id) + ": shown " + std::to_string(shown[id]) +
                        ", receipts " + std::to_string(received[id]) + ", acknowledgements " +
                        std::to_string(acknowledged[id]) + "\n";
            }
        }
        return text;
    }

    // Receipts seen by a gateway that has since gone, by id.
    std::map<int, size_t> m_receivedBefore;
};

TEST_F(FaultTest, LinkResetInTheMiddleOfAMessage) {
    const std::string bytes = NotificationBytes(101, "cut short");
    ASSERT_TRUE(m_gateway->SendRaw(bytes.substr(0, bytes.size() / 2)));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let it be read
    m_gateway->DropClients();
    ASSERT_TRUE(Registrations(2));
    EXPECT_TRUE(DisplayRunsFor(101).empty()) << "half a message is never displayed";

    // The whole message on the new link, then again (the gateway redelivers).
    ASSERT_TRUE(m_gateway->SendRaw(bytes));
    ExpectRoundTrip(101);
    ASSERT_TRUE(m_gateway->SendRaw(bytes));
    ExpectFreshDelivered(102);
    ExpectDisplayedOnce(101);
    EXPECT_EQ(DisplayRunsFor(101).at(0).Env("MESSAGE"), "cut short");
    EXPECT_EQ(Bodies("OPEN").size(), 2u);
}

TEST_F(FaultTest, MessageDribbledOneByteAtATime) {
    const std::string bytes = NotificationBytes(201, "one byte at a time", "45|Slow", "3");
    for (char byte : bytes) {
        ASSERT_TRUE(m_gateway->SendRaw(std::string(1, byte)));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ExpectRoundTrip(201);
    const DisplayRun run = DisplayRunsFor(201).at(0);
    EXPECT_EQ(run.Env("MESSAGE"), "one byte at a time");
    EXPECT_EQ(run.Env("CAPTION"), "Slow");
    EXPECT_EQ(run.Env("TIMEOUT"), "45");
    EXPECT_EQ(run.Env("FLAGS"), "3");
    ExpectDisplayedOnce(201);
    EXPECT_EQ(Bodies("OPEN").size(), 1u) << "the link was never dropped";
}

TEST_F(FaultTest, MessageFarAbove4096Bytes) {
    // 60000 characters: 80000 on the wire, below the limit of one
    // environment entry of the display program.
    std::string text;
    for (int i = 0; text.size() < 60000; ++i) {
        text += "line " + std::to_string(i) + " of a long notice; ";
    }
    text.resize(60000);
    ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(301, text, "30|Long")));
    ExpectRoundTrip(301);
    EXPECT_EQ(DisplayRunsFor(301).at(0).Env("MESSAGE"), text);
    EXPECT_EQ(DisplayRunsFor(301).at(0).Env("CAPTION"), "Long");
    ExpectDisplayedOnce(301);
    EXPECT_EQ(Bodies("OPEN").size(), 1u);
}

TEST_F(FaultTest, HeaderThatNeverEnds) {
    // Header lines past the daemon's 1 MiB receive limit and no empty line.
    ASSERT_TRUE(m_gateway->SendRaw("HTTP/1.1 200 OK\r\nContent-length: 20\r\n"));
    const std::string filler = "X-Filler: " + std::string(1000, 'x') + "\r\n";
    for (int i = 0; i < 1500 && Bodies("OPEN").size() < 2; ++i) {
        m_gateway->SendRaw(filler); // fails once the daemon has let go
    }
    ASSERT_TRUE(Registrations(2));
    ExpectFreshDelivered(401);
    ExpectDisplayedOnce(401);
}

TEST_F(FaultTest, GarbageInsteadOfAResponse) {
    static const char kBinary[] = "\x01\xfe\x00garbage\xff\r\n\r\nmore";
    const struct {
        const char* name;
        std::string bytes;
    } kGarbage[] = {
        {"binary bytes ending a header", std::string(kBinary, sizeof kBinary - 1)},
        {"status 404", "HTTP/1.1 404 Not Found\r\nContent-length: 8\r\n\r\nCMD=ACK\n"},
        {"no length", "HTTP/1.1 200 OK\r\nServer: x\r\n\r\nCMD=ACK\n"},
    };
    int id = 500;
    size_t registrations = 1;
    for (const auto& garbage : kGarbage) {
        SCOPED_TRACE(garbage.name);
        ASSERT_TRUE(m_gateway->SendRaw(garbage.bytes));
        ASSERT_TRUE(Registrations(++registrations));
        ExpectFreshDelivered(++id);
        ExpectDisplayedOnce(id);
    }
}

TEST_F(FaultTest, BurstOfAThousandNotifications) {
    std::string burst;
    for (int i = 0; i < kBurst; ++i) {
        burst += NotificationBytes(10000 + i, "burst " + std::to_string(i));
    }
    ASSERT_TRUE(m_gateway->SendRaw(burst));
    ASSERT_TRUE(
        WaitUntil([&] { return m_gateway->RequestsFor("MESSAGEACK").size() >= size_t(kBurst); },
                  kBurstWaitMs))
        << Missing(10000, kBurst);

    // Delivered again as a whole: nothing is displayed or reported twice.
    ASSERT_TRUE(m_gateway->SendRaw(burst));
    ExpectFreshDelivered(20000);
    EXPECT_EQ(DisplayRuns().size(), size_t(kBurst) + 1);
    EXPECT_EQ(m_gateway->RequestsFor("MESSAGERECEIVED").size(), size_t(kBurst) + 1);
    EXPECT_EQ(m_gateway->RequestsFor("MESSAGEACK").size(), size_t(kBurst) + 1);
    for (int i = 0; i < kBurst; i += 97) {
        ExpectDisplayedOnce(10000 + i);
        EXPECT_EQ(CountFor("MESSAGEACK", 10000 + i), 1u);
    }
    EXPECT_EQ(Bodies("OPEN").size(), 1u);
    EXPECT_EQ(ZombieChildren(m_daemon), 0);
}

TEST_F(FaultTest, GatewayRestartedWhileTheDaemonRuns) {
    ExpectFreshDelivered(601);
    const uint16_t port = uint16_t(m_gateway->Port());
    m_receivedBefore[601] = CountFor("MESSAGERECEIVED", 601);
    m_gateway->Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // down for a while
    StartGateway(port);
    ASSERT_TRUE(Registrations(1)) << "registers with the restarted gateway";

    // The new gateway delivers the old notification again, then a new one.
    ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(601, "fresh 601")));
    ExpectFreshDelivered(602);
    ExpectDisplayedOnce(601);
    ExpectDisplayedOnce(602);
    EXPECT_EQ(CountFor("MESSAGEACK", 601), 0u) << "acknowledged to the old gateway only";
}

TEST_F(FaultTest, DisplayProgramMissing) {
    unlink(kDisplayPath);
    ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(701, "nobody shows this")));
    // The receipt is reported even though nothing could be shown; the
    // launcher's child logs its failed exec.
    ASSERT_TRUE(WaitUntil([&] { return CountFor("MESSAGERECEIVED", 701) == 1; }, kWaitMs));
    ASSERT_TRUE(
        WaitUntil([] { return CountInLog("Error launching child process") == 1; }, kWaitMs));
    EXPECT_TRUE(Alive());

    InstallDisplayProgram(ReadFile(kStub));
    ExpectFreshDelivered(702);
    ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(701, "nobody shows this")));
    ExpectFreshDelivered(703);
    EXPECT_TRUE(DisplayRunsFor(701).empty()) << "an id is taken once, shown or not";
    EXPECT_EQ(CountFor("MESSAGERECEIVED", 701), 1u);
}

TEST_F(FaultTest, DisplayProgramCrashing) {
    // Each run leaves a mark (not a display record) before it crashes.
    InstallDisplayProgram(std::string("#!/bin/sh\n: > ") + kRecordDir +
                          "/crashed-$MESSAGE_ID\nkill -SEGV $$\n");
    for (int id = 801; id <= 805; ++id) {
        ASSERT_TRUE(m_gateway->SendRaw(NotificationBytes(id, "crash")));
    }
    ASSERT_TRUE(WaitUntil([&] { return CountFor("MESSAGERECEIVED", 805) == 1; }, kWaitMs));
    ASSERT_TRUE(WaitUntil(
        [&] {
            for (int id = 801; id <= 805; ++id) {
                if (access((std::string(kRecordDir) + "/crashed-" + std::to_string(id)).c_str(),
                           F_OK) != 0) {
                    return false;
                }
            }
            return true;
        },
        kWaitMs))
        << "every crashing display program ran";
    EXPECT_TRUE(WaitUntil([&] { return ZombieChildren(m_daemon) == 0; }, kWaitMs))
        << "crashed display programs are reaped";
    EXPECT_TRUE(m_gateway->RequestsFor("MESSAGEACK").empty());

    InstallDisplayProgram(ReadFile(kStub));
    ExpectFreshDelivered(806);
    ExpectDisplayedOnce(806);
    EXPECT_EQ(m_gateway->RequestsFor("MESSAGERECEIVED").size(), 6u);
}

} // namespace
} // namespace notify_e2e

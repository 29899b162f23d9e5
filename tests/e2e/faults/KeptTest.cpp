// [agent] KeepUndelivered: acknowledgements given while the gateway is away
// reach it once it is back (across a SIGKILL of the daemon too, and from
// memory when the cache is full), in order and once each; what the cache
// directory holds is never trusted. Without the setting they are lost.
#include <sys/mount.h>
#include <sys/stat.h>

#include "GatewayWire.h"
#include "NotifyFixture.h"

namespace notify_e2e {
namespace {

constexpr int kWaitMs = 15000;
constexpr int kReconnectMs = 30000;
constexpr const char* kCacheDir = "/var/cache/notifydaemon";
constexpr const char* kAckFile = "/var/cache/notifydaemon/kept-acknowledgements.dat";
constexpr const char* kGoDir = "/run/nd-notify/go";
// A whole, undamaged file with one acknowledgement (of notification 999999).
const std::string kOneAck =
    std::string("NDKQ\1\0\1\0\1\0\0\0\x3f\x42\x0f\0\6\0\0\0\0\0\0\0", 24) + "\xbb\xd5\xb1\x73";

size_t LogLinesWith(const std::string& text) {
    size_t n = 0;
    for (const std::string& line : LogMessages()) {
        n += line.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

class KeptTest : public NotifyTest {
protected:
    void SetUp() override {
        NotifyTest::SetUp();
        std::filesystem::remove_all(kCacheDir);
        std::filesystem::remove_all(kGoDir);
        std::filesystem::create_directories(kGoDir);
        WriteFile(kAnswerPath, "6 alice\n");
        // The display program acknowledges only once the test lets it.
        unlink(kDisplayPath);
        WriteFile(kDisplayPath, std::string("#!/bin/sh\ni=0\nwhile [ ! -e ") + kGoDir +
                                    "/$MESSAGE_ID ] && [ $i -lt 1200 ]; do sleep 0.05; "
                                    "i=$((i+1)); done\nexec " ND_STUB_PATH "\n");
        chmod(kDisplayPath, 0755);
    }
    void TearDown() override {
        NotifyTest::TearDown();
        Install(ND_STUB_PATH, kDisplayPath);
    }

    void Start(bool keep) {
        const int port = StartGateway(m_port).Port();
        m_port = uint16_t(port);
        e2e::WriteSettings(port, kClearKey,
                           std::string("[agent]\nUpdateInterval=60\n") +
                               (keep ? "KeepUndelivered=1\n" : ""));
        Install(kFastDaemon, kInstalledDaemon);
        Restart();
    }
    void Restart() {
        m_daemon = StartDaemon();
        ASSERT_GT(m_daemon, 0);
        ASSERT_TRUE(WaitFor("OPEN", 1, kReconnectMs));
    }
    void Shown(int first, int last) {
        for (int id = first; id <= last; ++id) {
            ASSERT_TRUE(m_gateway->SendNotification(id, "kept " + std::to_string(id), "30|K", "1"));
        }
        ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGERECEIVED") >= size_t(last - first + 1); },
                              kWaitMs));
    }
    void GatewayDown() {
        m_gateway->Stop();
        // Until the daemon has seen the link close, a report would still be
        // written to it and count as sent.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    // Lets the display program of `id` acknowledge; with `keep`, waits until
    // the daemon has kept it.
    void Acknowledge(int id, bool keep) {
        WriteFile(std::string(kGoDir) + "/" + std::to_string(id), "");
        const std::string kept = "Acknowledgement of notification " + std::to_string(id) +
                                 " kept until the gateway takes it";
        if (keep) {
            ASSERT_TRUE(WaitUntil([&] { return CountInLog(kept) == 1; }, kWaitMs)) << id;
        } else {
            ASSERT_TRUE(WaitUntil([&] { return !DisplayRuns(id).empty(); }, kWaitMs)) << id;
        }
    }
    std::vector<std::string> AcknowledgedIds() {
        std::vector<std::string> ids;
        for (const devgw::Request& request : Bodies("MESSAGEACK")) {
            ids.push_back(request.Field("ID"));
        }
        return ids;
    }

    uint16_t m_port = 0;
};

TEST_F(KeptTest, AcknowledgementsWhileTheGatewayIsDown) {
    struct Case {
        const char* name;
        bool keep;
        int count;
        bool killed; // SIGKILL while they wait
        bool full;   // no space left in the cache: said once, kept in memory
    };
    const Case kCases[] = {
        {"kept", true, 20, false, false},
        {"kept across kill -9", true, 5, true, false},
        {"setting absent: lost, as always", false, 3, false, false},
        {"cache full", true, 3, false, true},
    };
    const std::string noSpace = "Kept records file " + std::string(kAckFile) +
                                " not saved (No space left on device): kept in memory only";
    int base = 0;
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(kCacheDir);
        if (c.full) {
            mkdir(kCacheDir, 0755);
            ASSERT_EQ(mount("nd-full", kCacheDir, "tmpfs", 0, "size=16k,mode=0755"), 0);
            WriteFile(std::string(kCacheDir) + "/filler", std::string(64 << 10, 'f'));
        }
        Start(c.keep);
        Shown(base + 1, base + c.count);
        GatewayDown();
        std::vector<std::string> expected;
        for (int id = base + 1; id <= base + c.count; ++id) {
            Acknowledge(id, c.keep);
            expected.push_back(std::to_string(id));
        }
        EXPECT_EQ(CountInLog(noSpace), c.full ? 1u : 0u);
        if (c.killed) {
            StopDaemon(m_daemon);
        }
        StartGateway(m_port);
        if (c.killed) {
            Restart();
        }
        ASSERT_TRUE(WaitFor("OPEN", 1, kReconnectMs));
        if (!c.keep) {
            expected.clear();
            std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        }
        ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGEACK") >= expected.size(); }, kWaitMs));
        // One more round trip: anything sent twice would be there by now.
        ASSERT_TRUE(m_gateway->SendNotification(base + 100, "after", "30|K", "1"));
        Acknowledge(base + 100, false);
        expected.push_back(std::to_string(base + 100));
        ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGEACK", base + 100) == 1; }, kWaitMs));
        EXPECT_EQ(AcknowledgedIds(), expected);
        struct stat info;
        EXPECT_EQ(stat(kAckFile, &info) == 0 ? info.st_size : -1, c.keep && !c.full ? 16 : -1)
            << "an empty record file with the setting, none without (or without space)";
        StopDaemon(m_daemon);
        if (c.full) {
            umount2(kCacheDir, MNT_DETACH);
        }
        base += 1000;
    }
}

// Each is logged and not used (a file is renamed aside); the daemon keeps
// working.
TEST_F(KeptTest, DamagedAndHostileCacheFilesAreSetAside) {
    const std::string setAside = "set aside as " + std::string(kAckFile) + ".bad";
    const std::tuple<const char*, std::function<void()>, std::string> kCases[] = {
        {"garbage", [] { WriteFile(kAckFile, "NDKQ\1\0\1\0garbage"); }, setAside},
        {"cut short", [] { WriteFile(kAckFile, kOneAck.substr(0, 20)); }, setAside},
        {"link to another file", [] { symlink("/etc/passwd", kAckFile); }, setAside},
        {"owned by another user",
         [] {
             WriteFile(kAckFile, kOneAck);
             chown(kAckFile, 4242, 4242);
         },
         setAside},
        {"oversized", [] { WriteFile(kAckFile, std::string(5 << 20, 'x')); }, setAside},
        {"fifo", [] { mkfifo(kAckFile, 0600); }, setAside},
        {"directory", [] { mkdir(kAckFile, 0700); }, setAside},
        {"writable by others",
         [] {
             WriteFile(kAckFile, kOneAck);
             chmod(kAckFile, 0666);
         },
         setAside},
        {"cache directory a link",
         [] {
             std::filesystem::create_directories("/run/nd-notify/elsewhere");
             WriteFile("/run/nd-notify/elsewhere/kept-acknowledgements.dat", kOneAck);
             rmdir(kCacheDir);
             symlink("/run/nd-notify/elsewhere", kCacheDir);
         },
         std::string("Kept records directory ") + kCacheDir + " unusable"},
    };
    int id = 0;
    for (const auto& [name, make, logged] : kCases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all(kCacheDir);
        mkdir(kCacheDir, 0755);
        make();
        const size_t before = LogLinesWith(logged);
        Start(true);
        EXPECT_TRUE(WaitUntil([&] { return LogLinesWith(logged) > before; }, kWaitMs));
        ASSERT_TRUE(m_gateway->SendNotification(++id, "still works", "30|K", "1"));
        Acknowledge(id, false);
        ASSERT_TRUE(WaitUntil([&] { return Count("MESSAGEACK", id) == 1; }, kWaitMs));
        EXPECT_EQ(Count("MESSAGEACK"), 1u) << "nothing from the file was sent";
        StopDaemon(m_daemon);
    }
}

} // namespace
} // namespace notify_e2e

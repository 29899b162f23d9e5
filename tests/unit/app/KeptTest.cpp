// Kept acknowledgements and notifications: the record file byte for byte,
// what a damaged or hostile file does, and the queue's order.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTesting.h"
#include "TransportFixtures.h"
#include "app/KeptFile.h"
#include "app/Notification.h"
#include "app/TransportStartup.h"
#include "app/Undelivered.h"
#include "app/WorkerThreads.h"
#include "app/corvanenotify.h"
#include "transport/CRC32.h"

namespace {

using hosttest::ReadFile;
using hosttest::TempDir;
using Acks = std::vector<KeptAcknowledgement>;
using Notifications = std::vector<KeptNotification>;

std::string Bytes(const char* hex) {
    std::string bytes;
    for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
        bytes.push_back(char(std::stoi(std::string(hex + i, 2), nullptr, 16)));
    }
    return bytes;
}

// Magic, version 1, kind, count, the records, CRC-32 (zlib's) of the rest.
const char kTwoAcks[] = "4e444b51"
                        "0100"
                        "0100"
                        "02000000"
                        "07000000"
                        "feffffff"
                        "02000000"
                        "616c"
                        "ffffffff"
                        "01000000"
                        "00000000"
                        "5813f38c";
const char kOneNotification[] = "4e444b51"
                                "0100"
                                "0200"
                                "01000000"
                                "2a000000"
                                "0807060504030201"
                                "02000000"
                                "6869"
                                "03000000"
                                "436170"
                                "02000000"
                                "3330"
                                "01000000"
                                "35"
                                "d06d99e5";

TEST(KeptFormat, EveryByteOfBothKinds) {
    const Acks acks = {{7, -2, "al"}, {-1, 1, ""}};
    EXPECT_EQ(EncodeKept(acks), Bytes(kTwoAcks));
    const Notifications notes = {{42, 0x0102030405060708, "hi", "Cap", "30", "5"}};
    EXPECT_EQ(EncodeKept(notes), Bytes(kOneNotification));

    Acks readAcks;
    Notifications readNotes;
    std::string why;
    ASSERT_TRUE(DecodeKept(Bytes(kTwoAcks), readAcks, why)) << why;
    ASSERT_TRUE(DecodeKept(Bytes(kOneNotification), readNotes, why)) << why;
    EXPECT_EQ(EncodeKept(readAcks) + EncodeKept(readNotes),
              Bytes(kTwoAcks) + Bytes(kOneNotification));
}

TEST(KeptFormat, DamagedFilesAreRefusedWhole) {
    const std::string good = Bytes(kTwoAcks);
    // Damage before the checksum, then a checksum made to match it.
    auto seal = [](std::string body) {
        const uint32_t crc = CRC32_Update(0xFFFFFFFFu, body.data(), int(body.size())) ^ 0xFFFFFFFFu;
        for (int i = 0; i < 4; ++i) {
            body.push_back(char(crc >> (8 * i)));
        }
        return body;
    };
    const std::string body = good.substr(0, good.size() - 4);
    std::string flipped = good;
    flipped[13] ^= 1;
    const std::pair<const char*, std::string> kCases[] = {
        {"empty", ""},
        {"header only", good.substr(0, 12)},
        {"a bit flipped", flipped},
        {"other magic", seal("NDKX" + body.substr(4))},
        {"version 2", seal(body.substr(0, 4) + '\2' + body.substr(5))},
        {"notification kind", seal(body.substr(0, 6) + '\2' + body.substr(7))},
        {"1001 records", seal(body.substr(0, 8) + Bytes("e9030000") + body.substr(12))},
        {"record cut short", seal(body.substr(0, body.size() - 1))},
        {"bytes after the last record", seal(body + "x")},
        {"name longer than the file", seal(body.substr(0, 20) + Bytes("ffffff7f"))},
        {"above the size bound", std::string(kMaxKeptFileBytes + 1, 'N')},
    };
    for (const auto& [name, bytes] : kCases) {
        Acks records = {{1, 1, "x"}};
        std::string why;
        EXPECT_FALSE(DecodeKept(bytes, records, why)) << name;
        EXPECT_TRUE(records.empty() && !why.empty()) << name;
    }
}

// Hostile files in the cache directory are the end-to-end fault tests'.
TEST(KeptFile, SavedAsEncodedForTheOwnerOnly) {
    TempDir dir;
    KeptFile file(dir.Path(), "kept.dat");
    file.Save(Acks{{7, -2, "al"}, {-1, 1, ""}});
    EXPECT_EQ(ReadFile(file.Path()), Bytes(kTwoAcks));
    struct stat info;
    ASSERT_EQ(stat(file.Path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(file.Load<KeptAcknowledgement>().size(), 2u);
}

// Acknowledgements given while the transport has no link go, in order and
// once, at the next registration, or before the next one given on a link that
// is back.
TEST(Undelivered, AcknowledgementsWaitForTheLink) {
    vel::CHTCTL ctl{443};
    transport_test::PairedLink paired{&ctl, "gw.example:443"};
    TempDir dir;
    transport = &ctl;
    gKeepUndelivered = true;
    StartKeptDelivery(dir.Path().c_str());
    auto acknowledge = [](int id) {
        tagCTL_MESSAGEACKNOWLEDGEDINFO info = {0, id, 6, id == 5 ? "" : "al"};
        EXPECT_TRUE(KeepOrSendAcknowledgement(info));
    };
    auto posts = [](int first, int last) {
        std::string text;
        for (int id = first; id <= last; ++id) {
            text +=
                transport_test::Post("gw.example:443", "CMD=MESSAGEACK\nID=" + std::to_string(id) +
                                                           "\nUF=6\n" + (id == 5 ? "" : "UN=al\n"));
        }
        return text;
    };
    for (int id = 1; id <= 3; ++id) {
        acknowledge(id);
    }
    EXPECT_EQ(KeptAcknowledgementCount(), 3u);
    ctl.m_connections.push_back(&paired.link);
    EXPECT_EQ(paired.Drain(), "");
    WakeForRegistration();
    for (int tick = 0; tick < 500 && KeptAcknowledgementCount() != 0; ++tick) {
        usleep(10000);
    }
    EXPECT_EQ(paired.Drain(), posts(1, 3));

    ctl.m_connections.clear();
    acknowledge(4);
    ctl.m_connections.push_back(&paired.link);
    acknowledge(5);
    EXPECT_EQ(paired.Drain(), posts(4, 5));
    EXPECT_EQ(KeptFile(dir.Path(), kKeptAcknowledgementsFile).Load<KeptAcknowledgement>().size(),
              0u);
    StopKeptDelivery();
    gKeepUndelivered = false;
    transport = nullptr;
    ctl.m_connections.clear();
}

} // namespace

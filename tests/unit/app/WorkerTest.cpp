// The acknowledgement records and the checks in front of the customisation download.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "app/Customisation.h"
#include "app/Notification.h"
#include "app/TransportStartup.h"
#include "app/WorkerThreads.h"
#include "app/corvanenotify.h"

namespace {

using transport_test::PairedLink;
using transport_test::Post;

const char kHost[] = "gw.example:443";

struct Workers : ::testing::Test {
    vel::CHTCTL ctl{443};
    PairedLink paired{&ctl, kHost};

    void SetUp() override {
        ctl.m_connections.push_back(&paired.link);
        transport = &ctl;
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        gReceivedMessages = {7, -2};
    }
    void TearDown() override {
        transport = nullptr;
        ctl.m_connections.clear();
        std::lock_guard<std::mutex> lock(gReceivedMessagesLock);
        gReceivedMessages.clear();
    }
};

// A record as a display program writes it.
std::vector<char> Record(int id, int flags, const std::string& name) {
    NotificationAcknowledgement head = {id, flags, unsigned(name.size())};
    std::string text(reinterpret_cast<const char*>(&head), sizeof head);
    text += name;
    text += '\0';
    return std::vector<char>(text.begin(), text.end());
}

TEST_F(Workers, FlagsZeroOrNoTransportSendNothing) {
    for (bool connected : {true, false}) {
        std::vector<char> record = Record(7, connected ? 0 : 3, "alice");
        record.push_back('x'); // the reader's spare byte
        transport = connected ? &ctl : nullptr;
        EXPECT_FALSE(HandleAcknowledgement(record.data(), record.size() - 1)) << connected;
    }
    EXPECT_EQ(paired.Drain(), "");
}

// Records of display programs acknowledging together arrive in one read (a burst
// of 1000 notifications once lost one this way): every whole record is passed on.
TEST_F(Workers, RecordsArrivingInOneReadAreEachReported) {
    std::vector<char> bytes;
    for (const std::vector<char>& record :
         {Record(7, 6, "alice"), Record(-2, 6, "bo"), Record(8, 6, "alice"), Record(7, 1, "")}) {
        bytes.insert(bytes.end(), record.begin(), record.end());
        if (record.size() < size_t(kMinAcknowledgementSize)) {
            bytes.resize(bytes.size() + kMinAcknowledgementSize - record.size(), '\0'); // padding
        }
    }
    const std::vector<char> tail = Record(-2, 4, "carol");
    bytes.insert(bytes.end(), tail.begin(), tail.begin() + 16); // name cut by the read
    bytes.push_back('x');                                       // the reader's spare byte
    EXPECT_EQ(HandleAcknowledgements(bytes.data(), bytes.size() - 1), 4);
    EXPECT_EQ(paired.Drain(), Post(kHost, "CMD=MESSAGEACK\nID=7\nUF=6\nUN=alice\n") +
                                  Post(kHost, "CMD=MESSAGEACK\nID=-2\nUF=6\nUN=bo\n") +
                                  Post(kHost, "CMD=MESSAGEACK\nID=7\nUF=1\n") +
                                  Post(kHost, "CMD=MESSAGEACK\nID=-2\nUF=4\nUN=caro\n"));

    // Fewer than 16 bytes left over are no record.
    std::vector<char> shortTail = Record(7, 6, "alice");
    shortTail.resize(shortTail.size() + 15, 'z');
    shortTail.push_back('x');
    EXPECT_EQ(HandleAcknowledgements(shortTail.data(), shortTail.size() - 1), 1);
    EXPECT_EQ(paired.Drain(), Post(kHost, "CMD=MESSAGEACK\nID=7\nUF=6\nUN=alice\n"));
}

// What a customisation reply may put into the download command line.
TEST(Customisation, OnlyPlainNamesAndAddressesReachTheShell) {
    for (const char* good : {"sxa-custom.dat", "A_b-1.x", ".hidden"}) {
        EXPECT_TRUE(IsPlainFileName(good)) << good;
    }
    for (const char* bad : {"", "..", "a/b", "-rf", "a b", "a;reboot", "$(id)", "`id`", "a|b",
                            "a\nb", "it's", "~root"}) {
        EXPECT_FALSE(IsPlainFileName(bad)) << bad;
    }
    EXPECT_FALSE(IsPlainFileName(std::string(256, 'a')));
    for (const char* good : {"127.0.0.1:8080", "gw-1.example.org:443"}) {
        EXPECT_TRUE(IsSafeServerAddress(good)) << good;
    }
    for (const char* bad : {"", "-q", "a b", "h;id", "h/x", "$(id)", "user@host", "[::1]:80"}) {
        EXPECT_FALSE(IsSafeServerAddress(bad)) << bad;
    }
}

// The other refused replies are covered end to end.
TEST(Customisation, RepliesWithAnUnsafeServerStartNoDownload) {
    gLastWriteTime = 500;
    for (const char* server : {"127.0.0.1:80;touch /tmp/nd-pwned", ""}) {
        FileInfoCallback("notify-customization.lnk", "sxa-custom.dat", "", 0, 900, server);
        EXPECT_EQ(gLastWriteTime, 500u) << server;
    }
    gLastWriteTime = 0;
}

} // namespace

// MESSAGE into callback code 1, the receipt reports, and file information.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::Base64;
using transport_test::Harness;
using transport_test::kControlType;
using transport_test::Post;

// Type 0x0c, the sender in 16 bytes, the text, two NULs.
std::string Block(std::string sender, const std::string& text) {
    sender.resize(16, '\0');
    return std::string("\x0c\x00", 2) + sender + text + std::string(2, '\0');
}

TEST(Messages, MessageBecomesTheNotificationBlock) {
    const std::string text("hello\0"
                           "30|Notice\0"
                           "5\0",
                           18);
    const std::string sender150(150, 's');
    const struct {
        const char* name;
        std::string body;
        std::string block;
        int id;
        std::string sender;
    } cases[] = {
        {"all fields", "CMD=MESSAGE\nMSG=" + Base64(text) + "\nSENDER=admin\nID=42\n\n",
         Block("admin", text), 42, "admin"},
        // The encoder pads with zero bits, so one byte decodes as three.
        {"sender cut to 15 in the block, 100 in the record",
         "CMD=MESSAGE\nID=1\nSENDER=" + sender150 + "\nMSG=" + Base64("x") + "\n",
         Block(sender150.substr(0, 15), std::string("x\0\0", 3)), 1, sender150.substr(0, 100)},
        {"last MSG wins, keywords in any case",
         "cmd=message\nmsg=" + Base64("first") + "\nMsg=" + Base64("second") + "\nid=-7\n",
         Block("", "second"), -7, ""},
        {"lines after the empty line are not read",
         "CMD=MESSAGE\nID=3\n\nID=4\nMSG=" + Base64("late") + "\n", Block("", ""), 3, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(kControlType, 1);
        h.Dispatch(c.body);
        const auto delivered = h.app.Of(kCtlDataReceived);
        ASSERT_EQ(delivered.size(), 1u);
        const transport_test::Event& d = delivered[0];
        EXPECT_EQ(std::tie(d.transport, d.session, d.addr, d.data, d.messageid, d.sender),
                  std::make_tuple(3, 0, std::string(), c.block, c.id, c.sender));
        EXPECT_EQ(h.Drain(), "") << "a message is not answered";
    }
}

TEST(Messages, ReportsGoOutByteForByte) {
    Harness h(kControlType, 1);
    tagCTL_MESSAGERECEIVEDINFO alice = {0, 42, 0, "alice"};
    tagCTL_MESSAGERECEIVEDINFO nobody = {0, 7, 1, nullptr};
    tagCTL_MESSAGEACKNOWLEDGEDINFO ack = {0, -1, -3, ""};
    EXPECT_EQ(h.ctl->MessageReceived(&alice), 0);
    {
        // From a file information callback, under the list lock: must not block.
        vel::CSingleLock held(&h.ctl->m_lock, TRUE);
        EXPECT_EQ(h.ctl->MessageReceived(&nobody), 0);
    }
    EXPECT_EQ(h.ctl->MessageAcknowledged(&ack), 0);
    EXPECT_EQ(h.Drain(), Post("gw.example:443", "CMD=MESSAGERECEIVED\nID=42\nUF=0\nUN=alice\n") +
                             Post("gw.example:443", "CMD=MESSAGERECEIVED\nID=7\nUF=1\n") +
                             Post("gw.example:443", "CMD=MESSAGEACK\nID=-1\nUF=-3\n"));
}

// What one code-16 callback carried: link|file|sub|size|lwt|server|lock held.
std::vector<std::string> gCalls;
vel::CHTCTL* gCtl = nullptr;

int Record(int code, void*, CTL_CALLBACK* cb) {
    if (code == kCtlFileInfo) {
        const auto& f = cb->fileinfo;
        gCalls.push_back(std::string(f.linkname) + "|" + f.filename + "|" + f.subfolder + "|" +
                         std::to_string(f.filesize) + "|" + std::to_string(f.lastwritetime) + "|" +
                         f.serveraddress + "|" +
                         (gCtl->m_lock.IsHeldByCurrentThread() ? "locked" : "free"));
    }
    return 0;
}

TEST(FileInfo, RequestAndRepliesUnderTheListLock) {
    Harness h(kControlType, 1);
    gCtl = h.ctl;
    h.ctl->m_callback = &Record;
    h.ctl->m_slaveType = 256;
    tagCTL_GETFILEINFO empty = {8, ""};
    EXPECT_EQ(h.ctl->GetFileInfo("x", &empty), 0); // nothing without a link name
    EXPECT_EQ(h.ctl->GetFileInfo("x", nullptr), 0);
    tagCTL_GETFILEINFO info = {8, "notify-customization.lnk"};
    EXPECT_EQ(h.ctl->GetFileInfo(nullptr, &info), 1);
    EXPECT_EQ(h.Drain(),
              Post("gw.example:443", "CMD=GETFILEINFO\nLINK=notify-customization.lnk\n"));
    EXPECT_TRUE(h.link->getfileinfo_pending);

    // A local socket has no IPv4 peer: the server address is empty here.
    const struct {
        const char* name;
        int slaveType;
        bool pending;
        std::string body;
        const char* delivered; // null: not delivered
    } cases[] = {
        {"all fields, FSIZE over 4 GiB kept whole", 256, true,
         "CMD=GETFILEINFO_REPLY\nRESULT=0\nLINK=a.lnk\nFNAME=sxa-custom.dat\nSUB=custom\n"
         "FSIZE=6442450944\nLWT=132000000000000000\n",
         "a.lnk|sxa-custom.dat|custom|6442450944|132000000000000000||locked"},
        {"last occurrence wins, absent fields empty", 0, true,
         "CMD=GETFILEINFO_REPLY\nLWT=5\nFNAME=a\nlwt=9\nfname=b\n", "|b||0|9||locked"},
        {"unsolicited, other client kind", 5, false, "CMD=GETFILEINFO_REPLY\nLINK=x\n", nullptr},
        {"solicited, other client kind", 5, true, "CMD=GETFILEINFO_REPLY\nLINK=y\n",
         "y|||0|0||locked"},
        {"error result", 256, true, "CMD=GETFILEINFO_REPLY\nRESULT=2\nLINK=x\n", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        gCalls.clear();
        h.ctl->m_slaveType = c.slaveType;
        h.link->getfileinfo_pending = c.pending;
        h.Dispatch(c.body);
        EXPECT_EQ(gCalls,
                  c.delivered ? std::vector<std::string>{c.delivered} : std::vector<std::string>());
        EXPECT_FALSE(h.link->getfileinfo_pending);
    }
    EXPECT_EQ(h.link->getfileinfo_result, 2) << "the last reply's result is kept";
}

} // namespace

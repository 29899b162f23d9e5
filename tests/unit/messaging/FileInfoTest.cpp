// GETFILEINFO requests and GETFILEINFO_REPLY into callback code 16.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::Harness;
using transport_test::Post;

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

struct FileInfo : ::testing::Test {
    Harness h{8, 1};
    void SetUp() override {
        gCalls.clear();
        gCtl = h.ctl;
        h.ctl->m_callback = &Record;
        h.ctl->m_slaveType = 256;
    }
    bool Pending() {
        vel::CSingleLock lock(&h.ctl->m_lock, TRUE);
        return h.link->getfileinfo_pending;
    }
};

TEST_F(FileInfo, RequestIsWrittenAndMarkedPending) {
    tagCTL_GETFILEINFO empty = {8, ""};
    tagCTL_GETFILEINFO missing = {8, nullptr};
    EXPECT_EQ(h.ctl->GetFileInfo("x", &empty), 0);
    EXPECT_EQ(h.ctl->GetFileInfo("x", &missing), 0);
    EXPECT_EQ(h.ctl->GetFileInfo("x", nullptr), 0);
    EXPECT_EQ(h.Drain(), "");
    EXPECT_FALSE(Pending());

    tagCTL_GETFILEINFO info = {8, "notify-customization.lnk"};
    EXPECT_EQ(h.ctl->GetFileInfo(nullptr, &info), 1);
    EXPECT_EQ(h.Drain(),
              Post("gw.example:443", "CMD=GETFILEINFO\nLINK=notify-customization.lnk\n"));
    EXPECT_TRUE(Pending());
}

TEST_F(FileInfo, ReplyReachesTheApplicationUnderTheListLock) {
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
        {"unsolicited, client that connects at Create", 256, false,
         "CMD=GETFILEINFO_REPLY\nLINK=x\n", "x|||0|0||locked"},
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
        EXPECT_FALSE(Pending());
    }
    EXPECT_EQ(h.link->getfileinfo_result, 2) << "the last reply's result is kept";
}

} // namespace

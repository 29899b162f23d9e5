// GETFILEINFO requests and GETFILEINFO_REPLY into callback code 16.

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::PairedLink;
using transport_test::RequestHeader;
using vel::CHTCTL;

struct FileInfo {
    std::string link, fileName, subFolder, server;
    uint64_t size = 0, lastWrite = 0;
    bool listLockHeld = false;
};

struct Recorder {
    CHTCTL* ctl = nullptr;
    std::vector<FileInfo> calls;
    static int Callback(int code, void* cbdata, CTL_CALLBACK* cb) {
        auto* self = static_cast<Recorder*>(cbdata);
        if (code != kCtlFileInfo) {
            return 0;
        }
        FileInfo f;
        f.link = cb->fileinfo.linkname;
        f.fileName = cb->fileinfo.filename;
        f.subFolder = cb->fileinfo.subfolder;
        f.size = cb->fileinfo.filesize;
        f.lastWrite = cb->fileinfo.lastwritetime;
        f.server = cb->fileinfo.serveraddress;
        f.listLockHeld = self->ctl->m_lock.IsHeldByCurrentThread();
        self->calls.push_back(f);
        return 0;
    }
};

struct FileInfoRequests : ::testing::Test {
    CHTCTL ctl{443};
    PairedLink paired{&ctl, "10.1.2.3:443"};
    Recorder recorder;

    void SetUp() override {
        recorder.ctl = &ctl;
        ctl.m_callback = &Recorder::Callback;
        ctl.m_cbdata = &recorder;
        ctl.m_slaveType = 256;
        ctl.m_connections.push_back(&paired.link);
    }
    void TearDown() override {
        vel::CSingleLock lock(&ctl.m_lock, TRUE);
        ctl.m_connections.clear();
    }
    void Reply(const std::string& body) {
        std::vector<char> bytes(body.begin(), body.end());
        bytes.push_back('\0');
        ctl.ProcessMessageBody(bytes.data(), int(body.size()), paired.link);
    }
    bool Pending() {
        vel::CSingleLock lock(&ctl.m_lock, TRUE);
        return paired.link.getfileinfo_pending;
    }
};

const std::string kLink = "notify-customization.lnk";

TEST_F(FileInfoRequests, RequestIsWrittenAndMarkedPending) {
    tagCTL_GETFILEINFO info = {8, kLink.c_str()};
    EXPECT_EQ(ctl.GetFileInfo(nullptr, &info), 1);
    const std::string body = "CMD=GETFILEINFO\nLINK=notify-customization.lnk\n";
    EXPECT_EQ(paired.Drain(), RequestHeader("10.1.2.3:443", body.size()) + body);
    EXPECT_TRUE(Pending());
    EXPECT_EQ(paired.link.getfileinfo_result, 0);
}

TEST_F(FileInfoRequests, NothingIsSentWithoutALinkName) {
    tagCTL_GETFILEINFO empty = {8, ""};
    tagCTL_GETFILEINFO missing = {8, nullptr};
    EXPECT_EQ(ctl.GetFileInfo("x", &empty), 0);
    EXPECT_EQ(ctl.GetFileInfo("x", &missing), 0);
    EXPECT_EQ(ctl.GetFileInfo("x", nullptr), 0);
    EXPECT_EQ(paired.Drain(), "");
    EXPECT_FALSE(Pending());
}

TEST_F(FileInfoRequests, LinkDownStillReportsSentButMarksNothing) {
    paired.link.Disconnect();
    tagCTL_GETFILEINFO info = {8, kLink.c_str()};
    EXPECT_EQ(ctl.GetFileInfo(nullptr, &info), 1);
    EXPECT_FALSE(Pending());
    ctl.m_connections.clear();
    EXPECT_EQ(ctl.GetFileInfo(nullptr, &info), 1) << "no link at all";
}

TEST_F(FileInfoRequests, ReplyReachesTheApplicationUnderTheListLock) {
    const struct {
        const char* name;
        int slaveType;
        bool pending;
        std::string body;
        bool delivered;
        FileInfo expected;
    } cases[] = {
        {"all fields, FSIZE over 4 GiB kept whole",
         256,
         true,
         "CMD=GETFILEINFO_REPLY\nRESULT=0\nLINK=" + kLink +
             "\nFNAME=sxa-custom.dat\nSUB=custom\nFSIZE=6442450944\nLWT=132000000000000000\n",
         true,
         {kLink, "sxa-custom.dat", "custom", "", 6442450944ull, 132000000000000000ull}},
        {"absent fields read as empty and 0", 256, true, "CMD=GETFILEINFO_REPLY\n", true, {}},
        {"last occurrence wins",
         0,
         true,
         "CMD=GETFILEINFO_REPLY\nLWT=5\nFNAME=a\nlwt=9\nfname=b\n",
         true,
         {"", "b", "", "", 0, 9}},
        {"unsolicited, client that connects at Create",
         256,
         false,
         "CMD=GETFILEINFO_REPLY\nLINK=x\n",
         true,
         {"x", "", "", "", 0, 0}},
        {"unsolicited, other client kind", 5, false, "CMD=GETFILEINFO_REPLY\nLINK=x\n", false, {}},
        {"solicited, other client kind",
         5,
         true,
         "CMD=GETFILEINFO_REPLY\nLINK=y\n",
         true,
         {"y", "", "", "", 0, 0}},
        {"error result", 256, true, "CMD=GETFILEINFO_REPLY\nRESULT=2\nLINK=x\n", false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        recorder.calls.clear();
        ctl.m_slaveType = c.slaveType;
        paired.link.getfileinfo_pending = c.pending;
        Reply(c.body);
        ASSERT_EQ(recorder.calls.size(), c.delivered ? 1u : 0u);
        EXPECT_FALSE(Pending());
        if (c.delivered) {
            const FileInfo& f = recorder.calls[0];
            EXPECT_EQ(f.link, c.expected.link);
            EXPECT_EQ(f.fileName, c.expected.fileName);
            EXPECT_EQ(f.subFolder, c.expected.subFolder);
            EXPECT_EQ(f.size, c.expected.size);
            EXPECT_EQ(f.lastWrite, c.expected.lastWrite);
            // A local socket has no IPv4 peer; the end-to-end tests see "ip:port".
            EXPECT_EQ(f.server, "");
            EXPECT_TRUE(f.listLockHeld);
        }
    }
    EXPECT_EQ(paired.link.getfileinfo_result, 2) << "the last reply's result is kept";
}

TEST_F(FileInfoRequests, WaitingModeTakesTheGatewaysResult) {
    ctl.m_slaveType = -1;
    tagCTL_GETFILEINFO info = {8, kLink.c_str()};
    EXPECT_EQ(ctl.GetFileInfo(nullptr, &info), 0) << "waiting mode needs a name";
    EXPECT_EQ(ctl.GetFileInfo("", &info), 0);
    EXPECT_EQ(paired.Drain(), "");

    for (int result : {0, 7}) {
        SCOPED_TRACE(result);
        PairedLink fresh(&ctl, "10.1.2.3:443");
        {
            vel::CSingleLock lock(&ctl.m_lock, TRUE);
            ctl.m_connections.assign(1, &fresh.link);
        }
        std::thread gateway([&] {
            // Answer once the request has gone out.
            std::string got;
            for (int i = 0; i < 500 && got.find("LINK=") == std::string::npos; ++i) {
                got += fresh.Drain();
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            std::string body = "CMD=GETFILEINFO_REPLY\nRESULT=" + std::to_string(result) + "\n";
            ctl.ProcessMessageBody(&body[0], int(body.size()), fresh.link);
        });
        EXPECT_EQ(ctl.GetFileInfo("gw", &info), result == 0 ? 1 : 0);
        gateway.join();
        EXPECT_FALSE(fresh.link.IsConnected()) << "the wait closes the link";
        vel::CSingleLock lock(&ctl.m_lock, TRUE);
        ctl.m_connections.clear();
    }
}

} // namespace

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "host/MachineDetails.h"
#include "transport/TransportTimings.h"

namespace {

using transport_test::FakeSettings;
using transport_test::PairedLink;
using transport_test::Post;
using vel::CHTCTL;
using vel::CTL_HTTP_CONNECTION;

struct Registration : ::testing::Test {
    CHTCTL ctl{443};
    FakeSettings settings;
    CTL_HTTP_CONNECTION link{"gw.example:443", "secretkey", &ctl, nullptr};

    void SetUp() override {
        settings.InstallIn(ctl);
        strcpy(ctl.m_name, "WS-0042");
        ctl.m_slaveType = 256;
    }
    std::string Build() {
        tagHTTP_BUF request = {0, 0, 0, nullptr};
        ctl.BuildOpenRequest(link, request);
        std::string text(request.data, size_t(request.datalen));
        FreeHttpBuf(&request);
        return text;
    }
    std::string Expected(const std::string& optional, const std::string& dept) {
        char host[128] = {};
        gethostname(host, sizeof host - 1);
        std::string mac;
        vel::GetMachineMacAddress(mac, -1);
        return Post("gw.example:443",
                    "CMD=OPEN\nCLIENT_VERSION=1.1\nPROTOCOL_VER=1.1\n"
                    "MAXPACKET=928\nCLIENT_NAME=WS-0042\nCLIENT_ADDR=\nHOSTNAME=" +
                        std::string(host) + "\nMACADDRESS=" + mac +
                        "\nGSK=t6sKKe8nHq7fFpFo0OrcQAAA\n" + optional +
                        "APPTYPE=256\nDEPT=" + dept + "\n");
    }
};

TEST_F(Registration, EveryLineInOrder) {
    settings.text[{"client247", "CHATID"}] = "chat7";
    for (const char* key : {"A1", "A2", "A3", "A4"}) {
        settings.text[{"client247", key}] = std::string("answer ") + key;
    }
    settings.text[{"HTTP", "*Dept"}] = "Accounts";
    EXPECT_EQ(Build(), Expected("CHATID=chat7\nA1=answer A1\nA2=answer A2\nA3=answer A3\n"
                                "A4=answer A4\n",
                                "Accounts"));

    // The answers' chain stops at the first empty one: A3 is not even asked.
    settings.text.clear();
    settings.asked.clear();
    settings.text[{"client247", "A1"}] = "one";
    settings.text[{"client247", "A3"}] = "three";
    settings.text[{"client247", "A4"}] = "four";
    EXPECT_EQ(Build(), Expected("A1=one\n", ""));
    const std::vector<std::string> expected = {"client247/CHATID", "client247/A1", "client247/A2",
                                               "HTTP/*Dept"};
    EXPECT_EQ(settings.asked, expected);

    ctl.m_callback = nullptr; // without a callback every setting is empty
    EXPECT_EQ(Build(), Expected("", ""));
}

TEST(RegistrationWrite, FailedWriteDisconnectsAndArmsTheCountdown) {
    CHTCTL ctl(443);
    PairedLink paired(&ctl);
    paired.ClosePeer();
    EXPECT_EQ(ctl.OnConnected(paired.link), -1);
    EXPECT_FALSE(paired.link.IsConnected());
    EXPECT_EQ(paired.link.m_connect_timer, 30);
}

// A body as the dispatcher hands it over: lines, ended by an empty one.
struct Body {
    explicit Body(std::string text) : m_text(std::move(text)) {
        m_buf = {int(m_text.size()) + 1, int(m_text.size()), 0, &m_text[0]};
    }
    std::string m_text;
    tagHTTP_BUF m_buf;
};

TEST(OpenReply, FieldsAreStored) {
    CHTCTL ctl(443);
    CTL_HTTP_CONNECTION link("gw:1", "k", &ctl, nullptr);
    Body body("SERVER_VERSION=gw 9.1\nMAXPACKET=1500\nRESULT=3\nFAILED_REASON=42\nCMPI=15\n"
              "PROTOCOL_VER=1.1\n\nCMPI=99\n");
    ctl.OnOpenReply(body.m_buf, link);
    EXPECT_EQ(link.m_server_version, "gw 9.1");
    EXPECT_EQ(link.m_maxpacket, 1500);
    EXPECT_EQ(link.m_open_reply_err, 3);
    EXPECT_EQ(ctl.GetFailedReason(), 42);
    EXPECT_EQ(link.m_comms_manage_pkt_period, 15000u); // the line after the empty one is not read
}

TEST(OpenReply, VersionNegotiationKeepsTheSmallerPackedValue) {
    const std::pair<const char*, DWORD> cases[] = {
        {"", 0x00010001}, // no PROTOCOL_VER: "1.1"
        {"PROTOCOL_VER=1.1\n", 0x00010001},
        {"PROTOCOL_VER=1.2\n", 0x00010001}, // newer gateway: ours stays
        {"PROTOCOL_VER=2.0\n", 0x00000002}, // minor weighs more: 2.0 < 1.1
        {"PROTOCOL_VER=9\n", 0x00000009},
        {"PROTOCOL_VER=0.5\n", 0x00010001}, // 0.5 packs as 1.5
        {"PROTOCOL_VER=1.0\n", 0x00000001},
    };
    for (const auto& [reply, version] : cases) {
        CHTCTL ctl(443);
        CTL_HTTP_CONNECTION link("gw:1", "k", &ctl, nullptr);
        Body body(std::string("CMPI=1\n") + reply);
        ctl.OnOpenReply(body.m_buf, link);
        EXPECT_EQ(link.m_protocol_ver, version) << reply;
    }
}

TEST(ConfigUpdate, CmpiLinesSetThePeriod) {
    CHTCTL ctl(443);
    CTL_HTTP_CONNECTION link("gw:1", "k", &ctl, nullptr);
    Body body("OTHER=1\ncmpi=5\nCMPI=7\nMAXPACKET=1\n");
    ctl.OnConfigUpdate(body.m_buf, link);
    EXPECT_EQ(link.m_comms_manage_pkt_period, 7000u);
    EXPECT_EQ(link.m_maxpacket, 928);
    Body zero("CMPI=0\n");
    ctl.OnConfigUpdate(zero.m_buf, link);
    EXPECT_EQ(link.m_comms_manage_pkt_period, 0u);
}

TEST(KeepAliveCheck, PollsWhenDueOnly) {
    CHTCTL ctl(443);
    PairedLink paired(&ctl);
    paired.link.m_next_poll_time = vel::NowMs() + 30000;
    ctl.CheckConnection(paired.link);
    EXPECT_EQ(paired.Drain(), "");
    paired.link.m_next_poll_time = vel::NowMs() - 1;
    ctl.CheckConnection(paired.link);
    EXPECT_EQ(paired.Drain(), Post("gw.example:443", "CMD=POLL\n"));
}

TEST(KeepAliveCheck, ReconnectsEveryThirtiethCheckOnlyWhenEnabled) {
    CHTCTL ctl(443);
    CTL_HTTP_CONNECTION link("127.0.0.1:1", "k", &ctl, nullptr); // refused at once
    ctl.m_ctltype = 8;
    ctl.CheckConnection(link);
    EXPECT_EQ(link.m_connect_timer, 0); // reconnection disabled
    ctl.m_ctltype = -1;
    ctl.CheckConnection(link); // 0 -> -1: try now, then count 30 again
    EXPECT_EQ(link.m_connect_timer, 30);
    for (int i = 0; i < 29; ++i) {
        ctl.CheckConnection(link);
    }
    EXPECT_EQ(link.m_connect_timer, 1);
    ctl.CheckConnection(link);
    EXPECT_EQ(link.m_connect_timer, 30);
    EXPECT_FALSE(link.IsConnected());
}

TEST(GatewayList, IndexByNameAndParameters) {
    CHTCTL ctl(443);
    FakeSettings settings;
    settings.InstallIn(ctl);
    settings.text[{"HTTP", "Gateway_Name_1"}] = "alpha";
    settings.text[{"HTTP", "Gateway_Name_3"}] = "beta";
    settings.text[{"HTTP", "Gateway_WebProxy_3"}] = "proxy:8080";
    EXPECT_EQ(ctl.GetGatewayIndexFromName("ALPHA"), 1);
    EXPECT_EQ(ctl.GetGatewayIndexFromName("beta"), 0); // entry 2 is empty: the list ends
    char buf[32];
    memset(buf, 'x', sizeof buf);
    EXPECT_STREQ(ctl.GetGatewayParamFromIndex("Gateway_WebProxy", 3, buf, sizeof buf),
                 "proxy:8080");
    EXPECT_STREQ(ctl.GetGatewayParamFromIndex("Gateway", 2, buf, sizeof buf), "");
}

} // namespace

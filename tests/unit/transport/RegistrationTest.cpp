#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "host/MachineDetails.h"
#include "transport/TransportTimings.h"

namespace {

using transport_test::FakeSettings;
using transport_test::PairedLink;
using transport_test::RequestHeader;
using vel::CHTCTL;
using vel::CTL_HTTP_CONNECTION;

std::string HostName() {
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    return host;
}

std::string Mac() {
    std::string mac;
    vel::GetMachineMacAddress(mac, -1);
    return mac;
}

std::string Contents(const tagHTTP_BUF& buf) {
    return std::string(buf.data, size_t(buf.datalen));
}

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
        std::string text = Contents(request);
        FreeHttpBuf(&request);
        return text;
    }
    std::string Expected(const std::string& optional, const std::string& dept) {
        const std::string body = "CMD=OPEN\n"
                                 "CLIENT_VERSION=1.1\n"
                                 "PROTOCOL_VER=1.1\n"
                                 "MAXPACKET=928\n"
                                 "CLIENT_NAME=WS-0042\n"
                                 "CLIENT_ADDR=\n"
                                 "HOSTNAME=" +
                                 HostName() + "\nMACADDRESS=" + Mac() +
                                 "\nGSK=t6sKKe8nHq7fFpFo0OrcQAAA\n" + optional +
                                 "APPTYPE=256\nDEPT=" + dept + "\n";
        return RequestHeader("gw.example:443", body.size()) + body;
    }
};

TEST_F(Registration, EveryLineInOrder) {
    settings.text[{"client247", "CHATID"}] = "chat7";
    settings.text[{"client247", "A1"}] = "one";
    settings.text[{"client247", "A2"}] = "two";
    settings.text[{"client247", "A3"}] = "three";
    settings.text[{"client247", "A4"}] = "four";
    settings.text[{"HTTP", "*Dept"}] = "Accounts";
    EXPECT_EQ(Build(), Expected("CHATID=chat7\nA1=one\nA2=two\nA3=three\nA4=four\n", "Accounts"));
}

TEST_F(Registration, AnswersChainStopsAtTheFirstEmpty) {
    settings.text[{"client247", "A1"}] = "one";
    settings.text[{"client247", "A3"}] = "three";
    settings.text[{"client247", "A4"}] = "four";
    EXPECT_EQ(Build(), Expected("A1=one\n", ""));
    const std::vector<std::string> expected = {"client247/CHATID", "client247/A1", "client247/A2",
                                               "HTTP/*Dept"};
    EXPECT_EQ(settings.asked, expected); // A3 is never asked for
}

TEST_F(Registration, WithoutCallbackEverySettingIsEmpty) {
    ctl.m_callback = nullptr;
    EXPECT_EQ(Build(), Expected("", ""));
}

TEST_F(Registration, NegotiatedVersionIsAnnounced) {
    link.m_protocol_ver = 0x00000002; // after a gateway said "2.0"
    const std::string text = Build();
    EXPECT_NE(text.find("\nPROTOCOL_VER=2.0\n"), std::string::npos);
}

TEST(RegistrationWrite, FailedWriteDisconnectsAndArmsTheCountdown) {
    CHTCTL ctl(443);
    PairedLink paired(&ctl);
    close(paired.peer);
    paired.peer = -1;
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
    struct Case {
        const char* reply;
        DWORD version;
    } cases[] = {
        {"", 0x00010001}, // no PROTOCOL_VER: "1.1"
        {"PROTOCOL_VER=1.1\n", 0x00010001},
        {"PROTOCOL_VER=1.2\n", 0x00010001}, // newer gateway: ours stays
        {"PROTOCOL_VER=2.0\n", 0x00000002}, // minor weighs more: 2.0 < 1.1
        {"PROTOCOL_VER=9\n", 0x00000009},
        {"PROTOCOL_VER=0.5\n", 0x00010001}, // 0.5 packs as 1.5
        {"PROTOCOL_VER=1.0\n", 0x00000001},
    };
    for (const Case& c : cases) {
        CHTCTL ctl(443);
        CTL_HTTP_CONNECTION link("gw:1", "k", &ctl, nullptr);
        Body body(std::string("CMPI=1\n") + c.reply);
        ctl.OnOpenReply(body.m_buf, link);
        EXPECT_EQ(link.m_protocol_ver, c.version) << c.reply;
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
    EXPECT_EQ(paired.Drain(), RequestHeader("gw.example:443", 9) + "CMD=POLL\n");
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

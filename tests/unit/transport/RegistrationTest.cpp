#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "host/MachineDetails.h"
#include "transport/TransportTimings.h"
#include "transport/htctlframing.h"

namespace {

using transport_test::PairedLink;
using transport_test::Post;
using vel::CHTCTL;
using vel::CTL_HTTP_CONNECTION;

// The name given at creation is cut to 15 characters and upper-cased.
TEST(Registration, EveryLineInOrderAndTheAnswersChainStopsAtTheFirstEmpty) {
    CHTCTL ctl(vel::kDefaultGatewayPort);
    transport_test::App app;
    tagCTLCREATEPARAMS p = {};
    memcpy(p.name, "workstation-0042", 16); // 16 characters, no terminator
    p.slavetype = 1;                        // no gateway contacted
    p.callback = &transport_test::App::Callback;
    p.cbdata = &app;
    ASSERT_EQ(ctl.Create(&p), 0);
    ctl.m_slaveType = 256;
    CTL_HTTP_CONNECTION link("gw.example:443", "secretkey", &ctl, nullptr);
    app.text["CHATID"] = "chat7";
    app.text["A1"] = "one";
    app.text["A2"] = "two";
    app.text["A4"] = "four"; // A3 empty: the chain stops
    app.text["*Dept"] = "Accounts";

    vel::OutgoingMessage request(link);
    ctl.BuildOpenRequest(link, request);
    const std::string text = request.Text();
    char host[128] = {};
    gethostname(host, sizeof host - 1);
    std::string mac;
    vel::GetMachineMacAddress(mac, -1);
    EXPECT_EQ(text, Post("gw.example:443",
                         "CMD=OPEN\nCLIENT_VERSION=1.1\nPROTOCOL_VER=1.1\n"
                         "MAXPACKET=928\nCLIENT_NAME=WORKSTATION-004\nCLIENT_ADDR=\nHOSTNAME=" +
                             std::string(host) + "\nMACADDRESS=" + mac +
                             "\nGSK=t6sKKe8nHq7fFpFo0OrcQAAA\nCHATID=chat7\nA1=one\nA2=two\n"
                             "APPTYPE=256\nDEPT=Accounts\n"));
}

// Kept: the packed versions are compared, so the minor number weighs more.
// The other reply fields are stored only.
TEST(OpenReply, VersionNegotiationAndThePollPeriod) {
    CHTCTL ctl(vel::kDefaultGatewayPort);
    const std::pair<const char*, DWORD> versions[] = {
        {"", 0x00010001},                   // no PROTOCOL_VER: "1.1"
        {"PROTOCOL_VER=1.2\n", 0x00010001}, // newer gateway: ours stays
        {"PROTOCOL_VER=2.0\n", 0x00000002}, // 2.0 < 1.1
        {"PROTOCOL_VER=1.0\n", 0x00000001},
    };
    for (const auto& [reply, version] : versions) {
        CTL_HTTP_CONNECTION link("gw:1", "k", &ctl, nullptr);
        std::string body = std::string("CMPI=15\n") + reply + "\nCMPI=99\n";
        tagHTTP_BUF buf = {int(body.size()) + 1, int(body.size()), 0, &body[0]};
        ctl.OnOpenReply(buf, link);
        EXPECT_EQ(link.m_protocol_ver, version) << reply;
        EXPECT_EQ(link.m_comms_manage_pkt_period, 15000u) << "nothing after the empty line is read";
    }
}

// Any write on the link puts the next poll a whole period off.
TEST(KeepAliveCheck, PollsWhenDueUnlessWrittenAndReconnectsEveryThirtiethCheck) {
    CHTCTL ctl(vel::kDefaultGatewayPort);
    PairedLink paired(&ctl);
    paired.link.m_next_poll_time = vel::NowMs() - 1;
    ASSERT_EQ(paired.link.Write("x", 1), 0);
    ctl.CheckConnection(paired.link);
    EXPECT_EQ(paired.Drain(), "x");
    paired.link.m_next_poll_time = vel::NowMs() - 1;
    ctl.CheckConnection(paired.link);
    EXPECT_EQ(paired.Drain(), Post("gw.example:443", "CMD=POLL\n"));

    CTL_HTTP_CONNECTION link("127.0.0.1:1", "k", &ctl, nullptr); // refused at once
    ctl.m_ctltype = transport_test::kDaemonType;
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

} // namespace

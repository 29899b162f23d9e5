// The MESSAGE command into the notification block of callback code 1, and the
// MESSAGERECEIVED / MESSAGEACK reports on the first link.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"
#include "transport/yenc.h"

namespace {

using transport_test::PairedLink;
using transport_test::RequestHeader;
using vel::CHTCTL;

// What one code-1 callback carried, copied while it was valid.
struct Delivered {
    int code = 0;
    int transport = 0;
    int session = -1;
    std::string addr;
    std::string block;
    int datalen = 0;
    int messageid = 0;
    std::string sender;
};

struct Recorder {
    std::vector<Delivered> calls;
    static int Callback(int code, void* cbdata, CTL_CALLBACK* cb) {
        Delivered d;
        d.code = code;
        d.transport = cb->message.transport;
        d.session = cb->message.session;
        d.addr = cb->message.addr != nullptr ? cb->message.addr : "(null)";
        d.block.assign(reinterpret_cast<const char*>(cb->message.data),
                       size_t(cb->message.datalen));
        d.datalen = cb->message.datalen;
        d.messageid = cb->message.messageid;
        d.sender = cb->message.sender;
        static_cast<Recorder*>(cbdata)->calls.push_back(d);
        return 0;
    }
};

std::string Base64(const std::string& bytes) {
    char* text = Encode64(reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
    std::string out = text;
    free(text);
    return out;
}

struct Messages : ::testing::Test {
    CHTCTL ctl{443};
    PairedLink paired{&ctl, "127.0.0.1:8080"};
    Recorder recorder;

    void SetUp() override {
        ctl.m_callback = &Recorder::Callback;
        ctl.m_cbdata = &recorder;
        ctl.m_connections.push_back(&paired.link);
    }
    // The link belongs to the fixture, not to the transport.
    void TearDown() override { ctl.m_connections.clear(); }

    void Dispatch(const std::string& body) {
        std::vector<char> bytes(body.begin(), body.end());
        bytes.push_back('\0');
        ctl.ProcessMessageBody(bytes.data(), int(body.size()), paired.link);
    }
};

std::string Block(const std::string& senderField, const std::string& text) {
    std::string block("\x0c\x00", 2);
    std::string field = senderField;
    field.resize(16, '\0');
    return block + field + text + std::string(2, '\0');
}

TEST_F(Messages, MessageBecomesTheNotificationBlock) {
    const std::string text("hello\0"
                           "30|Notice\0"
                           "5\0",
                           18);
    const std::string sender20 = "ABCDEFGHIJKLMNOPQRST";
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
        {"sender of 20 keeps 15 in the block",
         "CMD=MESSAGE\nID=1\nSENDER=" + sender20 + "\nMSG=" + Base64("x") + "\n",
         // The encoder pads with zero bits, so one byte decodes as three.
         Block(sender20.substr(0, 15), std::string("x\0\0", 3)), 1, sender20},
        {"sender kept to 100", "CMD=MESSAGE\nSENDER=" + sender150 + "\nID=2\n",
         Block(sender150.substr(0, 15), ""), 2, sender150.substr(0, 100)},
        {"no ID is -1, no MSG an empty text", "CMD=MESSAGE\nSENDER=a\n", Block("a", ""), -1, "a"},
        {"last MSG wins, keywords in any case",
         "cmd=message\nmsg=" + Base64("first") + "\nMsg=" + Base64("second") + "\nid=-7\n",
         Block("", "second"), -7, ""},
        {"lines after the empty line are not read",
         "CMD=MESSAGE\nID=3\n\nID=4\nMSG=" + Base64("late") + "\n", Block("", ""), 3, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        recorder.calls.clear();
        Dispatch(c.body);
        ASSERT_EQ(recorder.calls.size(), 1u);
        const Delivered& d = recorder.calls[0];
        EXPECT_EQ(d.code, kCtlDataReceived);
        EXPECT_EQ(d.transport, 3);
        EXPECT_EQ(d.session, 0);
        EXPECT_EQ(d.addr, "");
        EXPECT_EQ(d.block, c.block);
        EXPECT_EQ(d.datalen, int(c.block.size()));
        EXPECT_EQ(d.messageid, c.id);
        EXPECT_EQ(d.sender, c.sender);
    }
    EXPECT_EQ(paired.Drain(), "") << "a message is not answered";
}

TEST_F(Messages, ReportsGoOutByteForByte) {
    const std::string host = "127.0.0.1:8080";
    const struct {
        const char* name;
        bool acknowledgement;
        int id;
        int flags;
        const char* user;
        std::string body;
    } cases[] = {
        {"receipt with user", false, 42, 0, "alice",
         "CMD=MESSAGERECEIVED\nID=42\nUF=0\nUN=alice\n"},
        {"receipt, null user", false, 7, 0, nullptr, "CMD=MESSAGERECEIVED\nID=7\nUF=0\n"},
        {"receipt, empty user", false, 7, 1, "", "CMD=MESSAGERECEIVED\nID=7\nUF=1\n"},
        {"ack with user", true, 42, 5, "bob", "CMD=MESSAGEACK\nID=42\nUF=5\nUN=bob\n"},
        {"ack, negative values signed", true, -1, -3, "", "CMD=MESSAGEACK\nID=-1\nUF=-3\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int result;
        if (c.acknowledgement) {
            tagCTL_MESSAGEACKNOWLEDGEDINFO info = {0, c.id, c.flags, c.user};
            result = ctl.MessageAcknowledged(&info);
        } else {
            tagCTL_MESSAGERECEIVEDINFO info = {0, c.id, c.flags, c.user};
            result = ctl.MessageReceived(&info);
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(paired.Drain(), RequestHeader(host, c.body.size()) + c.body);
    }
}

TEST_F(Messages, ReportsWithoutALinkSendNothing) {
    ctl.m_connections.clear();
    tagCTL_MESSAGERECEIVEDINFO received = {0, 1, 0, "alice"};
    tagCTL_MESSAGEACKNOWLEDGEDINFO acknowledged = {0, 1, 2, "alice"};
    EXPECT_EQ(ctl.MessageReceived(&received), 0);
    EXPECT_EQ(ctl.MessageAcknowledged(&acknowledged), 0);
    EXPECT_EQ(paired.Drain(), "");
}

TEST_F(Messages, ReportFromInsideAFileInfoCallbackDoesNotBlockOnTheListLock) {
    vel::CSingleLock held(&ctl.m_lock, TRUE); // as during callback code 16
    tagCTL_MESSAGERECEIVEDINFO info = {0, 9, 0, nullptr};
    EXPECT_EQ(ctl.MessageReceived(&info), 0);
    EXPECT_TRUE(ctl.m_lock.IsHeldByCurrentThread());
    const std::string body = "CMD=MESSAGERECEIVED\nID=9\nUF=0\n";
    EXPECT_EQ(paired.Drain(), RequestHeader("127.0.0.1:8080", body.size()) + body);
}

} // namespace

// Data frames and pausing on a transport whose one link is a socket pair: the
// frame form by protocol version, the broadcast walk, pause counting, and the
// bounds kept on received frames whatever their declared length.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "transport/htctl.h"
#include "transport/yenc.h"

namespace {

using vel::CHTCTL;

// A created transport (no gateway contacted) owning one paired link.
struct Harness {
    CHTCTL* ctl = new CHTCTL(443);
    vel::CTL_HTTP_CONNECTION* link = new vel::CTL_HTTP_CONNECTION("gw:1", "k", ctl, nullptr);
    int peer = -1;
    std::vector<std::string> received; // code 1 payloads, datalen bytes each

    Harness(int ctltype, int sessions) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        link->m_socket = fds[0];
        link->m_use_count = 1;
        peer = fds[1];
        tagCTLCREATEPARAMS p;
        memset(&p, 0, sizeof p);
        p.ctltype = ctltype;
        p.slavetype = 1;
        p.sessions = sessions;
        p.callback = &Harness::Callback;
        p.cbdata = this;
        EXPECT_EQ(ctl->Create(&p), 0);
        ctl->m_connections.push_back(link);
    }
    ~Harness() {
        delete ctl;
        close(peer);
    }
    static int Callback(int code, void* self, CTL_CALLBACK* cb) {
        if (code == kCtlDataReceived) {
            static_cast<Harness*>(self)->received.emplace_back(
                reinterpret_cast<const char*>(cb->data.data), size_t(cb->data.datalen));
        }
        return 0;
    }
    void Attach(int index, unsigned long id, unsigned char inuse) {
        CHTCTL::CTransportLocks locks(*ctl);
        ctl->m_sessions[index].Attach(link, id);
        ctl->m_sessions[index].m_inuse = inuse;
    }
    std::string Drain() {
        std::string out;
        char chunk[4096];
        ssize_t n;
        while ((n = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
            out.append(chunk, size_t(n));
        }
        return out;
    }
    // The session numbers of the frames written, in order.
    std::string SentIds() {
        const std::string sent = Drain();
        static const std::regex kId("\nCID=([0-9]+)");
        std::string ids;
        for (std::sregex_iterator it(sent.begin(), sent.end(), kId), end; it != end; ++it) {
            ids += (*it)[1].str() + " ";
        }
        return ids;
    }
};

TEST(DataFrames, FormFollowsTheLinksProtocolVersion) {
    const struct {
        DWORD version;
        const char* start;
    } cases[] = {{0x00010001, "NC_DATA\n"},
                 {0x00020001, "NC_DATA\n"},
                 {0x00010000, "POST "},
                 {0x00000002, "POST "}};
    for (const auto& c : cases) {
        Harness h(8, 2);
        h.Attach(0, 21, 1);
        h.link->m_protocol_ver = c.version;
        EXPECT_EQ(h.ctl->Send(1, "ab", 2), 0);
        EXPECT_EQ(h.Drain().rfind(c.start, 0), 0u) << std::hex << c.version;
        EXPECT_EQ(h.ctl->Send1(2, "ab", 2), -1); // no link
        EXPECT_EQ(h.ctl->Send1(3, "ab", 2), -1); // no such session
        EXPECT_EQ(h.ctl->Send1(0, "ab", 2), -1);
    }
}

// Sessions 1..5 carry ids 10..14, all established but number 3; the subset
// holds table places 0, 1 and 4, the omit map place 1. The walk never reaches
// the last number.
TEST(DataFrames, BroadcastWalksAllButTheLastSession) {
    const struct {
        int selector;
        int ctltype;
        const char* ids;
    } cases[] = {{0, 8, "10 11 13 "}, {-3, 8, "10 11 13 "}, {-4, 8, "10 11 "},    {-5, 8, "10 "},
                 {-4, -1, ""},        {-5, -1, ""},         {-9, -1, "10 11 13 "}};
    for (const auto& c : cases) {
        Harness h(c.ctltype, 5);
        for (int i = 0; i < 5; ++i) {
            h.Attach(i, 10u + unsigned(i), i == 2 ? 1 : 2);
        }
        unsigned char subset = 0x13;
        unsigned char omit = 0x02;
        CTL_SUBSET record = {1, &subset, &omit};
        h.ctl->Subset(&record);
        EXPECT_EQ(h.ctl->Send(c.selector, "x", 1), 0);
        EXPECT_EQ(h.SentIds(), c.ids) << c.selector << " " << c.ctltype;
    }
    Harness one(8, 1);
    one.Attach(0, 10, 2);
    EXPECT_EQ(one.ctl->Send(0, "x", 1), 0);
    EXPECT_EQ(one.Drain(), "");
}

TEST(Pause, CountsOncePerChangeAndOnlyForEstablishedSessions) {
    Harness h(8, 3);
    h.Attach(0, 10, 2);
    h.Attach(1, 11, 1);
    std::atomic<int>& paused = h.link->m_sessions_paused;
    EXPECT_EQ(h.ctl->Pause(1, true), 0);
    EXPECT_EQ(h.ctl->Pause(1, true), 0);
    EXPECT_EQ(paused.load(), 1);
    EXPECT_EQ(h.ctl->Pause(2, true), 0); // set up by the gateway: takes no part
    EXPECT_EQ(paused.load(), 1);
    EXPECT_EQ(h.ctl->Pause(0, true), -1);
    EXPECT_EQ(h.ctl->Pause(4, true), -1);
    h.ctl->Hangup(1); // a paused session's end releases its pause
    EXPECT_EQ(paused.load(), 0);
    EXPECT_EQ(h.ctl->Pause(1, false), 0);
    EXPECT_EQ(paused.load(), 0);
}

// Received frames of both forms on session id 21: the application never gets
// more than was decoded, and the type bytes act only on bytes that exist.
TEST(ReceivedFrames, DeclaredLengthIsBoundedByTheDecodedBytes) {
    std::string counted(15, 'c');
    counted[0] = 0x04;
    counted[14] = 6;
    const struct {
        std::string payload;
        std::string length; // as declared
        std::string delivered;
        int buffers;
    } cases[] = {
        {"\x01\x02\x03", "500", "\x01\x02\x03", 3},
        {"\x01\x02\x03", "2", "\x01\x02", 3},
        {"\x01\x02\x03", "-5", "", 3},
        {counted, "15", counted, 6},
        {counted, "14", counted.substr(0, 14), 3}, // offset 14 is not part of it
        {"\x5C\x01", "2", "-", 3},                 // dropped
    };
    for (bool bare : {true, false}) {
        for (const auto& c : cases) {
            Harness h(8, 1);
            h.Attach(0, 21, 1);
            const auto* bytes = reinterpret_cast<const unsigned char*>(c.payload.data());
            std::string body;
            if (bare) {
                char* text = nullptr;
                yEncode(bytes, int(c.payload.size()), &text);
                body = "CID=21\nSEQ=1\nCRC=0\nLEN=" + c.length + "\nDATA=" + text + "\n";
                free(text);
                EXPECT_EQ(h.ctl->ProcessNCData(&body[0], int(body.size()), *h.link), 1);
            } else {
                char* text = Encode64(bytes, int(c.payload.size()));
                body = "CONNECTION_ID=21\nNC_LEN=" + c.length + "\nNC_DATA=" + text + "\n";
                free(text);
                tagHTTP_BUF view = {int(body.size()) + 1, int(body.size()), 0, &body[0]};
                h.ctl->OnNCData(view, *h.link);
            }
            const std::vector<std::string> expected =
                c.delivered == "-" ? std::vector<std::string>() : std::vector{c.delivered};
            EXPECT_EQ(h.received, expected) << bare << " LEN=" << c.length;
            EXPECT_EQ(h.ctl->m_sessions[0].m_nbufs, c.buffers) << bare << " LEN=" << c.length;
        }
    }
}

} // namespace

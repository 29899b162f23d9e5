#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::FakeSettings;
using transport_test::PairedLink;
using transport_test::RequestHeader;
using vel::CHTCTL;

// The vtable slot a virtual member occupies (Itanium C++ ABI: a pointer to a
// virtual member holds 1 + its byte offset in the table).
template <class F> long Slot(F member) {
    struct {
        long ptr;
        long adj;
    } raw;
    static_assert(sizeof(member) == sizeof(raw), "Itanium member pointer");
    memcpy(&raw, &member, sizeof raw);
    return (raw.ptr - 1) / long(sizeof(void*));
}

TEST(Interface, SlotOrder) {
    EXPECT_EQ(Slot(&ICTL::Create), 2);
    EXPECT_EQ(Slot(&ICTL::Subset), 3);
    EXPECT_EQ(Slot(&ICTL::Send), 4);
    EXPECT_EQ(Slot(&ICTL::SendTo), 5);
    EXPECT_EQ(Slot(&ICTL::Hangup), 6);
    EXPECT_EQ(Slot(&ICTL::MaxPacketSize), 7);
    EXPECT_EQ(Slot(&ICTL::GetSessionAddress), 8);
    EXPECT_EQ(Slot(&ICTL::Call), 9);
    EXPECT_EQ(Slot(&ICTL::ReserveSession), 10);
    EXPECT_EQ(Slot(&ICTL::GetNumberOfActiveSessions), 11);
    EXPECT_EQ(Slot(&ICTL::GetNumberOfClientBuffers), 12);
    EXPECT_EQ(Slot(&ICTL::FindSlaves), 13);
    EXPECT_EQ(Slot(&ICTL::Escape), 14);
    EXPECT_EQ(Slot(&ICTL::Pause), 15);
    EXPECT_EQ(Slot(&ICTL::HelpRequestPending), 16);
    EXPECT_EQ(Slot(&ICTL::GetFailedReason), 17);
    EXPECT_EQ(Slot(&ICTL::NetworkInstalled), 18);
    EXPECT_EQ(Slot(&ICTL::AddDomain), 19);
}

tagCTLCREATEPARAMS Params(int ctltype, int slavetype, int sessions) {
    tagCTLCREATEPARAMS p;
    memset(&p, 0, sizeof p);
    p.cbSize = 64;
    memcpy(p.name, "workstation-0042", 16); // 16 characters, no terminator
    memcpy(p.serial, "ab12cd34ef5", 11);
    p.ctltype = ctltype;
    p.slavetype = slavetype;
    p.sessions = sessions;
    p.last_op = 9;
    return p;
}

TEST(Create, WithoutGatewayForOtherSlaveTypes) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 1, 10);
    EXPECT_EQ(ctl.Create(&p), 0);
    EXPECT_EQ(p.last_op, 0);
    EXPECT_STREQ(ctl.m_name, "WORKSTATION-004");
    EXPECT_STREQ(ctl.m_serial, "AB12CD34EF");
    EXPECT_EQ(ctl.m_ctltype, 8);
    EXPECT_EQ(ctl.m_slaveType, 1);
    EXPECT_TRUE(ctl.m_connections.empty());
    EXPECT_EQ(ctl.m_ready, 1);
    ASSERT_EQ(ctl.m_session_count, 10);
    EXPECT_EQ(ctl.m_sessions[0].m_session_id, 1);
    EXPECT_EQ(ctl.m_sessions[9].m_session_id, 10);
    CTL_SUBSET* subset = ctl.Subset(nullptr);
    EXPECT_EQ(subset->len, 2);
    ASSERT_NE(subset->subset, nullptr);
    ASSERT_NE(subset->omit, nullptr);
    EXPECT_EQ(subset->subset[0] | subset->subset[1] | subset->omit[0] | subset->omit[1], 0);
}

TEST(Create, NegativeCtlTypeHasNoBitmaps) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(-1, 1, 10);
    EXPECT_EQ(ctl.Create(&p), 0);
    CTL_SUBSET* subset = ctl.Subset(nullptr);
    EXPECT_EQ(subset->subset, nullptr);
    EXPECT_EQ(subset->omit, nullptr);
    unsigned char bits[2] = {0xFF, 0xFF};
    CTL_SUBSET mine = {2, bits, bits};
    EXPECT_EQ(ctl.Subset(&mine), subset); // nothing to copy into
}

TEST(Create, SubsetCopiesTheCallersBitmaps) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 1, 9);
    ctl.Create(&p);
    unsigned char on[4] = {0x81, 0x01, 0x77, 0x77};
    unsigned char off[4] = {0x02, 0x00, 0x77, 0x77};
    CTL_SUBSET mine = {4, on, off};
    CTL_SUBSET* subset = ctl.Subset(&mine);
    EXPECT_EQ(subset->subset[0], 0x81);
    EXPECT_EQ(subset->subset[1], 0x01);
    EXPECT_EQ(subset->omit[0], 0x02);
}

TEST(Sessions, ReserveRoundRobinAndEmptyTable) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 1, 3);
    ctl.Create(&p);
    EXPECT_EQ(ctl.ReserveSession(), 1);
    EXPECT_EQ(ctl.ReserveSession(), 2);
    ctl.m_sessions[0].m_inuse = 0;
    EXPECT_EQ(ctl.ReserveSession(), 3);
    EXPECT_EQ(ctl.ReserveSession(), 1); // wraps to the freed one
    EXPECT_EQ(ctl.ReserveSession(), 0);

    CHTCTL empty(443);
    tagCTLCREATEPARAMS none = Params(8, 1, 0);
    EXPECT_EQ(empty.Create(&none), 0);
    EXPECT_EQ(empty.ReserveSession(), 0);
    EXPECT_EQ(empty.GetNumberOfClientBuffers(0), 3);
    EXPECT_EQ(empty.GetNumberOfActiveSessions(), 0);
}

TEST(Sessions, BufferCountsAndActiveSessions) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 1, 4);
    ctl.Create(&p);
    ctl.m_sessions[0].m_inuse = 2;
    ctl.m_sessions[0].m_nbufs = 5;
    ctl.m_sessions[1].m_inuse = 2;
    ctl.m_sessions[1].m_nbufs = 2;
    ctl.m_sessions[2].m_inuse = 1;
    ctl.m_sessions[2].m_nbufs = 1;
    ctl.m_sessions[3].m_inuse = 1;
    ctl.m_sessions[3].m_inbound = 1;
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(1), 5);
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(3), 0); // not connected
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(5), 0); // past the table
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(0), 2); // smallest connected, from 3
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(-1), 2);
    EXPECT_EQ(ctl.GetNumberOfActiveSessions(), 3);
}

TEST(Sessions, SessionAddressIsStrncpy) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 1, 2);
    ctl.Create(&p);
    strcpy(ctl.m_sessions[1].m_addr, ">10.1.2.3/host");
    char buf[8];
    memset(buf, 'x', sizeof buf);
    ctl.GetSessionAddress(2, buf, sizeof buf);
    EXPECT_EQ(std::string(buf, sizeof buf), ">10.1.2.");
    ctl.GetSessionAddress(3, buf, sizeof buf);
    EXPECT_STREQ(buf, "");
}

TEST(Transport, ProcessWideInstance) {
    vel::release_ctl(nullptr); // none yet: nothing happens
    ICTL* first = vel::get_ctl();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(vel::get_ctl(), first);
    EXPECT_EQ(static_cast<CHTCTL*>(first)->m_port, 443);
    vel::release_ctl(first);
    vel::release_ctl(first);
}

// Sessions attached to a link that the transport owns; the test reads the
// link's peer socket.
struct AttachedSessions : ::testing::Test {
    FakeSettings settings;
    CHTCTL* ctl = new CHTCTL(443);
    vel::CTL_HTTP_CONNECTION* link =
        new vel::CTL_HTTP_CONNECTION("gw.example:443", "k", ctl, nullptr);
    int peer = -1;

    void SetUp() override {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        link->m_socket = fds[0];
        link->m_use_count = 1;
        peer = fds[1];
        tagCTLCREATEPARAMS p = Params(8, 1, 4);
        p.callback = &FakeSettings::Callback;
        p.cbdata = &settings;
        ctl->Create(&p);
        ctl->m_connections.push_back(link);
    }
    void TearDown() override {
        delete ctl;
        close(peer);
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
    static std::string Hangup(unsigned id) {
        const std::string body = "CMD=HANGUP\nCONNECTION_ID=" + std::to_string(id) + "\n";
        return RequestHeader("gw.example:443", body.size()) + body;
    }
};

TEST_F(AttachedSessions, DestructionHangsUpEverySessionWithoutCallbacks) {
    ctl->m_sessions[0].Attach(link, 11);
    ctl->m_sessions[2].Attach(link, 33);
    ctl->m_sessions[3].Attach(link, 0); // no gateway number: detached only
    settings.events.clear();
    delete ctl;
    ctl = nullptr;
    EXPECT_EQ(Drain(), Hangup(11) + Hangup(33));
    EXPECT_EQ(settings.Count(kCtlHungUp), 0);
}

TEST_F(AttachedSessions, HangupWritesAndUnlinksSilently) {
    ctl->m_sessions[1].Attach(link, 22);
    EXPECT_EQ(ctl->Hangup(2), 0);
    EXPECT_EQ(Drain(), Hangup(22));
    EXPECT_EQ(ctl->m_sessions[1].m_inuse, 0);
    EXPECT_EQ(ctl->m_sessions[1].m_connection, nullptr);
    EXPECT_EQ(settings.Count(kCtlHungUp), 0);
    EXPECT_EQ(ctl->Hangup(0), -1);
    EXPECT_EQ(ctl->Hangup(5), -1);
}

TEST_F(AttachedSessions, UnlinkNotifiesUnlessUnlinking) {
    ctl->m_sessions[2].Attach(link, 5);
    settings.events.clear();
    ctl->UnlinkSession(&ctl->m_sessions[2], true);
    ASSERT_EQ(settings.Count(kCtlHungUp), 1);
    const CTL_CALLBACK& cb = settings.events.back().second;
    EXPECT_EQ(cb.hungup.transport, 3);
    EXPECT_EQ(cb.hungup.session, ctl->m_sessions[2].m_session_id);
    ctl->m_bUnlinking = true;
    ctl->UnlinkSession(&ctl->m_sessions[2], true);
    EXPECT_EQ(settings.Count(kCtlHungUp), 1);
}

// Settled pairing of a lost link's clean-up: index i is checked, number i hung
// up, so the entry checked and the session hung up are one place apart.
TEST_F(AttachedSessions, LostLinkClearsWithTheSettledPairing) {
    ctl->m_sessions[0].Attach(link, 10); // index 0 is never checked
    ctl->m_sessions[2].Attach(link, 30); // checked at i = 2: number 2 hung up
    link->Disconnect();
    EXPECT_FALSE(link->IsConnected());
    EXPECT_EQ(ctl->m_sessions[0].m_inuse, 1);
    EXPECT_EQ(ctl->m_sessions[1].m_inuse, 0);
    EXPECT_EQ(ctl->m_sessions[2].m_inuse, 1);
    EXPECT_EQ(ctl->m_sessions[2].m_connection, link);
}

TEST(Locks, TakingAHeldLockTwiceAborts) {
    CHTCTL ctl(443);
    EXPECT_DEATH(
        {
            vel::CSingleLock one(&ctl.m_lock, TRUE);
            vel::CSingleLock two(&ctl.m_lock, TRUE);
        },
        "taken twice");
}

TEST(Locks, ListLockUnderTheTableLockAborts) {
    CHTCTL ctl(443);
    EXPECT_DEATH(
        {
            vel::CSingleLock table(&static_cast<ICTLCommon<vel::CTL_HTTP_SESSION>&>(ctl).m_lock,
                                   TRUE);
            CHTCTL::CTransportLocks both(ctl);
        },
        "under the session-table lock");
}

TEST(Locks, HeldLocksAreSkipped) {
    CHTCTL ctl(443);
    vel::CSingleLock list(&ctl.m_lock, TRUE);
    {
        CHTCTL::CTransportLocks both(ctl); // list held: takes only the table lock
        EXPECT_TRUE(
            static_cast<ICTLCommon<vel::CTL_HTTP_SESSION>&>(ctl).m_lock.IsHeldByCurrentThread());
    }
    EXPECT_TRUE(ctl.m_lock.IsHeldByCurrentThread());
    EXPECT_FALSE(
        static_cast<ICTLCommon<vel::CTL_HTTP_SESSION>&>(ctl).m_lock.IsHeldByCurrentThread());
}

} // namespace

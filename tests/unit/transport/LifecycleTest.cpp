#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::FakeSettings;
using transport_test::Post;
using vel::CHTCTL;
using SessionTable = ICTLCommon<vel::CTL_HTTP_SESSION>;

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
template <class... F> std::vector<long> Slots(F... members) {
    return {Slot(members)...};
}

TEST(Interface, SlotOrder) {
    const std::vector<long> slots =
        Slots(&ICTL::Create, &ICTL::Subset, &ICTL::Send, &ICTL::SendTo, &ICTL::Hangup,
              &ICTL::MaxPacketSize, &ICTL::GetSessionAddress, &ICTL::Call, &ICTL::ReserveSession,
              &ICTL::GetNumberOfActiveSessions, &ICTL::GetNumberOfClientBuffers, &ICTL::FindSlaves,
              &ICTL::Escape, &ICTL::Pause, &ICTL::HelpRequestPending, &ICTL::GetFailedReason,
              &ICTL::NetworkInstalled, &ICTL::AddDomain);
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[i], long(i) + 2) << "operation " << i;
    }
}

tagCTLCREATEPARAMS Params(int ctltype, int sessions) {
    tagCTLCREATEPARAMS p;
    memset(&p, 0, sizeof p);
    p.cbSize = 64;
    memcpy(p.name, "workstation-0042", 16); // 16 characters, no terminator
    memcpy(p.serial, "ab12cd34ef5", 11);
    p.ctltype = ctltype;
    p.slavetype = 1; // no gateway contacted
    p.sessions = sessions;
    p.last_op = 9;
    return p;
}

TEST(Create, WithoutGatewayForOtherSlaveTypes) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 9);
    EXPECT_EQ(ctl.Create(&p), 0);
    EXPECT_EQ(p.last_op, 0);
    EXPECT_STREQ(ctl.m_name, "WORKSTATION-004");
    EXPECT_STREQ(ctl.m_serial, "AB12CD34EF");
    EXPECT_EQ(ctl.m_ctltype, 8);
    EXPECT_EQ(ctl.m_slaveType, 1);
    EXPECT_TRUE(ctl.m_connections.empty());
    EXPECT_EQ(ctl.m_ready, 1);
    ASSERT_EQ(ctl.m_session_count, 9);
    EXPECT_EQ(ctl.m_sessions[0].m_session_id, 1);
    EXPECT_EQ(ctl.m_sessions[8].m_session_id, 9);
    CTL_SUBSET* subset = ctl.Subset(nullptr);
    EXPECT_EQ(subset->len, 2);
    ASSERT_NE(subset->subset, nullptr);
    ASSERT_NE(subset->omit, nullptr);
    EXPECT_EQ(subset->subset[0] | subset->subset[1] | subset->omit[0] | subset->omit[1], 0);
    // Only the transport's two bytes are copied from the caller's.
    unsigned char on[4] = {0x81, 0x01, 0x77, 0x77};
    unsigned char off[4] = {0x02, 0x00, 0x77, 0x77};
    CTL_SUBSET mine = {4, on, off};
    EXPECT_EQ(ctl.Subset(&mine), subset);
    EXPECT_EQ(subset->subset[0], 0x81);
    EXPECT_EQ(subset->subset[1], 0x01);
    EXPECT_EQ(subset->omit[0], 0x02);
}

TEST(Create, NegativeCtlTypeHasNoBitmaps) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(-1, 10);
    EXPECT_EQ(ctl.Create(&p), 0);
    CTL_SUBSET* subset = ctl.Subset(nullptr);
    EXPECT_EQ(subset->subset, nullptr);
    EXPECT_EQ(subset->omit, nullptr);
    unsigned char bits[2] = {0xFF, 0xFF};
    CTL_SUBSET mine = {2, bits, bits};
    EXPECT_EQ(ctl.Subset(&mine), subset); // nothing to copy into
}

TEST(Sessions, ReserveRoundRobinAndEmptyTable) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 3);
    ctl.Create(&p);
    EXPECT_EQ(ctl.ReserveSession(), 1);
    EXPECT_EQ(ctl.ReserveSession(), 2);
    ctl.m_sessions[0].m_inuse = 0;
    EXPECT_EQ(ctl.ReserveSession(), 3);
    EXPECT_EQ(ctl.ReserveSession(), 1); // wraps to the freed one
    EXPECT_EQ(ctl.ReserveSession(), 0);

    CHTCTL empty(443);
    tagCTLCREATEPARAMS none = Params(8, 0);
    EXPECT_EQ(empty.Create(&none), 0);
    EXPECT_EQ(empty.ReserveSession(), 0);
    EXPECT_EQ(empty.GetNumberOfClientBuffers(0), 3);
    EXPECT_EQ(empty.GetNumberOfActiveSessions(), 0);
}

TEST(Sessions, BufferCountsActiveSessionsAndAddresses) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = Params(8, 4);
    ctl.Create(&p);
    const int states[4][3] = {{2, 5, 0}, {2, 2, 0}, {1, 1, 0}, {1, 0, 1}}; // inuse, nbufs, inbound
    for (int i = 0; i < 4; ++i) {
        ctl.m_sessions[i].m_inuse = states[i][0];
        ctl.m_sessions[i].m_nbufs = states[i][1];
        ctl.m_sessions[i].m_inbound = states[i][2];
    }
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(1), 5);
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(3), 0); // not connected
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(5), 0); // past the table
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(0), 2); // smallest connected, from 3
    EXPECT_EQ(ctl.GetNumberOfClientBuffers(-1), 2);
    EXPECT_EQ(ctl.GetNumberOfActiveSessions(), 3);

    strcpy(ctl.m_sessions[1].m_addr, ">10.1.2.3/host");
    char buf[8];
    memset(buf, 'x', sizeof buf);
    ctl.GetSessionAddress(2, buf, sizeof buf);
    EXPECT_EQ(std::string(buf, sizeof buf), ">10.1.2.");
    ctl.GetSessionAddress(5, buf, sizeof buf);
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

// Sessions on a link that the transport owns; what it writes comes out at
// the link's peer.
TEST(Destruction, HangsUpEverySessionWithoutCallbacks) {
    FakeSettings settings;
    CHTCTL* ctl = new CHTCTL(443);
    auto* link = new vel::CTL_HTTP_CONNECTION("gw.example:443", "k", ctl, nullptr);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    link->m_socket = fds[0];
    link->m_use_count = 1;
    tagCTLCREATEPARAMS p = Params(8, 4);
    p.callback = &FakeSettings::Callback;
    p.cbdata = &settings;
    ctl->Create(&p);
    ctl->m_connections.push_back(link);

    ctl->m_sessions[0].Attach(link, 11);
    ctl->m_sessions[2].Attach(link, 33);
    ctl->m_sessions[3].Attach(link, 0); // no gateway number: detached only
    ctl->m_sessions[1].Attach(link, 5);
    ctl->UnlinkSession(&ctl->m_sessions[1], true); // outside destruction: reported
    ASSERT_EQ(settings.Count(kCtlHungUp), 1);
    EXPECT_EQ(settings.events.back().second.hungup.transport, 3);
    EXPECT_EQ(settings.events.back().second.hungup.session, 2);
    EXPECT_EQ(ctl->Hangup(0), -1);
    EXPECT_EQ(ctl->Hangup(5), -1);

    delete ctl;
    std::string written;
    char chunk[4096];
    ssize_t n;
    while ((n = recv(fds[1], chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
        written.append(chunk, size_t(n));
    }
    close(fds[1]);
    EXPECT_EQ(written, Post("gw.example:443", "CMD=HANGUP\nCONNECTION_ID=11\n") +
                           Post("gw.example:443", "CMD=HANGUP\nCONNECTION_ID=33\n"));
    EXPECT_EQ(settings.Count(kCtlHungUp), 1);
}

TEST(LocksDeathTest, WrongNestingAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CHTCTL ctl(443);
    EXPECT_DEATH(
        {
            vel::CSingleLock one(&ctl.m_lock, TRUE);
            vel::CSingleLock two(&ctl.m_lock, TRUE);
        },
        "taken twice");
    EXPECT_DEATH(
        {
            vel::CSingleLock table(&static_cast<SessionTable&>(ctl).m_lock, TRUE);
            CHTCTL::CTransportLocks both(ctl);
        },
        "under the session-table lock");
}

TEST(Locks, HeldLocksAreSkipped) {
    CHTCTL ctl(443);
    vel::CSingleLock list(&ctl.m_lock, TRUE);
    {
        CHTCTL::CTransportLocks both(ctl); // list held: takes only the table lock
        EXPECT_TRUE(static_cast<SessionTable&>(ctl).m_lock.IsHeldByCurrentThread());
    }
    EXPECT_TRUE(ctl.m_lock.IsHeldByCurrentThread());
    EXPECT_FALSE(static_cast<SessionTable&>(ctl).m_lock.IsHeldByCurrentThread());
}

} // namespace

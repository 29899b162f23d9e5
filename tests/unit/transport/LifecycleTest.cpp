#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::Harness;
using transport_test::Post;
using vel::CHTCTL;

// The vtable slots of virtual members (Itanium C++ ABI: a pointer to a
// virtual member holds 1 + its byte offset in the table).
template <class F> long Slot(F member) {
    long raw[2];
    memcpy(raw, &member, sizeof raw);
    return (raw[0] - 1) / long(sizeof(void*));
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

TEST(Create, NamesSessionsAndSubsetBitmaps) {
    CHTCTL ctl(443);
    tagCTLCREATEPARAMS p = {};
    memcpy(p.name, "workstation-0042", 16); // 16 characters, no terminator
    memcpy(p.serial, "ab12cd34ef5", 11);
    p.ctltype = 8;
    p.slavetype = 1; // no gateway contacted
    p.sessions = 9;
    EXPECT_EQ(ctl.Create(&p), 0);
    EXPECT_STREQ(ctl.m_name, "WORKSTATION-004");
    EXPECT_STREQ(ctl.m_serial, "AB12CD34EF");
    EXPECT_EQ(ctl.m_sessions[8].m_session_id, 9);
    // Only the transport's two bytes are copied from the caller's.
    unsigned char on[4] = {0x81, 0x01, 0x77, 0x77};
    unsigned char off[4] = {0x02, 0x00, 0x77, 0x77};
    CTL_SUBSET mine = {4, on, off};
    CTL_SUBSET* subset = ctl.Subset(&mine);
    EXPECT_EQ(subset->len, 2);
    EXPECT_EQ(subset->subset[0] | subset->subset[1] << 8 | subset->omit[0] << 16, 0x020181);

    Harness negative(-1, 0); // no bitmaps, an empty table
    subset = negative.ctl->Subset(&mine);
    EXPECT_TRUE(subset->subset == nullptr && subset->omit == nullptr);
    EXPECT_EQ(negative.ctl->ReserveSession(), 0);
    EXPECT_EQ(negative.ctl->GetNumberOfClientBuffers(0), 3);
}

TEST(Sessions, ReserveAndBufferCounts) {
    Harness h(8, 4);
    CHTCTL& ctl = *h.ctl;
    EXPECT_EQ(ctl.ReserveSession(), 1);
    EXPECT_EQ(ctl.ReserveSession(), 2);
    ctl.m_sessions[0].m_inuse = 0;
    EXPECT_EQ(ctl.ReserveSession(), 3);
    EXPECT_EQ(ctl.ReserveSession(), 4);
    EXPECT_EQ(ctl.ReserveSession(), 1); // wraps to the freed one
    EXPECT_EQ(ctl.ReserveSession(), 0);

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
    EXPECT_EQ(ctl.GetNumberOfActiveSessions(), 3);
}

std::string Hangup(unsigned id) {
    return Post("gw.example:443", "CMD=HANGUP\nCONNECTION_ID=" + std::to_string(id) + "\n");
}

// Settled pairing when a link's sessions are cleared (CLOSE, a lost link):
// entry i is checked and number i (entry i - 1) hung up, so the first entry
// is hung up only if the second is on the link, the last entry stays, and the
// step past the table matches nothing.
TEST(Sessions, CloseHangsUpWithTheSettledPairing) {
    Harness h(8, 3);
    for (int i = 0; i < 3; ++i) {
        h.Attach(i, 11u + unsigned(i), 1);
    }
    h.Dispatch("CMD=CLOSE\nANY=thing\n");
    EXPECT_EQ(h.Drain(), Hangup(11) + Hangup(12));
    EXPECT_EQ(h.ctl->m_sessions[0].m_inuse, 0);
    EXPECT_EQ(h.ctl->m_sessions[1].m_inuse, 0);
    EXPECT_EQ(h.ctl->m_sessions[2].m_connection_id, 13u);
    EXPECT_TRUE(h.app.Of(kCtlHungUp).empty());
}

TEST(Destruction, HangsUpEverySessionWithoutCallbacks) {
    Harness h(8, 4);
    h.Attach(0, 11, 1);
    h.Attach(2, 33, 1);
    h.Attach(3, 0, 1); // no gateway number: detached only
    delete h.ctl;
    h.ctl = nullptr;
    EXPECT_EQ(h.Drain(), Hangup(11) + Hangup(33));
    EXPECT_TRUE(h.app.Of(kCtlHungUp).empty());
}

} // namespace

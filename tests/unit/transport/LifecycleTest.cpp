#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TransportFixtures.h"

namespace {

using transport_test::Harness;
using transport_test::kControlType;
using transport_test::Post;
using vel::CHTCTL;

// Itanium C++ ABI: a pointer to a virtual member holds 1 + its vtable offset.
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

std::string Hangup(unsigned id) {
    return Post("gw.example:443", "CMD=HANGUP\nCONNECTION_ID=" + std::to_string(id) + "\n");
}

// Kept: the pairing when a link's sessions are cleared (CLOSE, a lost link):
// entry i is checked and number i (entry i - 1) hung up, so the first entry
// is hung up only if the second is on the link, the last entry stays, and the
// step past the table matches nothing.
TEST(Sessions, CloseHangsUpTheNumberBeforeEachEntryOnTheLink) {
    Harness h(kControlType, 3);
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
    Harness h(kControlType, 4);
    h.Attach(0, 11, 1);
    h.Attach(2, 33, 1);
    h.Attach(3, 0, 1); // no gateway number: detached only
    delete h.ctl;
    h.ctl = nullptr;
    EXPECT_EQ(h.Drain(), Hangup(11) + Hangup(33));
    EXPECT_TRUE(h.app.Of(kCtlHungUp).empty());
}

} // namespace

#include "threads/velthread.h"

#include <gtest/gtest.h>

namespace {

// Counts what a CSingleLock does to the object it guards.
class RecordingSync : public vel::CSyncObject {
public:
    BOOL Lock(DWORD dwTimeout) override {
        ++m_locks;
        m_lastTimeout = dwTimeout;
        return m_lockResult;
    }
    BOOL Unlock() override {
        ++m_unlocks;
        return m_unlockResult;
    }

    int m_locks = 0;
    int m_unlocks = 0;
    DWORD m_lastTimeout = 0;
    BOOL m_lockResult = TRUE;
    BOOL m_unlockResult = TRUE;
};

TEST(CSingleLock, DestructorUnlocksOnlyWhatItLocked) {
    for (BOOL initialLock : {FALSE, TRUE}) {
        RecordingSync sync;
        {
            vel::CSingleLock lock(&sync, initialLock);
            EXPECT_EQ(lock.IsLocked(), initialLock);
        }
        EXPECT_EQ(sync.m_locks, initialLock ? 1 : 0);
        EXPECT_EQ(sync.m_unlocks, initialLock ? 1 : 0);
        EXPECT_EQ(sync.m_lastTimeout, initialLock ? INFINITE : 0u);
    }
}

TEST(CSingleLock, UnlockTwiceUnlocksTheObjectOnce) {
    RecordingSync sync;
    vel::CSingleLock lock(&sync, FALSE);
    EXPECT_TRUE(lock.Lock(250));
    EXPECT_EQ(sync.m_lastTimeout, 250u);
    EXPECT_TRUE(lock.Unlock());
    EXPECT_TRUE(lock.Unlock());
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(sync.m_unlocks, 1);
}

TEST(CSingleLock, ResultsOfTheObjectDecideWhetherItIsHeld) {
    RecordingSync sync;
    sync.m_lockResult = FALSE;
    vel::CSingleLock lock(&sync, FALSE);
    EXPECT_FALSE(lock.Lock(INFINITE));
    EXPECT_FALSE(lock.IsLocked());

    sync.m_lockResult = TRUE;
    sync.m_unlockResult = FALSE;
    ASSERT_TRUE(lock.Lock(INFINITE));
    EXPECT_FALSE(lock.Unlock()); // still held
    EXPECT_TRUE(lock.IsLocked());
    sync.m_unlockResult = TRUE;
}

TEST(CCriticalSection, LockHoldsTheMutexUntilUnlock) {
    vel::CCriticalSection section;
    {
        vel::CSingleLock lock(&section, TRUE);
        EXPECT_NE(pthread_mutex_trylock(&section.m_crit_sec.mutex), 0);
    }
    ASSERT_EQ(pthread_mutex_trylock(&section.m_crit_sec.mutex), 0);
    pthread_mutex_unlock(&section.m_crit_sec.mutex);
}

class CSingleLockDeathTest : public testing::Test {
protected:
    // The suite has other threads about; re-run the binary instead of forking it.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    RecordingSync m_sync;
};

TEST_F(CSingleLockDeathTest, MisuseAbortsWithTheAssertionText) {
    EXPECT_DEATH(vel::CSingleLock(nullptr, FALSE),
                 "velthread:.*Assertion `pObject != __null' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, TRUE);
            lock.Lock(INFINITE);
        },
        "CSingleLock::Lock.*Assertion `!m_bAcquired' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, FALSE);
            lock.m_pObject = nullptr;
            lock.Lock(INFINITE);
        },
        "CSingleLock::Lock.*Assertion `m_pObject != __null' failed");
    EXPECT_DEATH(
        {
            vel::CSingleLock lock(&m_sync, FALSE);
            lock.m_pObject = nullptr;
            lock.Unlock();
        },
        "CSingleLock::Unlock.*Assertion `m_pObject != __null' failed");
}

} // namespace

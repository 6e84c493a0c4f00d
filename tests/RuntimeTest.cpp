#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "runtime/Lock.h"
#include "runtime/RWLock.h"
#include "tests/Support.h"

// These tests lock twice on one thread and unlock on another.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace tavrik {
namespace {

class RuntimeTest : public testing::Test {
  protected:
    void TearDown() override { join(); }

    // Returns when the thread sleeps in `rw`.
    void startBlocked(std::function<void()> body) {
        const unsigned before = rw.waitersForTesting();
        threads.emplace_back(std::move(body));
        while (rw.waitersForTesting() != before + 1)
            std::this_thread::yield();
    }
    void startBlockedReader(std::function<void()> body) {
        startBlocked([this, body = std::move(body)] {
            rw.readLock();
            body();
            rw.readUnlock();
        });
    }
    void startBlockedWriter(std::function<void()> body) {
        startBlocked([this, body = std::move(body)] {
            rw.writeLock();
            body();
            rw.writeUnlock();
        });
    }
    void join() {
        for (std::thread& thread : threads)
            thread.join();
        threads.clear();
    }

    // Tries a write lock and gives it back, so that a lock that should not be free hangs nobody.
    bool isFree() {
        const bool locked = rw.tryWriteLock();
        if (locked) rw.writeUnlock();
        return locked;
    }

    // The milliseconds that a call takes on the wall clock.
    static long timed(const std::function<void()>& call) {
        const auto start = std::chrono::system_clock::now();
        call();
        const auto passed = std::chrono::system_clock::now() - start;
        return static_cast<long>(passed / std::chrono::milliseconds(1));
    }

    Lock lock;
    RWLock rw;
    std::vector<std::thread> threads;
};

TEST_F(RuntimeTest, AGuardReleasesALockThatItRetook) {
    {
        LockGuard guard(lock);
        guard.unlock();
        guard.lock();
    }
    LockGuard other(lock);  // else it blocks
}

// The deadline's nanoseconds overflow into the next second. Without the carry, the wait would fail
// with a message or return at once.
TEST_F(RuntimeTest, ATimedWaitMayCrossASecond) {
    LockGuard guard(lock);
    testing::internal::CaptureStderr();
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const int delay = 2010 - static_cast<int>(sinceEpoch / std::chrono::milliseconds(1) % 1000);
    const long passed = timed([&] { lock.wait(delay); });
    EXPECT_GE(passed, delay - 1);
    EXPECT_LT(passed, delay + 900);
    lock.wait(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// A writer must not consume a reader's wake-up: the reader would go on sleeping while it counts as
// a reader, which keeps all writers out.
TEST_F(RuntimeTest, ReadersEnterTogetherAfterAWriter) {
    for (int trial = 0; trial < 200; ++trial) {
        std::atomic<int> inside{0};
        rw.writeLock();
        for (int pair = 0; pair < 2; ++pair) {
            startBlockedWriter([] {});
            startBlockedReader([&] {
                ++inside;
                while (inside < 2)
                    std::this_thread::yield();
            });
        }
        EXPECT_EQ(inside, 0);
        rw.writeUnlock();
        join();
    }
}

TEST_F(RuntimeTest, ReadersOvertakeAWaitingWriter) {
    std::atomic<int> holders{3};
    rw.readLock();
    rw.readLock();
    startBlockedWriter([&] { EXPECT_EQ(holders, 0); });
    EXPECT_TRUE(rw.tryReadLock());
    EXPECT_FALSE(isFree());
    while (holders > 0) {
        --holders;
        rw.readUnlock();
    }
    join();
}

TEST_F(RuntimeTest, ASurplusUnlockLeavesTheCountsAtZero) {
    rw.readUnlock();
    EXPECT_TRUE(rw.tryWriteLock());
    EXPECT_FALSE(rw.tryReadLock());
    EXPECT_FALSE(isFree());
    rw.writeUnlock();
    EXPECT_TRUE(rw.tryReadLock());
}

TEST_F(RuntimeTest, PromotionWaitsForTheOtherReaders) {
    rw.readLock();
    rw.readLock();
    std::atomic<bool> promoted{false};
    startBlocked([&] {
        rw.promoteToWriteLock();
        promoted = true;
        EXPECT_FALSE(rw.tryReadLock());
        rw.writeUnlock();
    });
    EXPECT_FALSE(promoted);
    rw.readUnlock();
    join();
    EXPECT_TRUE(isFree());
}

TEST_F(RuntimeTest, DemotionWakesNoWaiter) {
    std::atomic<bool> entered{false};
    rw.writeLock();
    startBlockedReader([&] { entered = true; });
    rw.demoteToReadLock();
    rw.readerWait(50);  // would let a woken reader enter
    EXPECT_TRUE(rw.tryReadLock());
    rw.readUnlock();
    rw.readUnlock();
    EXPECT_FALSE(isFree());
    EXPECT_FALSE(entered);
    rw.writeUnlock();
    join();
    EXPECT_TRUE(entered);
}

TEST_F(RuntimeTest, PublicWaitsRetakeTheLock) {
    bool changed = false;
    startBlockedReader([&] {
        rw.readerWait();
        EXPECT_TRUE(changed);
        EXPECT_FALSE(isFree());
    });
    startBlockedWriter([&] {
        rw.writerWait();
        EXPECT_TRUE(changed);
        EXPECT_FALSE(rw.tryReadLock());
    });
    EXPECT_TRUE(rw.tryWriteLock());
    changed = true;
    rw.notify();
    rw.writeUnlock();
    while (rw.waitersForTesting() != 1)
        std::this_thread::yield();
    rw.notifyAll();
    join();
}

TEST_F(RuntimeTest, ANotificationEndsATimedWait) {
    startBlockedReader([&] {
        rw.readerWait(1000000);
        EXPECT_GE(timed([&] { rw.readerWait(30); }), 29) << "it ends one wait";
    });
    rw.notify();
    join();
}

TEST_F(RuntimeTest, ANotificationWithoutAWaiterEndsNoWait) {
    rw.notifyAll();
    rw.readLock();
    EXPECT_GE(timed([&] { rw.readerWait(30); }), 29);
    EXPECT_FALSE(isFree());
    rw.readUnlock();
}

TEST_F(RuntimeTest, WritersExcludeEverybodyUnderLoad) {
    int left = 0;
    int right = 0;
    inParallel(8, [&](int thread) {
        for (int i = 0; i < 300; ++i) {
            const int turn = (thread + i) % 4;
            if (turn == 0) rw.readLock();
            if (turn == 1) rw.writeLock(), rw.notify();
            if (turn == 2) rw.readLock(), rw.promoteToWriteLock(), rw.writerWait(1);
            while (turn == 3 && !rw.tryWriteLock())
                std::this_thread::yield();
            EXPECT_EQ(left, right);
            if (turn != 0) ++left, ++right;
            turn == 0 ? rw.readUnlock() : rw.writeUnlock();
        }
    });
    EXPECT_EQ(left, 8 * 300 * 3 / 4);
    EXPECT_EQ(right, left);
}

}  // namespace
}  // namespace tavrik

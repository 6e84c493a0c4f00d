#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "runtime/Lock.h"
#include "runtime/RWLock.h"

// These tests lock twice on one thread and unlock on another.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace tavrik {
namespace {

using std::chrono::milliseconds;
using WallClock = std::chrono::system_clock;

class RuntimeTest : public testing::Test {
  protected:
    void TearDown() override { join(); }

    void start(std::function<void()> body) { threads.emplace_back(std::move(body)); }
    // start(), but returns when the thread sleeps in `rw`.
    void startBlocked(std::function<void()> body) {
        const unsigned before = rw.waitersForTesting();
        start(std::move(body));
        while (rw.waitersForTesting() == before)
            std::this_thread::yield();
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

    RWLock rw;
    std::vector<std::thread> threads;
};

// The deadline's nanoseconds overflow into the next second. Without the carry, the wait would fail
// with a message or return at once.
TEST_F(RuntimeTest, ATimedWaitMayCrossASecond) {
    Lock lock;
    {
        LockGuard guard(lock);
        guard.unlock();
        guard.lock();
    }
    LockGuard guard(lock);
    testing::internal::CaptureStderr();
    const WallClock::time_point start = WallClock::now();
    const auto sinceEpoch = std::chrono::duration_cast<milliseconds>(start.time_since_epoch());
    const int delay = 2010 - static_cast<int>(sinceEpoch.count() % 1000);
    lock.wait(delay);
    EXPECT_GE(WallClock::now() - start, milliseconds(delay - 1));
    EXPECT_LT(WallClock::now() - start, milliseconds(delay + 900));
    lock.wait(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// A writer must not consume a reader's wake-up: the reader would go on sleeping while it counts as
// a reader, which keeps all writers out.
TEST_F(RuntimeTest, ReadersEnterTogetherAfterAWriter) {
    for (int trial = 0; trial < 200; ++trial) {
        std::atomic<int> inside{0};
        rw.writeLock();
        for (int i = 0; i < 4; ++i)
            startBlocked([&, i] {
                if (i % 2 == 0) {
                    rw.writeLock();
                    rw.writeUnlock();
                } else {
                    rw.readLock();
                    ++inside;
                    while (inside < 2)
                        std::this_thread::yield();
                    rw.readUnlock();
                }
            });
        EXPECT_EQ(inside, 0);
        rw.writeUnlock();
        join();
    }
}

TEST_F(RuntimeTest, ReadersOvertakeAWaitingWriter) {
    std::atomic<int> holders{2};
    rw.readLock();
    rw.readLock();
    startBlocked([&] {
        rw.writeLock();
        EXPECT_EQ(holders, 0);
        rw.writeUnlock();
    });
    ++holders;
    EXPECT_TRUE(rw.tryReadLock());
    EXPECT_FALSE(isFree());
    while (holders > 0) {
        --holders;
        rw.readUnlock();
    }
    join();

    // A surplus unlock leaves the counts at zero.
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
    startBlocked([&] {
        rw.readLock();
        entered = true;
        rw.readUnlock();
    });
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
    startBlocked([&] {
        rw.readLock();
        rw.readerWait();
        EXPECT_TRUE(changed);
        EXPECT_FALSE(isFree());
        rw.readUnlock();
    });
    startBlocked([&] {
        rw.writeLock();
        rw.writerWait();
        EXPECT_TRUE(changed);
        EXPECT_FALSE(rw.tryReadLock());
        rw.writeUnlock();
    });
    EXPECT_TRUE(rw.tryWriteLock());
    changed = true;
    rw.notify();
    rw.writeUnlock();
    while (rw.waitersForTesting() != 1)
        std::this_thread::yield();
    rw.notifyAll();
    join();
    startBlocked([&] {
        rw.readLock();
        rw.readerWait(1000000);
        rw.readUnlock();
    });
    rw.notify();
    join();

    rw.notifyAll();  // nobody waits: must not end the wait below
    rw.readLock();
    const WallClock::time_point start = WallClock::now();
    rw.readerWait(30);
    EXPECT_GE(WallClock::now() - start, milliseconds(29));
    EXPECT_FALSE(isFree());
    rw.readUnlock();
}

TEST_F(RuntimeTest, WritersExcludeEverybodyUnderLoad) {
    int left = 0;
    int right = 0;
    for (int thread = 0; thread < 8; ++thread)
        start([&, thread] {
            for (int i = 0; i < 300; ++i) {
                const int turn = (thread + i) % 4;
                if (turn == 0) {
                    rw.readLock();
                    EXPECT_EQ(left, right);
                    rw.readUnlock();
                    continue;
                }
                if (turn == 1) rw.writeLock(), rw.notify();
                if (turn == 2) rw.readLock(), rw.promoteToWriteLock(), rw.writerWait(1);
                while (turn == 3 && !rw.tryWriteLock())
                    std::this_thread::yield();
                ++left, ++right;
                rw.writeUnlock();
            }
        });
    join();
    EXPECT_EQ(left, 8 * 300 * 3 / 4);
    EXPECT_EQ(right, left);
}

}  // namespace
}  // namespace tavrik

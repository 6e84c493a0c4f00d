#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/Lock.h"

namespace tavrik {

// A reader/writer lock with a condition of its own on which holders can sleep ("public" waits).
//
// Prefers readers: a reader enters whenever no writer holds the lock, so a steady stream of readers
// starves writers. Not re-entrant: a thread that holds the write lock and asks for either lock
// deadlocks.
//
// Threads: any thread may call any operation. Waiting threads hold no mutex of this class.
// Ownership: embedded in the object it guards. No thread may hold it or wait on it when it is
// destroyed.
//
// Operations do not fail. Unlocking an unlocked lock keeps the counts at zero, but writeUnlock()
// always ends the write lock.
class TAVRIK_CAPABILITY("rwlock") RWLock {
  public:
    RWLock() = default;
    virtual ~RWLock() = default;
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;

    // Wait until no writer holds the lock; until nobody does.
    void readLock() TAVRIK_ACQUIRE_SHARED() {
        if (!tryReadLock()) awaitReadLock();
    }
    void writeLock() TAVRIK_ACQUIRE();

    // Release the lock. The last reader wakes one writer. A writer wakes all threads that wait at
    // that moment; the readers among them enter together.
    void readUnlock() TAVRIK_RELEASE_SHARED() {
        uint32_t now = state.load(std::memory_order_relaxed);
        while ((now & kReaders) != 0 && (now & kWriters) == 0) {
            if (exchange(now, now - 1)) return;
        }
        readUnlockForWriters();
    }
    void writeUnlock() TAVRIK_RELEASE();

    // Take the lock and return true, unless that would block. Waiting writers do not block a read
    // lock. Waiting readers do block a write lock.
    bool tryReadLock() TAVRIK_TRY_ACQUIRE_SHARED(true) {
        uint32_t now = state.load(std::memory_order_relaxed);
        while ((now & kWriteLocked) == 0) {
            if (exchange(now, now + 1)) return true;
        }
        return false;
    }
    bool tryWriteLock() TAVRIK_TRY_ACQUIRE(true);

    // Exchanges the caller's read lock for the write lock. Not atomic: it wakes nobody and queues
    // like any writer. Another writer may get in between, so check again what was read under the
    // read lock.
    void promoteToWriteLock() TAVRIK_RELEASE_SHARED() TAVRIK_ACQUIRE();

    // Exchanges the caller's write lock for a read lock. Wakes nobody: waiting threads sleep until
    // an unlock that wakes them. Waiting readers count as readers, so the readUnlock() that follows
    // does not wake them, and no writer gets in.
    void demoteToReadLock() TAVRIK_RELEASE() TAVRIK_ACQUIRE_SHARED();

    // For a holder of the read or the write lock: release it as unlocking does, sleep until a
    // notification, take the lock again. With `milliseconds` (0 or more), may also wake without a
    // notification, at the latest after that time; test the condition. The time limits the sleep,
    // not the taking of the lock.
    void readerWait() TAVRIK_REQUIRES_SHARED(this);
    void readerWait(int milliseconds) TAVRIK_REQUIRES_SHARED(this);
    void writerWait() TAVRIK_REQUIRES(this);
    void writerWait(int milliseconds) TAVRIK_REQUIRES(this);

    // Wake one thread, or all, in readerWait() and writerWait(). Do nothing if there is none. Any
    // thread. Change what a thread waits for under the write lock, so that no waiter misses the
    // change. A notification does not belong to a thread: an unused one ends the next wait.
    void notify();
    void notifyAll();

    // The number of threads that sleep in the operations above.
    unsigned waitersForTesting();

  private:
    // A thread that waits for the lock, with its ticket. On that thread's stack. Guarded by `lock`.
    struct PrivateWaiter {
        bool granted = false;
        PrivateWaiter* next = nullptr;
    };

    // Bits of the state: the number of threads that hold the read lock or wait for it; whether any
    // thread holds the write lock or waits for it; whether one holds it.
    static constexpr uint32_t kReaders = 0x3FFFFFFF;
    static constexpr uint32_t kWriters = 0x40000000;
    static constexpr uint32_t kWriteLocked = 0x80000000;

    // Replaces the state if it is `now`, else reads it into `now`.
    bool exchange(uint32_t& now, uint32_t next) {
        return state.compare_exchange_weak(now, next, std::memory_order_acq_rel,
                                           std::memory_order_relaxed);
    }
    bool isWriteLocked() const {
        return (state.load(std::memory_order_acquire) & kWriteLocked) != 0;
    }
    bool isRead() const { return (state.load(std::memory_order_acquire) & kReaders) != 0; }

    void awaitReadLock() TAVRIK_EXCLUDES(lock);
    void readUnlockForWriters() TAVRIK_EXCLUDES(lock);
    // Takes the write lock if nobody holds any.
    bool takeIfFree() TAVRIK_REQUIRES(lock);
    void countWriters(int difference) TAVRIK_REQUIRES(lock);

    void _readLock() TAVRIK_REQUIRES(lock);
    void _writeLock() TAVRIK_REQUIRES(lock);
    void _readUnlock(bool notify) TAVRIK_REQUIRES(lock);
    void _writeUnlock(bool notify) TAVRIK_REQUIRES(lock);

    // Waits for this thread's ticket.
    void privateWait() TAVRIK_REQUIRES(lock);
    // Give a ticket to the longest-waiting thread without one, or to all waiting threads. Threads
    // that come later get none of these tickets.
    void privateNotify() TAVRIK_REQUIRES(lock);
    void privateNotifyAll() TAVRIK_REQUIRES(lock);

    void publicWait() TAVRIK_REQUIRES(lock);
    void publicWait(int milliseconds) TAVRIK_REQUIRES(lock);
    void publicNotify() TAVRIK_REQUIRES(lock);
    void publicNotifyAll() TAVRIK_REQUIRES(lock);

    // Guards every field but the count of readers, and is the mutex of the one condition on which
    // all waits of this object sleep; that is why each wake-up is a broadcast. Innermost: held for
    // short steps only, and never by a thread that has returned from one of the operations above.
    Lock lock;

    // Readers come and go without `lock` while there are no writers. They change their count
    // together with a look at the two flags, so a writer that has set its flag misses none of them.
    std::atomic<uint32_t> state{0};

    // Threads that hold the write lock or wait for it.
    uint16_t writers TAVRIK_GUARDED_BY(lock) = 0;

    // The threads in privateWait(), the longest-waiting one first.
    PrivateWaiter* privateWaiters TAVRIK_GUARDED_BY(lock) = nullptr;

    // Threads in publicWait(), and notifications given to them and not yet consumed.
    uint16_t publicWaiters TAVRIK_GUARDED_BY(lock) = 0;
    uint16_t publicWakeups TAVRIK_GUARDED_BY(lock) = 0;
};

// Hold an RWLock for a scope, shared or alone, and give it back also when an exception passes.
class TAVRIK_SCOPED_CAPABILITY ReadGuard {
  public:
    explicit ReadGuard(RWLock& guarded) TAVRIK_ACQUIRE_SHARED(guarded) : lock(guarded) {
        lock.readLock();
    }
    ~ReadGuard() TAVRIK_RELEASE() { lock.readUnlock(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

  private:
    RWLock& lock;
};

class TAVRIK_SCOPED_CAPABILITY WriteGuard {
  public:
    explicit WriteGuard(RWLock& guarded) TAVRIK_ACQUIRE(guarded) : lock(guarded) {
        lock.writeLock();
    }
    ~WriteGuard() TAVRIK_RELEASE() { lock.writeUnlock(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

  private:
    RWLock& lock;
};

}  // namespace tavrik

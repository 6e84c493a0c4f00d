#pragma once

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
    void readLock() TAVRIK_ACQUIRE_SHARED();
    void writeLock() TAVRIK_ACQUIRE();

    // Release the lock. The last reader wakes one writer. A writer wakes all threads that wait at
    // that moment; the readers among them enter together.
    void readUnlock() TAVRIK_RELEASE_SHARED();
    void writeUnlock() TAVRIK_RELEASE();

    // Take the lock and return true, unless that would block. Waiting writers do not block a read
    // lock. Waiting readers do block a write lock.
    bool tryReadLock() TAVRIK_TRY_ACQUIRE_SHARED(true);
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

    // Guards every field, and is the mutex of the one condition on which all waits of this object
    // sleep; that is why each wake-up is a broadcast. Innermost: held for short steps only, and
    // never by a thread that has returned from one of the operations above.
    Lock lock;

    // Threads that hold the read lock or wait for it; threads that hold the write lock or wait.
    uint16_t readers TAVRIK_GUARDED_BY(lock) = 0;
    uint16_t writers TAVRIK_GUARDED_BY(lock) = 0;

    // The threads in privateWait(), the longest-waiting one first.
    PrivateWaiter* privateWaiters TAVRIK_GUARDED_BY(lock) = nullptr;

    // Threads in publicWait(), and notifications given to them and not yet consumed.
    uint16_t publicWaiters TAVRIK_GUARDED_BY(lock) = 0;
    uint16_t publicWakeups TAVRIK_GUARDED_BY(lock) = 0;

    bool writeLocked TAVRIK_GUARDED_BY(lock) = false;
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

#pragma once

#include <cstdint>

#include "runtime/Lock.h"

namespace tavrik {

// A lock that many readers or one writer hold, with a condition of its own on which holders can
// sleep ("public" waits).
//
// Readers are preferred: a reader enters whenever no writer holds the lock, so a steady stream of
// readers starves writers. Not re-entrant: a thread that holds the write lock and asks for either
// lock waits for ever.
//
// Threads: every operation may be called on any thread. A thread that waits here holds no mutex of
// this class. Ownership: embedded in the object it guards; nobody may hold it or wait on it when it
// is destroyed.
//
// There is no failure: unlocking what is not locked leaves the counts at zero (but writeUnlock()
// always ends the write lock).
class TAVRIK_CAPABILITY("rwlock") RWLock {
  public:
    RWLock() = default;
    virtual ~RWLock() = default;
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;

    // Wait until no writer holds the lock; until nobody does.
    void readLock() TAVRIK_ACQUIRE_SHARED();
    void writeLock() TAVRIK_ACQUIRE();

    // Give the lock up and wake who can use it: the last reader one writer, a writer everybody who
    // is waiting at that moment (the readers among them enter together).
    void readUnlock() TAVRIK_RELEASE_SHARED();
    void writeUnlock() TAVRIK_RELEASE();

    // Take the lock if that needs no waiting, and tell whether it was taken. A read lock is not
    // refused because of writers that wait. A write lock is refused also where readers only wait.
    bool tryReadLock() TAVRIK_TRY_ACQUIRE_SHARED(true);
    bool tryWriteLock() TAVRIK_TRY_ACQUIRE(true);

    // For a holder of a read lock, who ends up with the write lock. Not atomic: wakes nobody and
    // queues as any writer, so another one may get in between, and what was read under the read
    // lock is to be looked at again.
    void promoteToWriteLock() TAVRIK_RELEASE_SHARED() TAVRIK_ACQUIRE();

    // For the holder of the write lock, who ends up with a read lock. Wakes nobody: threads that
    // were waiting sleep on until an unlock that wakes them. Beware: waiting readers count as
    // readers, so the readUnlock() that follows is not such an unlock, and no writer gets in.
    void demoteToReadLock() TAVRIK_RELEASE() TAVRIK_ACQUIRE_SHARED();

    // For a holder of the read lock or of the write lock: give it up as unlocking does, sleep until
    // a notification, take the lock again. With `milliseconds` (0 or more) also return without a
    // notification, after that time or earlier; nothing tells which, so the caller tests its own
    // condition. The time counts for the sleep alone, not for taking the lock again.
    void readerWait() TAVRIK_REQUIRES_SHARED(this);
    void readerWait(int milliseconds) TAVRIK_REQUIRES_SHARED(this);
    void writerWait() TAVRIK_REQUIRES(this);
    void writerWait(int milliseconds) TAVRIK_REQUIRES(this);

    // Wake one or all of the threads in readerWait() and writerWait(); with nobody there, do
    // nothing. Any thread may call them, and whoever changes what a thread waits for does that
    // under the write lock, so that no waiter misses it. A notification belongs to no thread in
    // particular: one that is left over, or not yet used, ends the wait of the next who comes.
    void notify();
    void notifyAll();

    // How many threads sleep in any of the operations above.
    unsigned waitersForTesting();

  private:
    // A thread that waits to get the lock: lives on that thread's stack while it waits, and holds
    // its ticket. Guarded by `lock`.
    struct PrivateWaiter {
        bool granted = false;
        PrivateWaiter* next = nullptr;
    };

    void _readLock() TAVRIK_REQUIRES(lock);
    void _writeLock() TAVRIK_REQUIRES(lock);
    void _readUnlock(bool notify) TAVRIK_REQUIRES(lock);
    void _writeUnlock(bool notify) TAVRIK_REQUIRES(lock);

    // Wait for a ticket of this thread's own.
    void privateWait() TAVRIK_REQUIRES(lock);
    // Give a ticket to the thread that has waited longest without one, or to all that wait now. A
    // thread that comes later never gets a ticket that was given before.
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

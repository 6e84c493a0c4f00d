#pragma once

#include <pthread.h>

#include "runtime/ThreadAnnotations.h"

namespace tavrik {

// A mutex with one condition, so that one object serves as a critical section and as a monitor.
//
// Threads: every operation may be called on any thread. Not recursive: a thread that locks twice
// deadlocks. Ownership: embedded in the object it guards; nobody may hold it or wait on it when it
// is destroyed.
//
// A failing pthread call is printed with perror ("pthread_mutex_lock() error" and the like) and
// otherwise ignored; nothing is thrown and nothing is returned.
class TAVRIK_CAPABILITY("mutex") Lock {
  public:
    Lock();
    virtual ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() TAVRIK_ACQUIRE();
    void unlock() TAVRIK_RELEASE();

    // Gives the lock up, sleeps until a notification and takes the lock again. May also return
    // without one, so the caller tests its own condition in a loop.
    void wait() TAVRIK_REQUIRES(this);

    // As wait(), but for `milliseconds` (0 or more) at most. The deadline stands on the wall clock:
    // a clock step lengthens or shortens the wait. Does not tell a time-out from a notification.
    void wait(int milliseconds) TAVRIK_REQUIRES(this);

    // Wake one waiter or all of them. The lock need not be held, but a waiter can miss a
    // notification that is sent without it.
    void notify();
    void notifyAll();

  private:
    pthread_mutex_t mutex;
    pthread_cond_t condition;
};

// Holds a Lock for a scope, and gives it back also when an exception passes. May be opened and
// closed again in between with unlock() and lock(); used by one thread only.
class TAVRIK_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Lock& guarded) TAVRIK_ACQUIRE(guarded) : lock_(guarded), held_(true) {
        lock_.lock();
    }
    ~LockGuard() TAVRIK_RELEASE() {
        if (held_) lock_.unlock();
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

    void lock() TAVRIK_ACQUIRE() {
        lock_.lock();
        held_ = true;
    }
    void unlock() TAVRIK_RELEASE() {
        held_ = false;
        lock_.unlock();
    }

  private:
    Lock& lock_;
    bool held_;
};

// Gives a held Lock up for a scope and takes it again at the end, also when an exception passes.
// The thread-safety analysis does not see it and takes the lock as held throughout, so nothing
// guarded may be touched in that scope.
class LockRelease {
  public:
    explicit LockRelease(Lock& held) TAVRIK_NO_THREAD_SAFETY_ANALYSIS : lock(held) {
        lock.unlock();
    }
    ~LockRelease() TAVRIK_NO_THREAD_SAFETY_ANALYSIS { lock.lock(); }
    LockRelease(const LockRelease&) = delete;
    LockRelease& operator=(const LockRelease&) = delete;

  private:
    Lock& lock;
};

// Keeps a flag true for a scope, so that others who wait for it on `lock` stay out while the lock
// itself is free (see LockRelease); lets them all on at the end. Made and ended with `lock` held.
class BusyFlag {
  public:
    BusyFlag(bool& guardedFlag, Lock& guardingLock) : flag(guardedFlag), lock(guardingLock) {
        flag = true;
    }
    ~BusyFlag() {
        flag = false;
        lock.notifyAll();
    }
    BusyFlag(const BusyFlag&) = delete;
    BusyFlag& operator=(const BusyFlag&) = delete;

  private:
    bool& flag;
    Lock& lock;
};

}  // namespace tavrik

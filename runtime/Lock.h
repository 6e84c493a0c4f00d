#pragma once

#include <pthread.h>

#include "runtime/ThreadAnnotations.h"

namespace tavrik {

// A mutex with one condition variable: a critical section and a monitor in one object.
//
// Threads: any thread may call any operation. Not recursive: locking twice deadlocks. Ownership:
// embedded in the object it guards. No thread may hold it or wait on it when it is destroyed.
//
// Prints a failing pthread call with perror ("pthread_mutex_lock() error" and so on) and otherwise
// ignores it. Throws and returns nothing.
class TAVRIK_CAPABILITY("mutex") Lock {
  public:
    Lock();
    virtual ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() TAVRIK_ACQUIRE() {
        report(pthread_mutex_lock(&mutex), "pthread_mutex_lock() error");
    }
    void unlock() TAVRIK_RELEASE() {
        report(pthread_mutex_unlock(&mutex), "pthread_mutex_unlock() error");
    }

    // Releases the lock, sleeps until a notification and takes the lock again. May wake spuriously:
    // test the condition in a loop.
    void wait() TAVRIK_REQUIRES(this);

    // As wait(), for at most `milliseconds` (0 or more). The deadline is on the wall clock: a clock
    // step changes the wait. The caller cannot tell a time-out from a notification.
    void wait(int milliseconds) TAVRIK_REQUIRES(this);

    // Wake one waiter, or all. The lock need not be held, but a waiter can miss a notification sent
    // without it.
    void notify();
    void notifyAll();

  private:
    static void report(int result, const char* text) {
        if (result != 0) print(result, text);
    }
    static void print(int result, const char* text);

    pthread_mutex_t mutex;
    pthread_cond_t condition;
};

// Holds a Lock for a scope, also if an exception ends it. unlock() and lock() release it and take
// it again in between. Used by one thread.
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

// Releases a held Lock for a scope and takes it again at the end, also if an exception ends it. The
// thread-safety analysis does not notice and assumes that the lock is held, so do not use guarded
// data in the scope.
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

// Keeps a flag true for a scope and wakes all waiters at the end. Keeps others out while the lock
// itself is released (see LockRelease). Construct and destroy with `lock` held.
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

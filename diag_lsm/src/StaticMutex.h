// Mutex and condition for module-level state. They are constant-initialised, so they work before
// any constructor runs, and never destroyed, so a reader thread that outlives main() can use them.
#pragma once

#include <pthread.h>
#include <time.h>

#include "runtime/ThreadAnnotations.h"

inline namespace tavrik_diag_lsm {

class TAVRIK_CAPABILITY("mutex") StaticMutex {
  public:
    void lock() TAVRIK_ACQUIRE() { pthread_mutex_lock(&handle); }
    void unlock() TAVRIK_RELEASE() { pthread_mutex_unlock(&handle); }

    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a StaticMutex for a scope.
class TAVRIK_SCOPED_CAPABILITY StaticMutexLock {
  public:
    explicit StaticMutexLock(StaticMutex& guarded) TAVRIK_ACQUIRE(guarded) : mutex(guarded) {
        mutex.lock();
    }
    ~StaticMutexLock() TAVRIK_RELEASE() { mutex.unlock(); }
    StaticMutexLock(const StaticMutexLock&) = delete;
    StaticMutexLock& operator=(const StaticMutexLock&) = delete;

  private:
    StaticMutex& mutex;
};

// Whether the C library can wait on the monotonic clock.
#if defined(__GLIBC__)
#if __GLIBC_PREREQ(2, 30)
#define TAVRIK_HAS_CLOCKWAIT
#endif
#endif

// A point in time for StaticCondition. Uses the monotonic clock if the C library can wait on it, so
// that a device that sets its time at boot does not stretch a wait. Otherwise uses the wall clock.
class StaticDeadline {
  public:
    explicit StaticDeadline(long microseconds) {
        clock_gettime(clock, &at);
        at.tv_sec += microseconds / 1000000;
        at.tv_nsec += microseconds % 1000000 * 1000;
        if (at.tv_nsec > 999999999) {
            at.tv_sec += 1;
            at.tv_nsec -= 1000000000;
        }
    }

#if defined(TAVRIK_HAS_CLOCKWAIT)
    static constexpr clockid_t clock = CLOCK_MONOTONIC;
    int wait(pthread_cond_t* condition, pthread_mutex_t* mutex) const {
        return pthread_cond_clockwait(condition, mutex, clock, &at);
    }
#else
    static constexpr clockid_t clock = CLOCK_REALTIME;
    int wait(pthread_cond_t* condition, pthread_mutex_t* mutex) const {
        return pthread_cond_timedwait(condition, mutex, &at);
    }
#endif

  private:
    timespec at{};
};

class StaticCondition {
  public:
    void wait(StaticMutex& mutex) TAVRIK_REQUIRES(mutex) {
        pthread_cond_wait(&handle, &mutex.handle);
    }

    // False after the deadline; true if it was woken before, for any reason.
    bool waitUntil(StaticMutex& mutex, const StaticDeadline& deadline) TAVRIK_REQUIRES(mutex) {
        return deadline.wait(&handle, &mutex.handle) == 0;
    }

    void notifyAll() { pthread_cond_broadcast(&handle); }

  private:
    pthread_cond_t handle = PTHREAD_COND_INITIALIZER;
};

}  // namespace tavrik_diag_lsm

// A mutex that clang's thread-safety analysis can follow (-Wthread-safety).
#pragma once

#include <mutex>

#if defined(__clang__)
#define DIAGSIM_ATTRIBUTE(x) __attribute__((x))
#else
#define DIAGSIM_ATTRIBUTE(x)
#endif

#define DIAGSIM_GUARDED_BY(mutex) DIAGSIM_ATTRIBUTE(guarded_by(mutex))
#define DIAGSIM_REQUIRES(...) DIAGSIM_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define DIAGSIM_EXCLUDES(...) DIAGSIM_ATTRIBUTE(locks_excluded(__VA_ARGS__))

namespace diagsim {

class DIAGSIM_ATTRIBUTE(capability("mutex")) Mutex {
  public:
    void lock() DIAGSIM_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() DIAGSIM_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

  private:
    std::mutex mutex_{};
};

// Holds the mutex for a scope.
class DIAGSIM_ATTRIBUTE(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) DIAGSIM_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() DIAGSIM_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace diagsim

#pragma once

#include <pthread.h>

inline namespace tavrik_diag_lsm {

// Defers the cancellation of the calling thread until the end of a scope.
class CancellationDisabled {
  public:
    CancellationDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~CancellationDisabled() { pthread_setcancelstate(before, nullptr); }
    CancellationDisabled(const CancellationDisabled&) = delete;
    CancellationDisabled& operator=(const CancellationDisabled&) = delete;

  private:
    int before = PTHREAD_CANCEL_ENABLE;
};

}  // namespace tavrik_diag_lsm

// Where a call waits for the model.
#pragma once

#include "sim/mount/UniqueFd.h"

namespace diagsim {

// A descriptor stands behind it, so that the wait is the kernel's own: a signal ends it unless its
// handler restarts calls. May be used by any threads at the same time.
class Gate {
  public:
    Gate();

    // False when the system has no descriptors left. Such a gate must not be waited at.
    bool valid() const { return event_.get() >= 0; }

    // Ends wait(), also one that comes later.
    void open();

    bool isOpen() const;

    // False: a signal came first.
    bool wait() const;

    // Readable once the gate is open.
    int fd() const { return event_.get(); }

  private:
    UniqueFd event_{};
};

}  // namespace diagsim

#pragma once

#include "runtime/ThreadGroup.h"

namespace tavrik {

// The process-wide pool, named "Default".
class DefaultThreadGroup {
  public:
    // Made on the first call, which may come from any thread, and never destroyed.
    static ThreadGroup* Instance();
};

}  // namespace tavrik

#pragma once

#include "runtime/ThreadGroup.h"

namespace tavrik {

// The process-wide pool, named "Default".
class DefaultThreadGroup {
  public:
    // Created by the first call, never destroyed. Any thread.
    static ThreadGroup* Instance();
};

}  // namespace tavrik

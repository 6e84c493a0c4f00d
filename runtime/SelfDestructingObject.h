#pragma once

#include "runtime/Lock.h"
#include "runtime/SelfDestructingResource.h"

namespace tavrik {

// Counts the references to itself and deletes itself when release() brings the count back to 0.
// Made with new and a count of 0; one that is never reserved is never deleted this way.
//
// Threads: both operations may be called on any thread; the object is deleted on the one that makes
// the last release(), with no lock held. The inherited Lock guards the count and is free for
// nothing else while it is in use for that.
class SelfDestructingObject : public Lock, public SelfDestructingResource {
  public:
    void reserve() override TAVRIK_EXCLUDES(this);
    bool release() override TAVRIK_EXCLUDES(this);

  private:
    int count TAVRIK_GUARDED_BY(this) = 0;
};

}  // namespace tavrik

#pragma once

#include "runtime/Lock.h"
#include "runtime/SelfDestructingResource.h"

namespace tavrik {

// Counts its references and deletes itself when release() returns the count to 0. Create it with
// new; the count starts at 0. An object that is never reserved never deletes itself.
//
// Threads: any thread. The thread of the last release() deletes the object, with no lock held. The
// inherited Lock guards the count.
class SelfDestructingObject : public Lock, public SelfDestructingResource {
  public:
    void reserve() override TAVRIK_EXCLUDES(this);
    bool release() override TAVRIK_EXCLUDES(this);

  private:
    int count TAVRIK_GUARDED_BY(this) = 0;
};

}  // namespace tavrik

#pragma once

namespace tavrik {

// A resource with several owners. It ends with its last reference.
//
// An owner takes a reference with reserve() before it uses the resource and drops it with
// release(). It must not use the resource afterwards. References must not form cycles.
class SelfDestructingResource {
  public:
    virtual ~SelfDestructingResource() = default;

    virtual void reserve() = 0;

    // Drops a reference. True if it was the last one: the resource is gone.
    virtual bool release() = 0;
};

}  // namespace tavrik

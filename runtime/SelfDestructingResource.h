#pragma once

namespace tavrik {

// Something that several owners share and that ends with the last reference to it.
//
// Each owner takes a reference with reserve() before it uses the resource and gives it back with
// release(); it must not touch the resource afterwards. References must not form circles.
class SelfDestructingResource {
  public:
    virtual ~SelfDestructingResource() = default;

    virtual void reserve() = 0;

    // True when this was the last reference: the resource is gone.
    virtual bool release() = 0;
};

}  // namespace tavrik

#include "runtime/SelfDestructingObject.h"

namespace tavrik {

void SelfDestructingObject::reserve() {
    LockGuard guard(*this);
    ++count;
}

bool SelfDestructingObject::release() {
    {
        LockGuard guard(*this);
        if (--count != 0) return false;
    }
    delete this;
    return true;
}

}  // namespace tavrik

#include "runtime/DefaultThreadGroup.h"

namespace tavrik {

ThreadGroup* DefaultThreadGroup::Instance() {
    static ThreadGroup* const instance = new ThreadGroup("Default");
    return instance;
}

}  // namespace tavrik

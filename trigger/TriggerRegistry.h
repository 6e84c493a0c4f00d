#pragma once

#include <string>

#include "trigger/Trigger.h"

namespace tavrik {

// The triggers of the process, by name.
//
// Threads: both operations may be called on any thread, but not by a trigger's listener, nor by one
// of ADSPPM or DIAG: they look their triggers up beforehand. Lock order: the registry's lock, the
// metric registry's, a subscriber set's, then ADSPPM's and DIAG's.
class TriggerRegistry {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;
        // Called with the registry's lock held: must not call the registry.
        virtual void visitTrigger(Trigger* trigger) = 0;
    };

    // The trigger of that name, made at the first call and kept for ever. Never null.
    static Trigger* getTrigger(const std::string& name);

    // Visits all triggers in ascending bytewise order of their names.
    static void visit(Visitor& visitor);
};

}  // namespace tavrik

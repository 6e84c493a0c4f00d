#pragma once

#include <string>

#include "trigger/Trigger.h"

namespace tavrik {

// The triggers of the process, by name.
//
// Threads: any thread, but not a listener of a trigger, of ADSPPM or of DIAG; they look their
// triggers up beforehand. Lock order: the registry's lock, the metric registry's, a subscriber
// set's, then ADSPPM's and DIAG's.
class TriggerRegistry {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;
        // Called with the registry's lock held. Must not call the registry.
        virtual void visitTrigger(Trigger* trigger) = 0;
    };

    // Returns the trigger of that name, which the first call creates. Never null.
    static Trigger* getTrigger(const std::string& name);

    // Visits all triggers in ascending bytewise order of their names.
    static void visit(Visitor& visitor);
};

}  // namespace tavrik

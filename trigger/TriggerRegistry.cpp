#include "trigger/TriggerRegistry.h"

#include <map>

#include "runtime/Lock.h"

namespace tavrik {

namespace {

struct Registry {
    // Guards the map; held while a trigger is made.
    Lock tlock;
    std::map<std::string, Trigger*> triggers TAVRIK_GUARDED_BY(tlock);
};

// Made on first use and never destroyed: workers may use their triggers while the process exits.
Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

}  // namespace

Trigger* TriggerRegistry::getTrigger(const std::string& name) {
    Registry& all = registry();
    LockGuard guard(all.tlock);
    Trigger*& trigger = all.triggers[name];
    if (!trigger) trigger = new Trigger(name);
    return trigger;
}

void TriggerRegistry::visit(Visitor& visitor) {
    Registry& all = registry();
    LockGuard guard(all.tlock);
    for (const auto& entry : all.triggers)
        visitor.visitTrigger(entry.second);
}

}  // namespace tavrik

#pragma once

#include <string>

#include "json/JSOM.h"
#include "log/LogAdapter.h"
#include "runtime/VectorMap.h"

namespace tavrik {

// The log adapter factories of the process, by the type of adapter that they make.
//
// Threads: none of its own. Register the factories before other threads configure loggers.
// Ownership: one object, never destroyed; it owns the factories.
class LogAdapterStore : public VectorMap<LogAdapterFactory> {
  public:
    ~LogAdapterStore() override;

    // Made at the first call, which may come from any thread.
    static LogAdapterStore* Instance();

    // Registers the factory under `name` and deletes another one that was there.
    static void addFactory(const std::string& name, LogAdapterFactory* factory);

    // What the factory of that name makes; null when there is none.
    static LogAdapter* createLogAdapter(const std::string& type, const JSOM& config);

  private:
    LogAdapterStore() = default;
};

}  // namespace tavrik

#pragma once

#include <string>

#include "json/JSOM.h"
#include "runtime/VectorMap.h"
#include "server/Channel.h"

namespace tavrik {

// The channel factories of the process, by the type of channel that they make.
//
// Threads: none of its own. Register the factories before other threads make channels; for the
// server messages that is before the first message is posted. Ownership: one object, never
// destroyed; it owns the factories.
class ChannelStore : public VectorMap<ChannelFactory> {
  public:
    // Made at the first call, which may come from any thread.
    static ChannelStore* Instance();

    // Registers the factory for `type` and deletes another one that was there.
    static void addFactory(const std::string& type, ChannelFactory* factory);

    // What the factory for `type` makes; null when there is none.
    static Channel* createChannel(const std::string& id, const std::string& type,
                                  const JSOM& config);

  private:
    ChannelStore() = default;
};

}  // namespace tavrik

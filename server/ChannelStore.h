#pragma once

#include <string>

#include "json/JSOM.h"
#include "runtime/VectorMap.h"
#include "server/Channel.h"

namespace tavrik {

// The channel factories of the process, by the type of channel that they make.
//
// Threads: not synchronised. Register the factories before other threads create channels; for the
// server messages, before the first message is posted. Ownership: one object, never destroyed. It
// owns the factories.
class ChannelStore : public VectorMap<ChannelFactory> {
  public:
    // Made at the first call, which may come from any thread.
    static ChannelStore* Instance();

    // Registers the factory for `type`. Deletes the previous one.
    static void addFactory(const std::string& type, ChannelFactory* factory);

    // Returns a channel from the factory for `type`; null if there is none.
    static Channel* createChannel(const std::string& id, const std::string& type,
                                  const JSOM& config);

  private:
    ChannelStore() = default;
};

}  // namespace tavrik

#pragma once

#include <string>

#include "runtime/RWLock.h"
#include "runtime/VectorMap.h"
#include "server/Channel.h"

namespace tavrik {

// The live channels of the process by name; tells each of them when another one comes or goes.
//
// Threads: every operation may be called on any thread. Changes hold the list's lock alone, lookups
// and walks share it. Channels are called back and released under it, see Channel, so neither they
// nor a visitor may use the list. Ownership: one object, never destroyed; it holds one reference on
// each channel.
class ChannelList : public VectorMap<Channel> {
  public:
    // Made at the first call, which may come from any thread.
    static ChannelList* Instance();

    // Lists `channel` under `name`, in place of the one that was there: that one is told first
    // (removedFromList), and the others hear of its going and of the new one's coming. A null
    // channel is ignored.
    //
    // Where the name was listed twice, or with no channel, it stays listed with what is there;
    // `channel` is not listed, keeps the reference that was taken for the list, and the others are
    // told all the same.
    static void addChannel(const std::string& name, Channel* channel)
        TAVRIK_EXCLUDES(Instance()->lock);

    // Unlists the channel of that name, if there is one: the others hear of it, then the channel.
    static void removeChannel(const std::string& name) TAVRIK_EXCLUDES(Instance()->lock);

    // Trades the caller's reference on `current`, which may be null, for one on the channel that is
    // listed under `name` now; null when there is none. `current` is released, with no lock held,
    // unless it is that channel.
    static Channel* reserveChannel(const std::string& name, Channel* current)
        TAVRIK_EXCLUDES(Instance()->lock);

    // Visits the channels from the last listed to the first; see VectorMap::Visitor. The first
    // result other than 0, or 0. The visitor must neither use the list nor post server messages.
    static int visit(const Visitor& visitor) TAVRIK_EXCLUDES(Instance()->lock);

    // Call channelAdded() or channelRemoved() of every listed channel that has another name, from
    // the last to the first. Take no lock: the caller holds the list's as a writer.
    static void channelAddedNotice(const std::string& name);
    static void channelRemovedNotice(const std::string& name);

  private:
    using Notice = void (Channel::*)(const std::string&);

    ChannelList() = default;
    void notify(const std::string& name, Notice notice);
    // Erases entry i, tells everybody and releases its channel.
    void unlist(size_t i, const std::string& name) TAVRIK_REQUIRES(lock);

    // Guards both vectors of the map. Held during callbacks, and before any lock that those take.
    RWLock lock;
};

}  // namespace tavrik

#pragma once

#include <string>

#include "runtime/RWLock.h"
#include "runtime/VectorMap.h"
#include "server/Channel.h"

namespace tavrik {

// The live channels of the process, by name. Tells each channel when another one comes or goes.
//
// Threads: any thread may call any operation. Changes hold the list's write lock, lookups and walks
// its read lock. Channels are called and released under it (see Channel): neither they nor a
// visitor may use the list. Ownership: one object, never destroyed. It holds a reference on each
// channel.
class ChannelList : public VectorMap<Channel> {
  public:
    // Made at the first call, which may come from any thread.
    static ChannelList* Instance();

    // Lists `channel` under `name` and replaces the previous one: the others are told of its
    // removal, it is told (removedFromList), and the others are told of the new one. Ignores null.
    //
    // If the name is listed twice, or without a channel, the list keeps its entry and does not list
    // `channel`, which keeps the reference taken for the list. The others are told nevertheless.
    static void addChannel(const std::string& name, Channel* channel)
        TAVRIK_EXCLUDES(Instance()->lock);

    // Unlists the channel of that name, if any. Tells the others, then the channel.
    static void removeChannel(const std::string& name) TAVRIK_EXCLUDES(Instance()->lock);

    // Exchanges the caller's reference on `current`, which may be null, for one on the channel
    // listed under `name`; returns that channel, or null if there is none. Releases `current`, with
    // no lock held, unless it is that channel.
    static Channel* reserveChannel(const std::string& name, Channel* current)
        TAVRIK_EXCLUDES(Instance()->lock);

    // Visits the channels from the last to the first; see VectorMap::Visitor. Returns the first
    // result other than 0, or 0. The visitor must not use the list or post server messages.
    static int visit(const Visitor& visitor) TAVRIK_EXCLUDES(Instance()->lock);

    // Call channelAdded() or channelRemoved() of each listed channel with another name, from the
    // last to the first. REQUIRES: the list's write lock, which the caller holds.
    static void channelAddedNotice(const std::string& name);
    static void channelRemovedNotice(const std::string& name);

  private:
    using Notice = void (Channel::*)(const std::string&);

    ChannelList() = default;
    void notify(const std::string& name, Notice notice);
    // Erases entry i, tells all channels and releases its own.
    void unlist(size_t i, const std::string& name) TAVRIK_REQUIRES(lock);

    // Guards the vectors of the map. Held during callbacks; taken before the locks that they take.
    RWLock lock;
};

}  // namespace tavrik

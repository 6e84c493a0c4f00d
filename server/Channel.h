#pragma once

#include <string>

#include "json/JSOM.h"
#include "runtime/SelfDestructingResource.h"
#include "server/Buffer.h"

namespace tavrik {

// A named outlet through which a component publishes buffers. Programs that embed the framework
// implement it and make one on demand in a ChannelFactory.
//
// Ownership: counted, through reserve() and release(), which the implementation supplies. A new
// channel counts nobody; its producer and the ChannelList take a reference each.
//
// Threads: reserve(), release(), setDescription() and publish() are called on whatever thread uses
// the channel. The other three are called on the thread that changes the ChannelList, with the
// list's lock held: they must neither use the list nor post server messages. The same holds for
// the destructor wherever the list may be the last to hold the channel.
class Channel : public SelfDestructingResource {
  public:
    // The list has unlisted this channel.
    virtual void removedFromList() = 0;

    // What the channel is for: an object with "id", "name", "type" and more. Called by the
    // producer once, before it publishes. The tree belongs to the caller; keep a copy, if anything.
    virtual void setDescription(const JSOM& description) = 0;

    // Another channel was listed or unlisted under `name`.
    virtual void channelAdded(const std::string& name) = 0;
    virtual void channelRemoved(const std::string& name) = 0;

    // Here is news. The buffer is the producer's and is used again after the call: copy what is to
    // stay. Called under whatever locks the producer's caller holds.
    virtual void publish(Buffer& buffer) = 0;
};

// Makes channels of one type.
class ChannelFactory {
  public:
    virtual ~ChannelFactory() = default;

    // A new channel that nobody holds yet, or null. `config` is the description that
    // setDescription() will get, the caller's to keep.
    virtual Channel* create(const std::string& id, const JSOM& config) = 0;
};

}  // namespace tavrik

#pragma once

#include <string>

#include "json/JSOM.h"
#include "runtime/SelfDestructingResource.h"
#include "server/Buffer.h"

namespace tavrik {

// A named outlet through which a component publishes buffers. Programs that embed the framework
// implement it and make one on demand in a ChannelFactory.
//
// Ownership: reference-counted. The implementation supplies reserve() and release(). A new channel
// has no references; its producer and the ChannelList take one each.
//
// Threads: reserve(), release(), setDescription() and publish() run on the thread that uses the
// channel. The other three run on the thread that changes the ChannelList, with the list's lock
// held. They must not use the list or post server messages. Neither must the destructor, if the
// list may drop the last reference.
class Channel : public SelfDestructingResource {
  public:
    // The list has unlisted this channel.
    virtual void removedFromList() = 0;

    // Describes the channel: an object with "id", "name", "type" and more. The producer calls it
    // once, before it publishes. The tree belongs to the caller; copy what you keep.
    virtual void setDescription(const JSOM& description) = 0;

    // Another channel was listed or unlisted under `name`.
    virtual void channelAdded(const std::string& name) = 0;
    virtual void channelRemoved(const std::string& name) = 0;

    // Delivers new entries. The producer reuses the buffer after the call: copy what you keep.
    // Called with the locks of the producer's caller held.
    virtual void publish(Buffer& buffer) = 0;
};

// Makes channels of one type.
class ChannelFactory {
  public:
    virtual ~ChannelFactory() = default;

    // Returns a new channel without references, or null. `config` is the later argument of
    // setDescription() and belongs to the caller.
    virtual Channel* create(const std::string& id, const JSOM& config) = 0;
};

}  // namespace tavrik

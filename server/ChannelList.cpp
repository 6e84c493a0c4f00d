#include "server/ChannelList.h"

namespace tavrik {

ChannelList* ChannelList::Instance() {
    static ChannelList* const instance = new ChannelList;
    return instance;
}

void ChannelList::addChannel(const std::string& name_, Channel* channel) {
    if (channel == nullptr) return;
    const std::string name(name_);  // may belong to the channel that is released below
    channel->reserve();
    ChannelList* const self = Instance();
    WriteGuard guard(self->lock);
    const size_t old = self->find(name);
    if (old != kNone && self->values[old] != nullptr) self->unlist(old, name);
    if (self->find(name) == kNone) self->append(name, channel);
    channelAddedNotice(name);
}

void ChannelList::removeChannel(const std::string& name) {
    ChannelList* const self = Instance();
    WriteGuard guard(self->lock);
    const size_t i = self->find(name);
    if (i != kNone && self->values[i] != nullptr) self->unlist(i, name);
}

void ChannelList::unlist(size_t i, const std::string& name) {
    Channel* const channel = values[i];
    removeAt(i);
    channelRemovedNotice(name);
    channel->removedFromList();
    channel->release();
}

Channel* ChannelList::reserveChannel(const std::string& name, Channel* current) {
    ChannelList* const self = Instance();
    Channel* found = nullptr;
    {
        ReadGuard guard(self->lock);
        found = self->get(name);
        if (found == current) return found;
        if (found != nullptr) found->reserve();
    }
    // Not under the lock: this may delete the channel, whose destructor may use the list.
    if (current != nullptr) current->release();
    return found;
}

int ChannelList::visit(const Visitor& visitor) {
    ChannelList* const self = Instance();
    ReadGuard guard(self->lock);
    return self->walk(visitor);
}

void ChannelList::channelAddedNotice(const std::string& name) {
    Instance()->notify(name, &Channel::channelAdded);
}

void ChannelList::channelRemovedNotice(const std::string& name) {
    Instance()->notify(name, &Channel::channelRemoved);
}

void ChannelList::notify(const std::string& name, Notice notice) {
    for (size_t i = names.size(); i != 0; --i) {
        Channel* const channel = values[i - 1];
        if (channel != nullptr && names[i - 1] != name) (channel->*notice)(name);
    }
}

}  // namespace tavrik

#include "server/ChannelStore.h"

namespace tavrik {

ChannelStore* ChannelStore::Instance() {
    static ChannelStore* const instance = new ChannelStore;
    return instance;
}

void ChannelStore::addFactory(const std::string& type, ChannelFactory* factory) {
    Instance()->replaceOwned(type, factory);
}

Channel* ChannelStore::createChannel(const std::string& id, const std::string& type,
                                     const JSOM& config) {
    ChannelFactory* const factory = Instance()->get(type);
    return factory != nullptr ? factory->create(id, config) : nullptr;
}

}  // namespace tavrik

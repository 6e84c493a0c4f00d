#include "log/LogAdapterStore.h"

namespace tavrik {

LogAdapterStore::~LogAdapterStore() {
    for (const LogAdapterFactory* const factory : values)
        delete factory;
}

LogAdapterStore* LogAdapterStore::Instance() {
    static LogAdapterStore* const instance = new LogAdapterStore;
    return instance;
}

void LogAdapterStore::addFactory(const std::string& name, LogAdapterFactory* factory) {
    Instance()->replaceOwned(name, factory);
}

LogAdapter* LogAdapterStore::createLogAdapter(const std::string& type, const JSOM& config) {
    LogAdapterFactory* const factory = Instance()->get(type);
    return factory != nullptr ? factory->create(config) : nullptr;
}

}  // namespace tavrik

// The configuration of loggers, in a file of its own: a program that does not use it is linked
// without it.
#include <cstdio>

#include "json/JSOM.h"
#include "log/LogAdapterStore.h"
#include "log/Logger.h"

namespace tavrik {

namespace {

// The level that a place names; null when it names none.
const LogLevel* levelAt(const JSOM& place) {
    const LogLevel* const level = LogLevel::valueOf(place.stringValue(""));
    return level != LogLevel::LVL_UNKNOWN ? level : nullptr;
}

void setCategories(const JSOM& categories) {
    for (int i = categories.isObject() ? categories.size() - 1 : -1; i >= 0; --i) {
        const LogLevel* const level = levelAt(categories[i]);
        if (level == nullptr) continue;
        Logger* const logger = Logger::getLogger(categories.key(i));
        if (logger->getLevel().getLevel() != level->getLevel()) logger->setLevel(*level);
    }
}

void setAdapter(const JSOM& adapter) {
    // Indexing a place without a node would create one.
    if (!adapter.hasNode() || !adapter["type"].hasNode()) return;
    Logger::setLogAdapter(
        LogAdapterStore::createLogAdapter(adapter["type"].stringValue(""), adapter));
}

}  // namespace

void Logger::useConfig(const JSOM& config) {
    if (!config.hasNode()) return;
    const JSOM buffering = config["buffering"];
    if (buffering.hasNode()) bufferingEnabled = buffering.booleanValue(true);
    if (const LogLevel* const level = levelAt(config["default"])) setDefaultLogLevel(*level);
    if (const LogLevel* const level = levelAt(config["level"])) setMasterLogLevel(*level);
    setCategories(config["categories"]);
    setAdapter(config["adapter"]);
}

void Logger::loadConfig(const char* path) {
    JSOM config;
    // By address, because JERROR is not there yet for a static initialiser.
    if (&config.fromFile(path) != &config) {
        fprintf(stderr, "Could not load file `%s'.\n", path != nullptr ? path : "");
        return;
    }
    useConfig(config);
}

}  // namespace tavrik

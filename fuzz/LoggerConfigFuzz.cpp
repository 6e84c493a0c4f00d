// Fed: the text of a logger configuration. Must hold: nothing breaks while it is applied and lines
// are logged; a category has the level that its first member with a level's name says, and any
// other logger the one it had; the adapter of a known type, and nobody else, gets the lines.
#include <map>

#include "fuzz/Support.h"
#include "json/JSOM.h"
#include "log/LogAdapterStore.h"

using namespace tavrik;
using fuzz::mustHold;

namespace {

int lines = 0;

class Adapter : public fuzz::SilentLogs {
  public:
    int log(const LogLevel&, const std::string&, const char*, bool) override { return ++lines; }
    using SilentLogs::log;
};

// Gives the one adapter that it has, because what it gives is never deleted.
class Factory : public LogAdapterFactory {
  public:
    LogAdapter* create(const JSOM& config) override {
        static Adapter* const adapter = new Adapter;
        return config["none"].booleanValue(false) ? nullptr : adapter;
    }
};

// Loggers are never deleted, so that a process with as many as the fuzzer makes up would not last:
// only the first byte of a category's name is kept.
void shortenNames(JSOM categories) {
    std::string text = "{";
    for (int i = 0; i < categories.size(); ++i) {
        JSONData::quoteJsonString(categories.key(i).substr(0, 1).c_str(), text);
        text += ':';
        JSONData::quoteJsonString(categories[i].stringValue("").c_str(), text);
        text += ',';
    }
    categories.clear();
    categories.fromString(text + "}");
}

void checkLevels(const JSOM& categories) {
    std::map<std::string, int> wanted;
    for (int i = categories.isObject() ? categories.size() - 1 : -1; i >= 0; --i) {
        const LogLevel* const level = LogLevel::valueOf(categories[i].stringValue(""));
        if (level != LogLevel::LVL_UNKNOWN) wanted[categories.key(i)] = level->getLevel();
    }
    for (const auto& [name, level] : wanted)
        mustHold(Logger::getLogger(name)->getLevel().getLevel() == level, "the level");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static const bool ready =
        (LogAdapterStore::addFactory("fuzz", new Factory), true);
    JSOM config;
    config.fromString(std::string(data, data + size));
    if (config.isObject() && config["categories"].isObject()) shortenNames(config["categories"]);
    // As it is in a new process, but for the output.
    fuzz::SilentLogs::install();
    Logger::enableBuffering();
    Logger::setDefaultLogLevel(*LogLevel::valueOf("INFO"));
    Logger::setMasterLogLevel(*LogLevel::valueOf("ALL"));
    Logger::useConfig(config);
    const int before = lines;
    Logger::getLogger("a")->log(*LogLevel::LVL_INFO, "whatever the filters say");
    Logger::getLogger("a")->errorf("%d", 1);
    Logger::flushAll();
    checkLevels(config["categories"]);
    const JSOM adapter = config["adapter"];
    const bool ours = adapter.isObject() && adapter["type"].stringValue("") == "fuzz" &&
                      !adapter["none"].booleanValue(false);
    mustHold(ours == (lines > before), "the adapter that is asked for gets the lines");
    return 0;
}

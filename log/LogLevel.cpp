#include "log/LogLevel.h"

#include <strings.h>

#include <mutex>
#include <set>
#include <tuple>

#include "runtime/Lock.h"

namespace tavrik {

namespace {

constexpr int kUnknown = 7;
constexpr int kLevels = 9;

// Indexed by level number. Created on first use and never destroyed: static initialisers of other
// files log, and so do threads while the process exits.
const std::string& levelName(int number) {
    static const std::string* const names = new std::string[kLevels]{
        "OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "UNKNOWN", "ALL"};
    return names[number];
}

}  // namespace

const std::string& LogLevel::OFF_NAME = levelName(0);
const std::string& LogLevel::FATAL_NAME = levelName(1);
const std::string& LogLevel::ERROR_NAME = levelName(2);
const std::string& LogLevel::WARN_NAME = levelName(3);
const std::string& LogLevel::INFO_NAME = levelName(4);
const std::string& LogLevel::DEBUG_NAME = levelName(5);
const std::string& LogLevel::TRACE_NAME = levelName(6);
const std::string& LogLevel::UNKNOWN_NAME = levelName(kUnknown);
const std::string& LogLevel::ALL_NAME = levelName(8);

LogLevel::SharedLevel LogLevel::LVL_OFF;
LogLevel::SharedLevel LogLevel::LVL_FATAL;
LogLevel::SharedLevel LogLevel::LVL_ERROR;
LogLevel::SharedLevel LogLevel::LVL_WARN;
LogLevel::SharedLevel LogLevel::LVL_INFO;
LogLevel::SharedLevel LogLevel::LVL_DEBUG;
LogLevel::SharedLevel LogLevel::LVL_TRACE;
LogLevel::SharedLevel LogLevel::LVL_UNKNOWN;
LogLevel::SharedLevel LogLevel::LVL_ALL;

bool LogLevel::Record::operator<(const Record& other) const {
    return std::tie(number, name) < std::tie(other.number, other.name);
}

const LogLevel::Record* LogLevel::intern(const std::string& name, int number) {
    struct Table {
        Lock lock;
        std::set<Record> records TAVRIK_GUARDED_BY(lock);
    };
    static Table* const table = new Table;
    LockGuard guard(table->lock);
    return &*table->records.insert(Record{name, number}).first;
}

LogLevel::LogLevel(const std::string& name, int level) : record(intern(name, level)) {}

LogLevel::LogLevel(const LogLevel& other) : record(other.record.load(std::memory_order_acquire)) {}

LogLevel& LogLevel::operator=(const LogLevel& other) {
    record.store(other.record.load(std::memory_order_acquire), std::memory_order_release);
    return *this;
}

LogLevel::~LogLevel() = default;

void LogLevel::_init() {
    static std::once_flag once;
    std::call_once(once, [] {
        LogLevel* const levels = new LogLevel[kLevels]{
            {levelName(0), 0}, {levelName(1), 1}, {levelName(2), 2},
            {levelName(3), 3}, {levelName(4), 4}, {levelName(5), 5},
            {levelName(6), 6}, {levelName(7), 7}, {levelName(8), 8},
        };
        SharedLevel* const shared[kLevels] = {&LVL_OFF,   &LVL_FATAL,   &LVL_ERROR,
                                              &LVL_WARN,  &LVL_INFO,    &LVL_DEBUG,
                                              &LVL_TRACE, &LVL_UNKNOWN, &LVL_ALL};
        // LVL_OFF last: callers check that one and then use others.
        for (int number = kLevels - 1; number >= 0; --number)
            shared[number]->pointer.store(&levels[number], std::memory_order_release);
    });
}

LogLevel* LogLevel::valueOf(const char* name) {
    if (name == nullptr) return valueOf(kUnknown);
    for (int number = 0; number < kLevels; ++number) {
        if (strcasecmp(name, levelName(number).c_str()) == 0) return valueOf(number);
    }
    return valueOf(kUnknown);
}

LogLevel* LogLevel::valueOf(const std::string& name) { return valueOf(name.c_str()); }

LogLevel* LogLevel::valueOf(int level) {
    _init();
    if (level < 0 || level >= kLevels) level = kUnknown;
    // The nine stand in one array.
    return LVL_OFF + level;
}

}  // namespace tavrik

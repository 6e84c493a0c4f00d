#include "log/LogLevel.h"

#include <strings.h>

#include <mutex>
#include <set>
#include <tuple>

#include "runtime/Lock.h"

namespace tavrik {

namespace {

constexpr int UNKNOWN = 7;
constexpr int LEVELS = 9;

// The order is the numbering. Built on first use and never destroyed, because static initialisers
// of other files log, and threads log while the process exits.
const std::string& levelName(int number) {
    static const std::string* const names = new std::string[LEVELS]{
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
const std::string& LogLevel::UNKNOWN_NAME = levelName(UNKNOWN);
const std::string& LogLevel::ALL_NAME = levelName(8);

LogLevel* LogLevel::LVL_OFF = nullptr;
LogLevel* LogLevel::LVL_FATAL = nullptr;
LogLevel* LogLevel::LVL_ERROR = nullptr;
LogLevel* LogLevel::LVL_WARN = nullptr;
LogLevel* LogLevel::LVL_INFO = nullptr;
LogLevel* LogLevel::LVL_DEBUG = nullptr;
LogLevel* LogLevel::LVL_TRACE = nullptr;
LogLevel* LogLevel::LVL_UNKNOWN = nullptr;
LogLevel* LogLevel::LVL_ALL = nullptr;

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
        LogLevel* const levels = new LogLevel[LEVELS]{
            {levelName(0), 0}, {levelName(1), 1}, {levelName(2), 2},
            {levelName(3), 3}, {levelName(4), 4}, {levelName(5), 5},
            {levelName(6), 6}, {levelName(7), 7}, {levelName(8), 8},
        };
        LogLevel** const shared[LEVELS] = {&LVL_OFF,   &LVL_FATAL,   &LVL_ERROR,
                                           &LVL_WARN,  &LVL_INFO,    &LVL_DEBUG,
                                           &LVL_TRACE, &LVL_UNKNOWN, &LVL_ALL};
        for (int number = 0; number < LEVELS; ++number)
            *shared[number] = &levels[number];
    });
}

LogLevel* LogLevel::valueOf(const char* name) {
    if (name == nullptr) return valueOf(UNKNOWN);
    for (int number = 0; number < LEVELS; ++number) {
        if (strcasecmp(name, levelName(number).c_str()) == 0) return valueOf(number);
    }
    return valueOf(UNKNOWN);
}

LogLevel* LogLevel::valueOf(const std::string& name) { return valueOf(name.c_str()); }

LogLevel* LogLevel::valueOf(int level) {
    _init();
    if (level < 0 || level >= LEVELS) level = UNKNOWN;
    // The nine stand in one array.
    return LVL_OFF + level;
}

}  // namespace tavrik

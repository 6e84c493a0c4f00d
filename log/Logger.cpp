#include "log/Logger.h"

#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <map>
#include <memory>

#include "log/LogAdapter.h"
#include "runtime/Lock.h"

namespace tavrik {

std::atomic<LogLevel*> Logger::defaultLogLevel{nullptr};
std::atomic<LogLevel*> Logger::masterLogLevel{nullptr};
std::atomic<bool> Logger::bufferingEnabled{true};
std::atomic<LogAdapter*> Logger::logAdapter{nullptr};

namespace {

constexpr int kError = 2;
constexpr int kWarn = 3;
constexpr int kInfo = 4;
constexpr int kDebug = 5;
constexpr int kTrace = 6;
constexpr int kAll = 8;

struct Registry {
    // Guards the map. Innermost but for the short lock inside LogLevel.
    Lock lock;
    std::map<std::string, Logger*> loggers TAVRIK_GUARDED_BY(lock);
};

// Made on first use and never destroyed: static initialisers of other files ask for their loggers,
// and threads log while the process exits.
Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

bool setIfUnset(std::atomic<LogLevel*>& slot, const LogLevel& value) {
    LogLevel* unset = slot.load(std::memory_order_acquire);
    if (unset != nullptr) return false;
    LogLevel* const copy = new LogLevel(value);
    if (slot.compare_exchange_strong(unset, copy, std::memory_order_acq_rel)) return true;
    delete copy;
    return false;
}

void setOrOverwrite(std::atomic<LogLevel*>& slot, const LogLevel& value) {
    if (setIfUnset(slot, value)) return;
    // Overwritten in place, because pointers to the object were handed out.
    LogLevel* const current = slot.load(std::memory_order_acquire);
    if (current->getLevel() != value.getLevel()) *current = value;
}

LogLevel* valueOrInfo(const std::atomic<LogLevel*>& slot) {
    LogLevel* const value = slot.load(std::memory_order_acquire);
    return value != nullptr ? value : LogLevel::valueOf(kInfo);
}

}  // namespace

Logger::Logger(const std::string& name_, const LogLevel& level_) : name(name_), level(level_) {
    setIfUnset(defaultLogLevel, *LogLevel::valueOf(kInfo));
    setIfUnset(masterLogLevel, *LogLevel::valueOf(kAll));
}

Logger::~Logger() = default;

Logger* Logger::getLogger(const std::string& name) {
    Registry& all = registry();
    LockGuard guard(all.lock);
    const auto found = all.loggers.find(name);
    if (found != all.loggers.end()) return found->second;
    auto created = std::make_unique<Logger>(name, *getDefaultLogLevel());
    all.loggers.emplace(name, created.get());
    return created.release();
}

Logger* Logger::getLogger(const char* name) {
    return getLogger(std::string(name != nullptr ? name : ""));
}

void Logger::visitLoggers(LoggerVisitor& visitor) {
    Registry& all = registry();
    LockGuard guard(all.lock);
    for (const auto& entry : all.loggers)
        visitor.visit(entry.second);
}

LogLevel* Logger::getDefaultLogLevel() { return valueOrInfo(defaultLogLevel); }

LogLevel* Logger::getMasterLogLevel() { return valueOrInfo(masterLogLevel); }

void Logger::setDefaultLogLevel(const LogLevel& newLevel) {
    setOrOverwrite(defaultLogLevel, newLevel);
}

void Logger::setMasterLogLevel(const LogLevel& newLevel) {
    setOrOverwrite(masterLogLevel, newLevel);
}

void Logger::vlogIfAdmitted(int number, const char* fmt, va_list args) {
    if (level.getLevel() < number) return;
    if (masterLogLevel.load(std::memory_order_acquire)->getLevel() < number) return;
    vlog(*LogLevel::valueOf(number), fmt, args);
}

void Logger::errorf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlogIfAdmitted(kError, fmt, args);
    va_end(args);
}

void Logger::warnf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlogIfAdmitted(kWarn, fmt, args);
    va_end(args);
}

void Logger::infof(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlogIfAdmitted(kInfo, fmt, args);
    va_end(args);
}

void Logger::debugf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlogIfAdmitted(kDebug, fmt, args);
    va_end(args);
}

void Logger::tracef(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlogIfAdmitted(kTrace, fmt, args);
    va_end(args);
}

int Logger::vlog(const LogLevel& messageLevel, const char* fmt, va_list args) {
    char message[2048];
    message[0] = '\0';  // what a failing vsnprintf leaves
    if (fmt != nullptr) vsnprintf(message, 2047, fmt, args);
    message[2047] = '\0';
    return log(messageLevel, message);
}

int Logger::log(const LogLevel& messageLevel, const char* message) {
    if (message == nullptr) message = "";
    LogAdapter* const adapter = logAdapter.load(std::memory_order_acquire);
    if (adapter != nullptr) return adapter->log(messageLevel, name, message, bufferingEnabled);
    return print(messageLevel, message);
}

int Logger::log(const LogLevel& messageLevel, const std::string& message) {
    LogAdapter* const adapter = logAdapter.load(std::memory_order_acquire);
    if (adapter != nullptr) return adapter->log(messageLevel, name, message, bufferingEnabled);
    return print(messageLevel, message.c_str());
}

int Logger::print(const LogLevel& messageLevel, const char* message) const {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    const time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    char when[80];
    strftime(when, sizeof when, "%b %d %H:%M:%S", &local);
    const int result = printf("%s.%03ld [%s]: %s %s\n", when, static_cast<long>(now.tv_usec / 1000),
                              name.c_str(), messageLevel.getName().c_str(), message);
    return bufferingEnabled ? result : fflush(stdout);
}

void Logger::enableBuffering() { bufferingEnabled = true; }

void Logger::disableBuffering() {
    if (bufferingEnabled.exchange(false)) flushAll();
}

int Logger::flushAll() {
    LogAdapter* const adapter = logAdapter.load(std::memory_order_acquire);
    return adapter != nullptr ? adapter->flush() : fflush(stdout);
}

void Logger::setLogAdapter(LogAdapter* adapter) {
    logAdapter.store(adapter, std::memory_order_release);
}

}  // namespace tavrik

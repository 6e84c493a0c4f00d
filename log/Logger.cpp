#define TAVRIK_LOGGER_OUT_OF_LINE
#include "log/Logger.h"

#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>

#include "log/LogAdapter.h"
#include "log/src/Message.h"
#include "runtime/Lock.h"

namespace tavrik {

std::atomic<LogLevel*> Logger::defaultLogLevel{nullptr};
std::atomic<LogLevel*> Logger::masterLogLevel{nullptr};
std::atomic<bool> Logger::bufferingEnabled{true};
std::atomic<LogAdapter*> Logger::logAdapter{nullptr};

namespace {

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

// A second as the thread's last line had it. Converting it takes longer than the rest of a line.
struct SecondText {
    time_t second;
    // What the C library says of the zone in force. It sets these words under a lock of its own and
    // without telling; whatever differs, if only for a moment, makes the text anew.
    long zone;
    const char* zoneName;
    char text[80];  // empty until the first line

    bool fits(time_t wanted) const {
        return text[0] != '\0' && second == wanted && zone == currentZone() &&
               zoneName == currentZoneName();
    }

    void set(time_t wanted) {
        tm local{};
        localtime_r(&wanted, &local);
        if (strftime(text, sizeof text, "%b %d %H:%M:%S", &local) == 0) text[0] = '\0';
        second = wanted;
        zone = currentZone();
        zoneName = currentZoneName();
    }

    static long currentZone() { return __atomic_load_n(&timezone, __ATOMIC_RELAXED); }
    static const char* currentZoneName() { return __atomic_load_n(&tzname[0], __ATOMIC_RELAXED); }
};

const char* textOf(time_t second) {
    static thread_local SecondText last;
    if (!last.fits(second)) last.set(second);
    return last.text;
}

// Three digits.
struct MillisecondText {
    explicit MillisecondText(long value)
        : digits{static_cast<char>('0' + value / 100), static_cast<char>('0' + value / 10 % 10),
                 static_cast<char>('0' + value % 10)} {}
    operator std::string_view() const { return {digits, sizeof digits}; }
    const char digits[3];
};

// Holds standard output for a scope. Tries some times before it sleeps: another thread's line takes
// less time than falling asleep and waking.
class OutputLock {
  public:
    OutputLock() {
        for (int tries = 0; tries < 100; ++tries) {
            if (ftrylockfile(stdout) == 0) return;
        }
        flockfile(stdout);
    }
    ~OutputLock() { funlockfile(stdout); }
    OutputLock(const OutputLock&) = delete;
    OutputLock& operator=(const OutputLock&) = delete;
};

// A line in one piece, so that one call prints it and the stream's lock keeps it together. Needs
// the heap only for a line that no formatted message makes.
class LineBuffer {
  public:
    void append(std::string_view text) {
        if (rest.empty() && used + text.size() <= sizeof buffer) {
            memcpy(buffer + used, text.data(), text.size());
            used += text.size();
        } else {
            rest.append(text);
        }
    }

    // Returns what printf returns.
    int print() {
        if (!rest.empty()) rest.insert(0, buffer, used);
        const char* const data = rest.empty() ? buffer : rest.data();
        const size_t length = rest.empty() ? used : rest.size();
        const OutputLock locked;
        return fwrite(data, 1, length, stdout) == length ? static_cast<int>(length) : -1;
    }

  private:
    char buffer[2304];
    size_t used = 0;
    std::string rest{};
};

LogLevel* valueOrInfo(const std::atomic<LogLevel*>& slot) {
    LogLevel* const value = slot.load(std::memory_order_acquire);
    return value != nullptr ? value : LogLevel::valueOf("INFO");
}

}  // namespace

Logger::Logger(const std::string& name_, const LogLevel& level_) : name(name_), level(level_) {
    setIfUnset(defaultLogLevel, *LogLevel::valueOf("INFO"));
    setIfUnset(masterLogLevel, *LogLevel::valueOf("ALL"));
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

void Logger::errorf(const char* fmt, ...) {
    if (!admits(kError)) return;
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(kError), fmt, args);
    va_end(args);
}

void Logger::warnf(const char* fmt, ...) {
    if (!admits(kWarn)) return;
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(kWarn), fmt, args);
    va_end(args);
}

void Logger::infof(const char* fmt, ...) {
    if (!admits(kInfo)) return;
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(kInfo), fmt, args);
    va_end(args);
}

void Logger::debugf(const char* fmt, ...) {
    if (!admits(kDebug)) return;
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(kDebug), fmt, args);
    va_end(args);
}

void Logger::tracef(const char* fmt, ...) {
    if (!admits(kTrace)) return;
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(kTrace), fmt, args);
    va_end(args);
}

void Logger::write(Number number, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlog(*LogLevel::valueOf(number), fmt, args);
    va_end(args);
}

int Logger::vlog(const LogLevel& messageLevel, const char* fmt, va_list args) {
    char message[2048];
    message[0] = '\0';
    if (fmt != nullptr) formatMessage(message, 2047, fmt, args);
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
    LineBuffer line;
    line.append(textOf(now.tv_sec));
    line.append(".");
    line.append(MillisecondText(now.tv_usec / 1000));
    line.append(" [");
    line.append(name.c_str());
    line.append("]: ");
    line.append(messageLevel.getName().c_str());
    line.append(" ");
    line.append(message);
    line.append("\n");
    const int result = line.print();
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

#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "log/LogLevel.h"

namespace tavrik {

class JSOM;
class LogAdapter;

// Writes the diagnostics of one component, as lines with its name, to standard output or to an
// installed LogAdapter.
//
// A message must pass two filters: the level of its logger and the master level of the process.
//
// Threads: any thread may call any operation, also before main and while the process exits. Lines
// are not mixed. Only getLogger(), visitLoggers() and the configuration take a lock, the
// registry's; only short locks inside LogLevel are taken under it. Logging takes none and is
// allowed under any lock. Ownership: the registry owns the loggers of getLogger() and never deletes
// them.
//
// No operation reports a failure. Results are those of printf, fflush or the adapter.
class Logger {
  public:
    class LoggerVisitor {
      public:
        virtual ~LoggerVisitor() = default;

        // Called on the thread of visitLoggers() with the registry's lock held. Must not call
        // getLogger() or visitLoggers(). May throw.
        virtual void visit(Logger* logger) = 0;
    };

    // Creates a logger outside the registry. The first logger of the process, registered or not,
    // sets the default level to INFO and the master level to ALL, unless they are set.
    Logger(const std::string& name, const LogLevel& level);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger();

    // Returns the logger of that name, which the first call creates with the present default level.
    // Null stands for the empty name. The result stays valid and is never null.
    static Logger* getLogger(const std::string& name);
    static Logger* getLogger(const char* name);

    // Visits the registered loggers in ascending bytewise order of their names. Exceptions of the
    // visitor propagate.
    static void visitLoggers(LoggerVisitor& visitor);

    const std::string& getName() const { return name; }

    // setLevel() changes the level in place.
    const LogLevel& getLevel() const { return level; }
    void setLevel(const LogLevel& newLevel) { level = newLevel; }

    // The level of new loggers (INFO unless set), and the level that no message may exceed (ALL
    // unless set, but INFO before the first logger exists). Never null. Once set, the object
    // changes in place.
    static LogLevel* getDefaultLogLevel();
    static LogLevel* getMasterLogLevel();

    // Copy `newLevel`. A level with the present number changes nothing, whatever its name. Existing
    // loggers keep their level.
    static void setDefaultLogLevel(const LogLevel& newLevel);
    static void setMasterLogLevel(const LogLevel& newLevel);

    // Write one line if both filters admit the level. Cut a message to 2046 characters. Do not
    // format a message that is not admitted.
    void errorf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void warnf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void infof(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void debugf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void tracef(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Write one line, ignoring the filters. vlog() cuts the message to 2046 characters, log() does
    // not.
    int vlog(const LogLevel& messageLevel, const char* fmt, va_list args)
        __attribute__((format(printf, 3, 0)));
    int log(const LogLevel& messageLevel, const char* message);
    int log(const LogLevel& messageLevel, const std::string& message);

    // While buffering is on, which is the default, lines may stay in a buffer until flushAll().
    // disableBuffering() flushes the buffer.
    static void enableBuffering();
    static void disableBuffering();
    static int flushAll();

    // Installs an adapter for all later lines; null restores standard output. Does not own adapters
    // or delete the previous one. Other threads may still be inside the previous one at the return.
    static void setLogAdapter(LogAdapter* adapter);

    // Apply a configuration, an object of which every member may be missing, in this order:
    //
    //     "buffering"   a boolean, or a value that JSOM::booleanValue() reads as one (a string then
    //                   becomes one in the tree); does not flush the buffer
    //     "default"     the name of a level, for setDefaultLogLevel()
    //     "level"       the name of a level, for setMasterLogLevel()
    //     "categories"  an object: names of loggers, created if needed, and of their levels;
    //                   applied from the last to the first
    //     "adapter"     an object with a member "type": installs the adapter that the factory of
    //                   that type creates from it; without such a factory, standard output
    //
    // Ignores names that are no level, "UNKNOWN" included. Lines of other threads see each setting
    // either as it was or as it becomes.
    //
    // loadConfig() reads the configuration from a file. A file that cannot be read or parsed
    // changes nothing and prints two lines to standard error, the reader's and its own (of an empty
    // file the reader says nothing).
    static void useConfig(const JSOM& config);
    static void loadConfig(const char* path);

  private:
    // The numbers of the levels that have a function.
    enum Number { kError = 2, kWarn = 3, kInfo = 4, kDebug = 5, kTrace = 6 };

    // True if both filters admit a message of that level.
    bool admits(Number number) const {
        return level.getLevel() >= number &&
               masterLogLevel.load(std::memory_order_acquire)->getLevel() >= number;
    }
    // Writes one line, ignoring the filters.
    void write(Number number, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int print(const LogLevel& messageLevel, const char* message) const;

    // Set once and then changed in place, never freed; null while unset.
    static std::atomic<LogLevel*> defaultLogLevel;
    static std::atomic<LogLevel*> masterLogLevel;
    static std::atomic<bool> bufferingEnabled;
    static std::atomic<LogAdapter*> logAdapter;

    // Constant after construction.
    const std::string name;

    // Changed in place on any thread, see LogLevel.
    LogLevel level;
};

// GCC tests the levels at the call: a message that is not admitted costs two comparisons and no
// call. Other compilers, and pointers to these functions, use those of the library.
#if defined(__GNUC__) && !defined(__clang__) && !defined(TAVRIK_LOGGER_OUT_OF_LINE)
#define TAVRIK_TEST_AT_CALL(function, number)                                                \
    inline __attribute__((gnu_inline, always_inline)) void Logger::function(const char* fmt, \
                                                                            ...) {           \
        if (admits(number)) write(number, fmt, __builtin_va_arg_pack());                     \
    }
TAVRIK_TEST_AT_CALL(errorf, kError)
TAVRIK_TEST_AT_CALL(warnf, kWarn)
TAVRIK_TEST_AT_CALL(infof, kInfo)
TAVRIK_TEST_AT_CALL(debugf, kDebug)
TAVRIK_TEST_AT_CALL(tracef, kTrace)
#undef TAVRIK_TEST_AT_CALL
#endif

}  // namespace tavrik

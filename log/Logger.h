#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "log/LogLevel.h"

namespace tavrik {

class JSOM;
class LogAdapter;

// Writes the diagnostics of one component as lines under one name, either to standard output or to
// an installed LogAdapter.
//
// A message passes two filters: the level of its logger and the master level of the process.
//
// Threads: every operation may be called on any thread, before main and while the process exits.
// Lines stay whole. Only getLogger(), visitLoggers() and configuring take a lock, the registry's
// own, after which only the short ones inside LogLevel follow; logging itself takes none, so it may
// be done under any lock. Ownership: loggers made by getLogger() belong to the registry and are
// never deleted.
//
// Nothing is ever reported as a failure; results are those of printf, fflush or the adapter.
class Logger {
  public:
    class LoggerVisitor {
      public:
        virtual ~LoggerVisitor() = default;

        // Called on the thread of visitLoggers() with the registry's lock held: must not call
        // getLogger() or visitLoggers(). May throw.
        virtual void visit(Logger* logger) = 0;
    };

    // A logger outside the registry. The first one of the process, inside the registry or not, sets
    // the default level to INFO and the master level to ALL where they are not set yet.
    Logger(const std::string& name, const LogLevel& level);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger();

    // The logger of that name, created with the present default level at the first call. The same
    // object at every call, valid for the life of the process; never null.
    static Logger* getLogger(const std::string& name);
    static Logger* getLogger(const char* name);

    // Calls visitor.visit() for each registered logger in ascending bytewise order of the names.
    // What the visitor throws passes through.
    static void visitLoggers(LoggerVisitor& visitor);

    const std::string& getName() const { return name; }

    // The level changes in place when setLevel() is called.
    const LogLevel& getLevel() const { return level; }
    void setLevel(const LogLevel& newLevel) { level = newLevel; }

    // The level that loggers created from now on start with (INFO unless set), and the level that
    // no message of the process may exceed (ALL unless set; but before there is any logger it reads
    // INFO). Never null. Once set, the object stays the same and changes in place.
    static LogLevel* getDefaultLogLevel();
    static LogLevel* getMasterLogLevel();

    // Copy `newLevel`; a level of the present number, whatever its name, changes nothing. Existing
    // loggers keep their own level.
    static void setDefaultLogLevel(const LogLevel& newLevel);
    static void setMasterLogLevel(const LogLevel& newLevel);

    // Write one line if both filters admit the level. A message is cut to 2046 characters. One that
    // is not admitted costs two comparisons and is not formatted.
    void errorf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void warnf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void infof(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void debugf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void tracef(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Write one line whatever the filters say. vlog() cuts the message to 2046 characters, log()
    // does not.
    int vlog(const LogLevel& messageLevel, const char* fmt, va_list args)
        __attribute__((format(printf, 3, 0)));
    int log(const LogLevel& messageLevel, const char* message);
    int log(const LogLevel& messageLevel, const std::string& message);

    // While buffering is on, as it is at first, lines may stay in a buffer until flushAll().
    // disableBuffering() flushes what was buffered.
    static void enableBuffering();
    static void disableBuffering();
    static int flushAll();

    // Installs an adapter, which gets all later lines; null goes back to standard output. The
    // adapter is not owned: neither it nor its predecessor is deleted. Threads that are logging may
    // still be inside the predecessor when this returns.
    static void setLogAdapter(LogAdapter* adapter);

    // Apply a configuration, an object of which every member may be missing, in this order:
    //
    //     "buffering"   a boolean, or what JSOM::booleanValue() takes for one (as which it then
    //                   stands in the tree); does not flush what was buffered
    //     "default"     the name of a level, for setDefaultLogLevel()
    //     "level"       the name of a level, for setMasterLogLevel()
    //     "categories"  an object: the names of loggers, made where there is none, with their
    //                   levels; applied from the last to the first
    //     "adapter"     an object with a member "type": installs what the factory of that type
    //                   makes with this object; standard output where there is no such factory
    //
    // A name that is no level, "UNKNOWN" included, changes nothing. While other threads log, each
    // of their lines sees every setting either as it was or as it becomes.
    //
    // loadConfig() reads the configuration from a file. A file that cannot be read or parsed
    // changes nothing and prints two lines to standard error, the reader's and its own (of an empty
    // file the reader says nothing).
    static void useConfig(const JSOM& config);
    static void loadConfig(const char* path);

  private:
    void vlogIfAdmitted(int number, const char* fmt, va_list args)
        __attribute__((format(printf, 3, 0)));
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

}  // namespace tavrik

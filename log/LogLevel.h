#pragma once

#include <atomic>
#include <string>

namespace tavrik {

// How verbose a message or a logger is: a name and a number. A higher number is more verbose.
//
// Threads: a level may be read, copied and assigned to on several threads at once without a lock; a
// reader sees the old level or the new one, never the name of one with the number of the other.
// Ownership: a value. The names are never freed, so a reference from getName() stays valid for the
// life of the process, also after the level was assigned to.
class LogLevel {
  public:
    // A pointer that _init() sets once, on whatever thread; others may look at it meanwhile.
    class SharedLevel {
      public:
        operator LogLevel*() const { return pointer.load(std::memory_order_acquire); }
        LogLevel* operator->() const { return *this; }

      private:
        friend class LogLevel;
        std::atomic<LogLevel*> pointer{nullptr};
    };

    // Not to be read by static initialisers of other files, which may run before these are set; the
    // rest of the class may.
    static const std::string& OFF_NAME;
    static const std::string& FATAL_NAME;
    static const std::string& ERROR_NAME;
    static const std::string& WARN_NAME;
    static const std::string& INFO_NAME;
    static const std::string& DEBUG_NAME;
    static const std::string& TRACE_NAME;
    static const std::string& UNKNOWN_NAME;
    static const std::string& ALL_NAME;

    // The shared levels, numbered from 0 in this order. Null before _init(), never freed after it.
    // Call _init() before reading one of them, valueOf() does it for its caller.
    static SharedLevel LVL_OFF;
    static SharedLevel LVL_FATAL;
    static SharedLevel LVL_ERROR;
    static SharedLevel LVL_WARN;
    static SharedLevel LVL_INFO;
    static SharedLevel LVL_DEBUG;
    static SharedLevel LVL_TRACE;
    static SharedLevel LVL_UNKNOWN;
    static SharedLevel LVL_ALL;

    // Takes a short lock of its own; copying a level takes none.
    LogLevel(const std::string& name, int level);
    LogLevel(const LogLevel& other);
    LogLevel& operator=(const LogLevel& other);
    virtual ~LogLevel();

    const std::string& getName() const { return record.load(std::memory_order_acquire)->name; }
    int getLevel() const { return record.load(std::memory_order_acquire)->number; }

    // Creates the shared levels at the first call and does nothing at later ones. Any thread, also
    // before main.
    static void _init();

    // The shared level whose name is `name`, in any case of letters. LVL_UNKNOWN for every other
    // text, "UNKNOWN" itself and a null pointer included. Never null.
    static LogLevel* valueOf(const char* name);
    static LogLevel* valueOf(const std::string& name);

    // The shared level of that number; LVL_UNKNOWN when there is none. Never null.
    static LogLevel* valueOf(int level);

  private:
    // What a level is at one moment. Immutable, one for each pair of name and number, never freed:
    // so a level changes with one atomic store.
    struct Record {
        std::string name;
        int number;
        bool operator<(const Record& other) const;
    };

    static const Record* intern(const std::string& name, int number);

    std::atomic<const Record*> record;
};

}  // namespace tavrik

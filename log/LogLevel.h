#pragma once

#include <atomic>
#include <string>

namespace tavrik {

// The verbosity of a message or a logger: a name and a number. A higher number is more verbose.
//
// Threads: threads may read, copy and assign a level at the same time without a lock. A reader sees
// the old level or the new one, never a mix. Ownership: a value. Names are never freed: a reference
// from getName() stays valid, also after an assignment.
class LogLevel {
  public:
    // A pointer that _init() sets once. Other threads may read it at the same time.
    class SharedLevel {
      public:
        operator LogLevel*() const { return pointer.load(std::memory_order_acquire); }
        LogLevel* operator->() const { return *this; }

      private:
        friend class LogLevel;
        std::atomic<LogLevel*> pointer{nullptr};
    };

    // Static initialisers of other files must not read these: they may run first. They may use the
    // rest of the class.
    static const std::string& OFF_NAME;
    static const std::string& FATAL_NAME;
    static const std::string& ERROR_NAME;
    static const std::string& WARN_NAME;
    static const std::string& INFO_NAME;
    static const std::string& DEBUG_NAME;
    static const std::string& TRACE_NAME;
    static const std::string& UNKNOWN_NAME;
    static const std::string& ALL_NAME;

    // The shared levels, numbered from 0 in this order. Null until _init(), never freed. Call
    // _init() before you use one; valueOf() does.
    static SharedLevel LVL_OFF;
    static SharedLevel LVL_FATAL;
    static SharedLevel LVL_ERROR;
    static SharedLevel LVL_WARN;
    static SharedLevel LVL_INFO;
    static SharedLevel LVL_DEBUG;
    static SharedLevel LVL_TRACE;
    static SharedLevel LVL_UNKNOWN;
    static SharedLevel LVL_ALL;

    // Takes a short lock. Copying a level takes none.
    LogLevel(const std::string& name, int level);
    LogLevel(const LogLevel& other);
    LogLevel& operator=(const LogLevel& other);
    virtual ~LogLevel();

    const std::string& getName() const { return record.load(std::memory_order_acquire)->name; }
    int getLevel() const { return record.load(std::memory_order_acquire)->number; }

    // Creates the shared levels; later calls do nothing. Any thread, also before main.
    static void _init();

    // Returns the shared level of that name, ignoring case. Returns LVL_UNKNOWN for other texts,
    // "UNKNOWN" and null included. Never null.
    static LogLevel* valueOf(const char* name);
    static LogLevel* valueOf(const std::string& name);

    // Returns the shared level of that number, LVL_UNKNOWN if there is none. Never null.
    static LogLevel* valueOf(int level);

  private:
    // The value of a level. Immutable, never freed, one for each pair of name and number: so a
    // level changes with one atomic store.
    struct Record {
        std::string name;
        int number;
        bool operator<(const Record& other) const;
    };

    static const Record* intern(const std::string& name, int number);

    std::atomic<const Record*> record;
};

}  // namespace tavrik

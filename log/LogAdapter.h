#pragma once

#include <string>

#include "json/JSOM.h"
#include "log/LogLevel.h"

namespace tavrik {

// Takes over the output of every logger once it is installed with Logger::setLogAdapter().
//
// Threads: every operation is called on whatever thread logs or flushes, several at once, and
// whatever locks that thread holds; an adapter guards its own state and must not call back into the
// component that logs. Ownership: the installer keeps it alive for as long as any thread may log.
//
// The results are handed back by Logger::log() and Logger::flushAll(), whose callers ignore them.
class LogAdapter {
  public:
    virtual ~LogAdapter() = default;

    // Write one line. `level` and `message` are valid during the call only; `buffering` is false
    // when the line must not stay in a buffer.
    virtual int log(const LogLevel& level, const std::string& loggerName, const char* message,
                    bool buffering) = 0;
    virtual int log(const LogLevel& level, const std::string& loggerName,
                    const std::string& message, bool buffering) = 0;

    // Write out what was buffered.
    virtual int flush() = 0;
};

// Makes the adapters of one type for a logger configuration; see LogAdapterStore.
class LogAdapterFactory {
  public:
    virtual ~LogAdapterFactory() = default;

    // A new adapter, which stays installed and is never deleted, or null. `config` is the
    // configuration's "adapter" object, the caller's to keep.
    virtual LogAdapter* create(const JSOM& config) = 0;
};

}  // namespace tavrik

#include "diag_lsm/src/diagnostics.h"

#include <cstdarg>
#include <cstdio>

#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/src/StaticMutex.h"

inline namespace tavrik_diag_lsm {

namespace {

// Guards the sink's buffer; innermost.
StaticMutex diagnostics_mutex;
char diagnostics[256] TAVRIK_GUARDED_BY(diagnostics_mutex);

}  // namespace

tavrik::Logger* diag_logger() {
    static tavrik::Logger* const logger = tavrik::Logger::getLogger("DIAG");
    return logger;
}

int qsprintf(const char* fmt, ...) {
    diag_logger();
    StaticMutexLock guard(diagnostics_mutex);
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(diagnostics, sizeof diagnostics, fmt, args);
    va_end(args);
    return length;
}

}  // namespace tavrik_diag_lsm

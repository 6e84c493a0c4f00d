// The logger for what a person should know. Other diagnostics go to qsprintf().
#pragma once

#include "log/Logger.h"

inline namespace tavrik_diag_lsm {

// The logger "DIAG"; any thread.
tavrik::Logger* diag_logger(void);

}  // namespace tavrik_diag_lsm

// The logger of what a person should know; everything else goes to qsprintf().
#pragma once

#include "log/Logger.h"

inline namespace tavrik_diag_lsm {

// The logger "DIAG"; any thread.
tavrik::Logger* diag_logger(void);

}  // namespace tavrik_diag_lsm

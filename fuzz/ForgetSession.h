// For targets that start every input with a session that has not failed yet.
#pragma once

#include "diag_lsm/diag_lsm.h"
#include "fuzz/Session.h"

namespace fuzz {

// Closes the session if it is open, and forgets what would stay for the process: that it failed,
// and what is never answered. Nobody uses it meanwhile.
inline void forgetSession() {
    if (fd != -1) Diag_LSM_DeInit();
    mustHold(!device().isOpen(), "the device is closed");
    tavrik::DIAG::instance()->resetForTesting();
    tavrik::ADSPPM::instance()->resetForTesting();
}

}  // namespace fuzz

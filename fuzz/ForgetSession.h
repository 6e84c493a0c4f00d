// For targets that start every input with a fresh session.
#pragma once

#include "diag_lsm/diag_lsm.h"
#include "fuzz/Session.h"

namespace fuzz {

// Closes the session if it is open and resets what outlives it: the failed state and unanswered
// requests. No other thread may use the session meanwhile.
inline void forgetSession() {
    if (fd != -1) Diag_LSM_DeInit();
    mustHold(!device().isOpen(), "de-initialisation closes the device");
    tavrik::DIAG::instance()->resetForTesting();
    tavrik::ADSPPM::instance()->resetForTesting();
}

}  // namespace fuzz

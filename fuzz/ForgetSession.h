// For targets that start every input with a session that has not failed yet. They are compiled with
// -fno-access-control: nobody else can.
#pragma once

#include "diag_lsm/diag_lsm.h"
#include "fuzz/Session.h"

namespace fuzz {

// Closes the session if it is open, and forgets what would stay for the process: that it failed,
// and what is never answered. Nobody uses it meanwhile.
inline void forgetSession() {
    if (fd != -1) Diag_LSM_DeInit();
    mustHold(!device().isOpen(), "the device is closed");
    tavrik::DIAG& diag = *tavrik::DIAG::instance();
    tavrik::LockGuard listenersGuard(diag.listenerLock);
    tavrik::LockGuard requestsGuard(diag.requestLock);
    diag.requests.clear();
    diag.logListeners.clear();
    diag.connected = diag.inError = false;
    diag.switchModeByPointer = true;
    tavrik::ADSPPM& adsppm = *tavrik::ADSPPM::instance();
    tavrik::LockGuard guard(adsppm.lock);
    adsppm.state = tavrik::ADSPPM::idle;
}

}  // namespace fuzz

// What the device delivers for one request: the answer, its company, and what goes wrong with it.
#pragma once

#include <string>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/model/Adsp.h"

namespace diagsim {

// One step of the device end of the connection.
struct Outgoing {
    enum class Action { kBuffer, kFailRead, kHangUp };

    Action action = Action::kBuffer;
    Bytes bytes{};
    bool callbackModeOnly = false;  // dropped unless the driver is in callback mode
    std::string line{};             // of the trace, for what is not decoded from the bytes
    std::string who{};              // whose line it is
};

// A buffer of data type 32 with one framed payload, for the local processor.
Outgoing frameBuffer(const Bytes& payload);

// A buffer delivered as it is, in any mode.
Outgoing wholeBuffer(const Bytes& buffer);

// A read that fails.
Outgoing failedRead();

// Everything that follows a request with this answer and this fault, in order. `adsp` makes the
// additional log packets.
std::vector<Outgoing> composeDelivery(const Bytes& answer, const Fault& fault, Adsp& adsp);

}  // namespace diagsim

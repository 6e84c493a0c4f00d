// What the device delivers for one request: the answer, its company, and what goes wrong with it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/model/Adsp.h"

namespace diagsim {

// "title, 8 bytes: 7D 05 ...".
std::string describe(const std::string& title, const Bytes& bytes);

// One step of the device end of the connection.
struct Outgoing {
    enum class Action { kBuffer, kFailRead, kHangUp };

    // A line of the trace, formatted on delivery.
    struct Line {
        std::string title{};
        std::optional<Bytes> bytes{};

        std::string text() const { return bytes ? describe(title, *bytes) : title; }
    };

    Action action = Action::kBuffer;
    Bytes bytes{};
    bool callbackModeOnly = false;  // dropped unless the driver is in callback mode
    std::string who{};              // the trace's second column
    std::vector<Line> lines{};
};

// A buffer of data type 32 with one framed payload, for the local processor.
Outgoing frameBuffer(const char* who, const std::string& title, const Bytes& payload);

// A buffer delivered as it is, in any mode.
Outgoing wholeBuffer(const char* who, const std::string& title, const Bytes& buffer);

// Everything that follows a request with this answer and this fault, in order. `adsp` makes the
// additional log packets.
std::vector<Outgoing> composeDelivery(const Answer& answer, const Fault& fault, Adsp& adsp);

}  // namespace diagsim

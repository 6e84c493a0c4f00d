// The decoded lines of a capture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/model/Capture.h"

namespace diagtap {

struct ShownLine {
    uint64_t time = 0;  // nanoseconds since the capture's first call
    std::string who{};
    std::string text{};
};

// One line for each message, as the simulated device's trace has them.
std::vector<ShownLine> linesOf(const diagsim::Capture& capture);

// "     0.084 ms  host    open /dev/diag (O_RDWR|O_CLOEXEC) => ok".
std::string format(const ShownLine& line);

}  // namespace diagtap

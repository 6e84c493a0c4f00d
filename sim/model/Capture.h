// Captures of the calls on the node, as the driver client writes them (docs/capture.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/Bytes.h"

namespace diagsim {

struct CapturedCall {
    enum class Kind : uint8_t { kOpen = 1, kClose, kRead, kWrite, kIoctl };

    Kind kind = Kind::kOpen;
    uint32_t thread = 0;
    int32_t result = 0;
    int32_t error = 0;      // errno; 0 unless the call failed
    uint32_t argument = 0;  // flags of an open, request of an ioctl
    uint64_t duration = 0;  // nanoseconds
    uint64_t time = 0;  // nanoseconds since 1970: of a read its return, of the others their begin
    Bytes data{};
};

struct Capture {
    std::string program{};
    std::string hardware{};
    std::string system{};
    std::vector<CapturedCall> calls{};  // ordered by time
    std::string problem{};  // one line: where the file cannot be read on, and why; empty: nowhere
};

// Reads what can be read.
Capture readCapture(const Bytes& file);

// The same from a file; its problem begins with the file's name.
Capture loadCapture(const std::string& path);

}  // namespace diagsim

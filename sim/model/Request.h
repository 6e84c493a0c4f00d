// The diagnostic requests that the ADSP understands.
#pragma once

#include <string>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/Wire.h"

namespace diagsim {

// Operation word of a log configuration packet.
enum LogOperation : uint32_t { kLogDisable = 0, kLogRanges = 1, kLogSetMask = 3 };

// In the order of the table in Request.cpp.
enum class RequestKind {
    kMessageMasks,
    kEventReport,
    kLogDisable,
    kLogRanges,
    kLoopback,
    kLogMask,
    kStart,
    kStop,
    kLogMaskClear,
    kUnknown,
};
constexpr size_t kRequestKinds = 10;

// One request as it came, decoded.
struct Request {
    RequestKind kind = RequestKind::kUnknown;
    Bytes bytes{};
    std::string detail{};     // for people, e.g. "0x1645"; may be empty
    std::string objection{};  // why the ADSP refuses it; empty when it is well-formed
};

// Decodes and checks a request packet byte by byte; `ranges` are the item ranges that its log mask
// has to match.
Request decodeRequest(const Bytes& bytes, const Scenario::Ranges& ranges);

// The request's name in a scenario, e.g. "log_mask"; "unknown" for an unknown one.
const char* requestKey(RequestKind kind);

// The request's name for people, e.g. "log mask".
const char* requestTitle(RequestKind kind);

// Every name that a scenario file may use, "any" included, in the order of RequestKind.
const std::vector<std::string>& requestKeys();

}  // namespace diagsim

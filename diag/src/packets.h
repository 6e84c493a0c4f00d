// The packets that the session itself sends and takes apart; for the .cpp files of this folder.
#pragma once

#include <cstdint>

#include "diag_lsm/diag_bytes.h"

namespace tavrik {

using Byte = unsigned char;

constexpr Byte kLogPacketCommand = 0x10;
constexpr Byte kEventReportCommand = 0x60;
constexpr Byte kLogConfigCommand = 0x73;
constexpr Byte kMessageConfigCommand = 0x7D;

// Operations of the log configuration.
constexpr uint32_t kLogDisable = 0;
constexpr uint32_t kLogRetrieveRanges = 1;
constexpr uint32_t kLogSetMask = 3;

// Whether the answer to a log configuration reports success. It has at least 12 bytes.
inline bool isLogConfigurationDone(const Byte* rsp, uint32_t operation) {
    return diag_get_u32(rsp + 4) == operation && diag_get_u32(rsp + 8) == 0;
}

}  // namespace tavrik

// What a client hands to ioctl on the node, in the layout of its own word size.
#pragma once

#include <cstdint>

namespace diagsim {

constexpr unsigned long kRegisterTables = 0;
constexpr unsigned long kWithdrawTables = 1;
constexpr unsigned long kSwitchMode = 7;
constexpr unsigned long kDelayedResponseId = 8;
constexpr unsigned long kDeinitialise = 9;
constexpr unsigned long kRemoteMask = 32;
constexpr unsigned long kVoteRealTime = 33;
constexpr unsigned long kRealTimeStatus = 34;

struct TableRegistration {
    char name[32];
    uint32_t count;
    const void* records;
};

using LoggingMode = int;
constexpr uintptr_t kLowestPointer = 4096;  // a mode below is no pointer: no page there is mapped

struct DelayedResponseRecord {
    uint8_t* id;
    uint32_t size;  // of the id
    uint32_t* count;
};
using DelayedResponseNumber = uint16_t;

using ProcessorMask = uint16_t;

struct RealTimeVote {
    uint16_t processor;
    uint8_t vote;
    uint8_t unused;
};

}  // namespace diagsim

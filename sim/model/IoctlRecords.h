// What a client hands to ioctl on the node, in the layout of its own word size.
#pragma once

#include <cstdint>
#include <cstring>

#include "sim/Bytes.h"

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

// The object at an address that needs no alignment.
template <typename T>
T readFrom(const void* address) {
    T value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

// The object as it lies in memory.
template <typename T>
Bytes bytesOf(const T& value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// What the client hands to the ioctls that tell the driver something, as in a capture: the bytes of
// its record, or the mode in eight bytes. Of other ioctls, and of null, nothing.
Bytes recordOf(unsigned long request, void* argument);

// Stores what the driver wrote in a recorded ioctl, which stands behind the client's own record in
// `data`. Nothing where the data is too short or the client has no place for it.
void storeAnswer(unsigned long request, void* argument, const Bytes& data);

}  // namespace diagsim

#include "sim/model/IoctlRecords.h"

namespace diagsim {

Bytes recordOf(unsigned long request, void* argument) {
    const auto value = reinterpret_cast<uintptr_t>(argument);
    if (request == kSwitchMode && value < kLowestPointer) return bytesOf(uint64_t{value});
    if (argument == nullptr) return {};
    switch (request) {
        case kRegisterTables:
            return bytesOf(readFrom<TableRegistration>(argument));
        case kSwitchMode:
            return bytesOf(readFrom<LoggingMode>(argument));
        case kVoteRealTime:
            return bytesOf(readFrom<RealTimeVote>(argument));
        default:
            return {};
    }
}

void storeAnswer(unsigned long request, void* argument, const Bytes& data) {
    constexpr size_t kDelayed = sizeof(DelayedResponseNumber) + sizeof(uint32_t);
    const auto behind = [&data](size_t size) { return data.data() + data.size() - size; };
    if (request == kRemoteMask && data.size() == 2 * sizeof(ProcessorMask))
        std::memcpy(argument, behind(sizeof(ProcessorMask)), sizeof(ProcessorMask));
    if (request == kRealTimeStatus && data.size() == 2 * sizeof(int))
        std::memcpy(argument, behind(sizeof(int)), sizeof(int));
    if (request != kDelayedResponseId || data.size() <= kDelayed) return;
    const auto record = readFrom<DelayedResponseRecord>(argument);
    if (record.id == nullptr || record.count == nullptr) return;
    std::memcpy(record.id, behind(kDelayed), sizeof(DelayedResponseNumber));
    std::memcpy(record.count, behind(sizeof(uint32_t)), sizeof(uint32_t));
}

}  // namespace diagsim

#include "sim/model/Response.h"

#include <algorithm>

#include "sim/Wire.h"

namespace diagsim {
namespace {

using Verdict = Response::Verdict;

constexpr size_t kRecord = 4;         // where the record begins in the packet
constexpr size_t kMaskInAnswer = 20;  // where the mask stands in the answer that repeats it

Verdict verdictOf(bool accepted) { return accepted ? Verdict::kAccepted : Verdict::kRefused; }

template <typename Number>
void take(std::optional<Number>& field, const Bytes& packet, size_t offset) {
    if (packet.size() < offset + sizeof(Number)) return;
    field = static_cast<Number>(wordAt(packet, offset, sizeof(Number)));
}

RequestKind logConfigKind(const Bytes& payload) {
    switch (wordAt(payload, 4, 4)) {
        case kLogDisable:
            return RequestKind::kLogDisable;
        case kLogRanges:
            return RequestKind::kLogRanges;
        case kLogSetMask: {
            const bool hasMask = payload.size() > kMaskInAnswer;
            const auto mask = payload.begin() + (hasMask ? kMaskInAnswer : 0);
            const auto isZero = [](uint8_t byte) { return byte == 0; };
            const bool clear = hasMask && std::all_of(mask, payload.end(), isZero);
            return clear ? RequestKind::kLogMaskClear : RequestKind::kLogMask;
        }
        default:
            return RequestKind::kUnknown;
    }
}

Response decodeLogConfigResponse(const Bytes& payload) {
    constexpr size_t kRanges = 12;
    constexpr size_t kRangesEnd = kRanges + 4 * Scenario::kEquipmentIds;
    if (payload.size() < 8) return {};
    const RequestKind kind = logConfigKind(payload);
    const bool ranges = kind == RequestKind::kLogRanges;
    if (payload.size() < (ranges ? kRangesEnd : kRanges)) return {kind, Verdict::kShort};
    return {kind, verdictOf(wordAt(payload, 8, 4) == 0)};
}

Response decodeSubsystemResponse(const Bytes& payload) {
    const uint64_t id = wordAt(payload, 1, 1);
    const uint64_t command = wordAt(payload, 2, 2);
    if (payload.size() < 4) return {};
    if (id == 0x12 && command == 0x002A) {
        return {RequestKind::kLoopback, payload.size() < 12 ? Verdict::kShort : Verdict::kAccepted};
    }
    if (id != 0x0C || command != 0x0404) return {};
    if (payload.size() < 8) return {RequestKind::kStart, Verdict::kShort};
    return {RequestKind::kStart, verdictOf(wordAt(payload, 4, 4) == 1)};
}

Response decodeMessageConfigResponse(const Bytes& payload) {
    if (payload.size() < 3) return {RequestKind::kMessageMasks, Verdict::kShort};
    if (payload[1] != 5) return {};
    return {RequestKind::kMessageMasks, verdictOf(payload[2] == 1)};
}

Response decodeEventReportResponse(const Bytes& payload) {
    if (payload.size() < 3) return {RequestKind::kEventReport, Verdict::kShort};
    return {RequestKind::kEventReport, verdictOf(wordAt(payload, 1, 2) == 0)};
}

}  // namespace

Response decodeResponse(const Bytes& payload) {
    switch (wordAt(payload, 0, 1)) {
        case kMessageConfigCommand:
            return decodeMessageConfigResponse(payload);
        case kEventReportCommand:
            return decodeEventReportResponse(payload);
        case kLogConfigCommand:
            return decodeLogConfigResponse(payload);
        case kSubsystemCommand:
            return decodeSubsystemResponse(payload);
        default:
            return {};
    }
}

const char* verdictName(Verdict verdict) {
    constexpr const char* kNames[] = {"accepted", "refused", "short"};
    return kNames[static_cast<size_t>(verdict)];
}

bool isLogPacket(const Bytes& payload) {
    return !payload.empty() && payload[0] == kLogPacketCommand;
}

LogRecord decodeLogPacket(const Bytes& payload) {
    LogRecord record;
    take(record.code, payload, kRecord + 2);
    take(record.time, payload, kRecord + 4);
    if (record.code != kPowerLogCode) return record;
    take(record.version, payload, kRecord + 12);
    for (size_t i = 0; i < LogRecord::kSlots; ++i)
        take(record.slots[i], payload, kRecord + 20 + 4 * i);
    take(record.busHz, payload, kRecord + 36);
    take(record.clockKhz, payload, kRecord + 40);
    for (size_t i = 0; i < LogRecord::kTotals; ++i)
        take(record.totals[i], payload, kRecord + 44 + 8 * i);
    return record;
}

uint64_t adspMicroseconds(uint64_t stamp) {
    return (stamp >> 16) * 1250 + (stamp & 0xFF) * 25 / 1000;
}

}  // namespace diagsim

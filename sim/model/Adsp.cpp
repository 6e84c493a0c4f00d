#include "sim/model/Adsp.h"

#include <algorithm>
#include <ctime>

namespace diagsim {
namespace {

constexpr int64_t kGpsEpoch = 315964800;  // 6 January 1980 in Unix seconds
constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerUs = 1000;
constexpr uint64_t kNsPerUnit = 1250000;
constexpr uint64_t kNsPerSubUnit = 25;
constexpr size_t kEchoedBytes = 16;
constexpr size_t kRecordHeader = 12;
constexpr size_t kSlots = 4;

constexpr uint32_t kStatusGood = 0;
constexpr uint32_t kStatusBad = 1;

Bytes errorAnswer(const Bytes& request) {
    const size_t echoed = std::min(request.size(), kEchoedBytes);
    Bytes packet(1 + echoed, kErrorCommand);
    std::copy_n(request.begin(), echoed, packet.begin() + 1);
    return packet;
}

Bytes logConfigAnswer(uint32_t operation, bool good) {
    Bytes packet{kLogConfigCommand, 0, 0, 0};
    appendWord(packet, operation, 4);
    appendWord(packet, good ? kStatusGood : kStatusBad, 4);
    return packet;
}

Bytes rangesAnswer(bool good, const Scenario::Ranges& ranges) {
    Bytes packet = logConfigAnswer(kLogRanges, good);
    for (uint32_t range : ranges)
        appendWord(packet, good ? range : 0, 4);
    return packet;
}

// The target repeats equipment id, item count and mask behind the status.
Bytes maskAnswer(bool good, const Bytes& request) {
    Bytes packet = logConfigAnswer(kLogSetMask, good);
    packet.insert(packet.end(), request.begin() + 8, request.end());
    return packet;
}

Bytes collectionAnswer(bool good) {
    Bytes packet{kSubsystemCommand, 0x0C, 0x04, 0x04};
    appendWord(packet, good ? 1 : 0, 4);
    return packet;
}

// Nanoseconds of the host since 6 January 1980.
int64_t hostTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return (static_cast<int64_t>(now.tv_sec) - kGpsEpoch) * kNsPerSecond + now.tv_nsec;
}

}  // namespace

Adsp::Adsp(const Scenario& scenario)
    : ranges_(scenario.ranges),
      setup_(scenario.adsp),
      begin_(hostTime()),
      collecting_(scenario.adsp.collecting) {}

uint64_t Adsp::time() const {
    const int64_t now = hostTime();
    const int64_t drift = (now - begin_) / kNsPerUs * setup_.clockDriftPpm / 1000;
    const int64_t shifted = now + drift + setup_.clockOffsetMs * kNsPerMs;
    const auto ns = static_cast<uint64_t>(std::max<int64_t>(shifted, 0));
    return ns / kNsPerUnit << 16 | ns % kNsPerUnit / kNsPerSubUnit;
}

Bytes Adsp::execute(const Request& request, bool refuse) {
    if (!request.objection.empty()) return errorAnswer(request.bytes);
    if (!refuse) apply(request);
    return answerPacket(request, !refuse);
}

Bytes Adsp::answerPacket(const Request& request, bool good) const {
    switch (request.kind) {
        case RequestKind::kMessageMasks:
            return {kMessageConfigCommand, 5, static_cast<uint8_t>(good ? 1 : 0), 0, 0, 0, 0, 0};
        case RequestKind::kEventReport:
            return {kEventReportCommand, static_cast<uint8_t>(good ? 0 : 1), 0};
        case RequestKind::kLogDisable:
            return logConfigAnswer(kLogDisable, good);
        case RequestKind::kLogRanges:
            return rangesAnswer(good, ranges_);
        case RequestKind::kLogMask:
        case RequestKind::kLogMaskClear:
            return maskAnswer(good, request.bytes);
        case RequestKind::kLoopback:
            return good ? loopbackAnswer() : errorAnswer(request.bytes);
        case RequestKind::kStart:
        case RequestKind::kStop:
            return collectionAnswer(good);
        case RequestKind::kUnknown:
            break;
    }
    return errorAnswer(request.bytes);
}

Bytes Adsp::loopbackAnswer() const {
    Bytes packet{kSubsystemCommand, 0x12, 0x2A, 0x00};
    appendWord(packet, time(), 8);
    return packet;
}

void Adsp::apply(const Request& request) {
    switch (request.kind) {
        case RequestKind::kLogDisable:
            logMasks_.clear();
            return;
        case RequestKind::kLogMask:
        case RequestKind::kLogMaskClear:
            logMasks_[wordAt(request.bytes, 8, 4)] =
                Bytes(request.bytes.begin() + 16, request.bytes.end());
            return;
        case RequestKind::kStart:
            collecting_ = true;
            slots_.assign(request.bytes.begin() + 12, request.bytes.begin() + 16);
            requestedPeriod_ = std::chrono::milliseconds(wordAt(request.bytes, 16, 4));
            return;
        case RequestKind::kStop:
            collecting_ = false;
            return;
        default:
            return;
    }
}

std::chrono::microseconds Adsp::period() const {
    const std::chrono::microseconds fixed(setup_.periodUs);
    const std::chrono::microseconds shortest(1);
    return std::max(fixed.count() > 0 ? fixed : requestedPeriod_, shortest);
}

bool Adsp::wantsLogs() const {
    if (setup_.ignoreLogMask) return true;
    const auto mask = logMasks_.find(kPowerLogCode >> 12);
    if (mask == logMasks_.end()) return false;
    const size_t item = kPowerLogCode & 0x0FFF;
    return item / 8 < mask->second.size() && (mask->second[item / 8] >> (item % 8) & 1) != 0;
}

Bytes Adsp::logPacket() {
    ++packets_;
    Bytes record(kRecordHeader, 0);
    setWord(record, 2, kPowerLogCode, 2);
    setWord(record, 4, time(), 8);
    append(record, {setup_.version, 0, 0, 0});
    append(record, slots_);
    for (size_t i = 0; i < kSlots; ++i) {
        appendWord(record, slots_[i] == 0 ? 0 : packets_ * 1000 * (i + 1), 4);
    }
    appendWord(record, 400000000, 4);  // memory bus, Hz
    appendWord(record, setup_.clockKhz, 4);
    for (uint64_t counter = 1; counter <= 5; ++counter) {
        appendWord(record, packets_ * 10000 * counter, 8);
    }
    record.resize(setup_.recordLength, 0);
    const size_t claimed =
        setup_.claimedLength < 0 ? setup_.recordLength : static_cast<size_t>(setup_.claimedLength);
    setWord(record, 0, claimed, 2);
    Bytes packet{kLogPacketCommand, 0};
    appendWord(packet, record.size(), 2);
    append(packet, record);
    return packet;
}

}  // namespace diagsim

// The calls of a driver whose answers come from a capture.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "sim/model/Driver.h"
#include "sim/model/IoctlRecords.h"

namespace diagsim {
namespace {

constexpr const char* kHost = "host";

std::string recordedText(const CapturedCall* call) {
    if (call == nullptr) return "nothing more";
    switch (call->kind) {
        case CapturedCall::Kind::kOpen:
            return describeOpen(static_cast<int>(call->argument));
        case CapturedCall::Kind::kIoctl:
            return describeIoctl(call->argument, call->data);
        default:
            return Decoder(Scenario{}.ranges).write(call->data);
    }
}

}  // namespace

Driver::Result Driver::replayOpen(int flags, int fd, Time now) {
    const std::string call = describeOpen(flags);
    const Replay::Recorded* const found = findRecorded(CapturedCall::Kind::kOpen, 0, {}, call, now);
    if (found == nullptr) return refuseOpen(flags, ENODEV, "no more opens were recorded");
    if (found->call->result < 0) return refuseOpen(flags, found->call->error, "");
    flags_ = flags;
    trace_.line(kHost, call + " => ok");
    return {fd, 0};
}

Driver::Result Driver::replayWrite(const std::string& call, const Bytes& data, Time now) {
    ++replayed_;
    const Replay::Recorded* const found =
        findRecorded(CapturedCall::Kind::kWrite, 0, data, call, now);
    const long value = found != nullptr ? found->call->result : 0;
    const int error = found != nullptr ? found->call->error : 0;
    trace_.line(kHost, call + describeResult(value, error));
    return {value, error, found != nullptr && found->sawRead};
}

Driver::Result Driver::replayIoctl(unsigned long request, void* argument, Time now) {
    const bool byValue = reinterpret_cast<uintptr_t>(argument) < kLowestPointer;
    const Bytes data = recordOf(request, argument);
    const std::string call = describeIoctl(request, data);
    const Replay::Recorded* const found =
        findRecorded(CapturedCall::Kind::kIoctl, static_cast<uint32_t>(request), data, call, now);
    if (found == nullptr) return refuse(call, EINVAL, "not recorded");
    const CapturedCall& recorded = *found->call;
    if (!byValue && recorded.result >= 0) storeAnswer(request, argument, recorded.data);
    if (request == kSwitchMode && recorded.result >= 0)
        mode_ = static_cast<int>(wordAt(data, 0, sizeof mode_));
    trace_.line(kHost, describeIoctl(request, recorded.data) +
                           describeResult(recorded.result, recorded.error));
    return {recorded.result, recorded.error};
}

const Replay::Recorded* Driver::findRecorded(CapturedCall::Kind kind, uint32_t argument,
                                             const Bytes& data, const std::string& call, Time now) {
    const Replay::Recorded* const found = replay_->find(kind, argument, data);
    const CapturedCall* const expected = replay_->expected();
    if (!differed_ && (expected != nullptr || found == nullptr)) {
        differed_ = true;
        trace_.line("driver", "replay: request " + std::to_string(replayed_) + " differs: " + call +
                                  ", recorded: " + recordedText(expected));
    }
    if (found == nullptr) return nullptr;
    hasten(now);
    for (const Replay::Later& later : found->reads) {
        Outgoing outgoing = wholeBuffer(later.read->data);
        if (later.read->result < 0) outgoing = failedRead();
        enqueue(std::move(outgoing), now + later.distance);
    }
    return found;
}

// A client that is faster than the recorded one still gets first what the recorded one got first.
void Driver::hasten(Time now) {
    std::multimap<Time, Outgoing> hastened;
    for (auto& [due, outgoing] : queue_)
        hastened.emplace(std::min(due, now), std::move(outgoing));
    queue_ = std::move(hastened);
}

}  // namespace diagsim

#include "sim/model/Replay.h"

#include <algorithm>
#include <cerrno>

#include "sim/model/IoctlRecords.h"

namespace diagsim {
namespace {

using Kind = CapturedCall::Kind;

bool isEqual(const CapturedCall& call, Kind kind, uint32_t argument, const Bytes& data) {
    if (call.kind != kind) return false;
    if (kind == Kind::kOpen) return true;
    if (kind == Kind::kWrite) return call.data == data;
    return call.argument == argument && (argument != kSwitchMode || call.data == data);
}

}  // namespace

Replay::Replay(std::shared_ptr<const Capture> capture, int speed) : capture_(std::move(capture)) {
    for (const CapturedCall& call : capture_->calls) {
        if (call.kind == Kind::kClose) continue;
        if (call.kind != Kind::kRead) {
            script_.push_back({&call, {}});
            continue;
        }
        // The client's own signal, which it sends again.
        const bool interrupted = call.result < 0 && call.error == EINTR;
        if (script_.empty() || interrupted) continue;
        addRead(script_.back(), call, speed);
    }
}

// What was read in one go comes in one go: a pause within would let a request in between.
void Replay::addRead(Recorded& to, const CapturedCall& read, int speed) {
    constexpr std::chrono::microseconds kOneGo(200);
    constexpr uint64_t kLongestNs = uint64_t{3600} * 1000000000;
    const uint64_t gap = read.time - to.call->time;
    const uint64_t left = gap > to.call->duration ? gap - to.call->duration : 0;
    std::chrono::nanoseconds distance(std::min(left, kLongestNs));
    if (gap < to.call->duration) to.sawRead = true;
    if (!to.reads.empty() && distance - to.lastGo < kOneGo) {
        distance = to.lastGo;
    }
    to.lastGo = distance;
    to.reads.push_back({speed > 0 ? distance / speed : std::chrono::nanoseconds(0), &read});
}

const Replay::Recorded* Replay::find(Kind kind, uint32_t argument, const Bytes& data) {
    const auto begin = script_.begin() + static_cast<std::ptrdiff_t>(next_);
    const auto found = std::find_if(begin, script_.end(), [&](const Recorded& recorded) {
        return isEqual(*recorded.call, kind, argument, data);
    });
    expected_ = found == begin || begin == script_.end() ? nullptr : begin->call;
    if (found == script_.end()) return nullptr;
    next_ = static_cast<size_t>(found - script_.begin()) + 1;
    return &*found;
}

}  // namespace diagsim

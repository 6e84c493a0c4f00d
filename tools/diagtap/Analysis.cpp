#include "tools/diagtap/Analysis.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <deque>
#include <iterator>

#include "sim/Wire.h"
#include "sim/model/Decoder.h"
#include "sim/model/IoctlRecords.h"

namespace diagtap {
namespace {

using diagsim::Bytes;
using diagsim::CapturedCall;
using diagsim::Frame;
using diagsim::RequestKind;
using diagsim::wordAt;

constexpr uint64_t kLongestWaitNs = 250000000;  // of the client, for one answer
constexpr int kCallbackMode = 6;
constexpr int64_t kGpsEpochUs = 315964800LL * 1000000;  // 6 January 1980 in Unix time
constexpr int kMasks = 3;

StepId stepOf(RequestKind kind) {
    switch (kind) {
        case RequestKind::kMessageMasks:
            return StepId::kMessageMasks;
        case RequestKind::kEventReport:
            return StepId::kEventReport;
        case RequestKind::kLogDisable:
            return StepId::kLogDisable;
        case RequestKind::kLogRanges:
            return StepId::kLogRanges;
        case RequestKind::kLoopback:
            return StepId::kLoopback;
        case RequestKind::kLogMask:
            return StepId::kLogMask;
        case RequestKind::kStart:
            return StepId::kStart;
        case RequestKind::kStop:
            return StepId::kStop;
        default:
            return StepId::kLogMaskClear;
    }
}

// One try of a step. A step shows its first try that went wrong, else its first.
void put(Step& step, const Step& tried) {
    const int count = step.count + 1;
    if (step.count == 0 || (step.state == State::kOk && tried.state != State::kOk)) step = tried;
    step.count = count;
}

// Whether two answers share their form: the bytes do not tell a start's from a stop's.
bool answers(RequestKind form, RequestKind asked) {
    const bool collection = asked == RequestKind::kStart || asked == RequestKind::kStop;
    const bool mask = asked == RequestKind::kLogMask || asked == RequestKind::kLogMaskClear;
    if (collection) return form == RequestKind::kStart;
    if (mask) return form == RequestKind::kLogMask || form == RequestKind::kLogMaskClear;
    return form == asked;
}

class SessionReader {
  public:
    using Call = std::vector<CapturedCall>::const_iterator;

    SessionReader(Call begin, Call end) : begin_(begin), end_(end) { session_.begin = begin->time; }

    Session read() {
        for (Call call = begin_; call != end_; ++call)
            take(*call);
        const CapturedCall& last = *std::prev(end_);
        const bool read = last.kind == CapturedCall::Kind::kRead;
        session_.end = since(last.time) + (read ? 0 : last.duration);
        finish();
        return std::move(session_);
    }

  private:
    struct Pending {
        RequestKind kind;
        Step step;
    };

    uint64_t since(uint64_t time) const { return time - session_.begin; }

    void take(const CapturedCall& call) {
        switch (call.kind) {
            case CapturedCall::Kind::kOpen:
                return takeCall(StepId::kOpen, call, 0);
            case CapturedCall::Kind::kClose:
                return takeCall(StepId::kClose, call, 0);
            case CapturedCall::Kind::kRead:
                return takeRead(call);
            case CapturedCall::Kind::kWrite:
                return takeWrite(call);
            case CapturedCall::Kind::kIoctl:
                return takeIoctl(call);
        }
    }

    Step stepFrom(const CapturedCall& call) const {
        Step step;
        step.time = since(call.time);
        step.duration = call.duration;
        step.state = call.result < 0 ? State::kDriverError : State::kOk;
        step.error = call.error;
        return step;
    }

    // The client repeats what a signal interrupted.
    void takeCall(StepId id, const CapturedCall& call, int lowest) {
        if (call.result < 0 && call.error == EINTR) return;
        Step step = stepFrom(call);
        if (call.result >= 0 && call.result < lowest) step.state = State::kRefused;
        put(session_[id], step);
    }

    void takeIoctl(const CapturedCall& call) {
        // Of a client that goes on without a descriptor.
        if (session_[StepId::kOpen].state != State::kOk) return;
        switch (call.argument) {
            case diagsim::kSwitchMode:
                return takeMode(call);
            case diagsim::kWithdrawTables:
                return takeCall(StepId::kWithdraw, call, 1);
            case diagsim::kDeinitialise:
                return takeCall(StepId::kDeinitialise, call, 1);
            default:
                return;
        }
    }

    // Some drivers take one form of the argument, some the other: the form that is taken counts.
    void takeMode(const CapturedCall& call) {
        const bool there = wordAt(call.data, 0, 4) == kCallbackMode;
        Step& step = session_[there ? StepId::kMode : StepId::kModeBack];
        if (step.state == State::kDriverError && call.result >= 0) step = Step();
        takeCall(there ? StepId::kMode : StepId::kModeBack, call, 0);
    }

    void takeWrite(const CapturedCall& call) {
        if (wordAt(call.data, 0, 4) != diagsim::kCallbackType || call.data.size() < 5) return;
        if (call.result < 0 && call.error == EINTR) return;
        const uint32_t processor = 0u - static_cast<uint32_t>(wordAt(call.data, 4, 4));
        if (processor >= 1 && processor <= 9) return;
        const Bytes payload(call.data.begin() + 4, call.data.end());
        const RequestKind kind = diagsim::decodeRequest(payload, {}).kind;
        if (kind == RequestKind::kStart)
            session_.requestedMs = static_cast<uint32_t>(wordAt(payload, 16, 4));
        Step step = stepFrom(call);
        if (call.result > 0) {
            step.state = State::kDriverError;
            step.detail = "the driver took " + std::to_string(call.result) + " bytes";
        }
        if (call.result != 0) return answered(kind, step);
        step.state = State::kTimeout;
        pending_.push_back({kind, step});
    }

    void answered(RequestKind kind, const Step& step) {
        if (kind != RequestKind::kUnknown) put(session_[stepOf(kind)], step);
    }

    void takeRead(const CapturedCall& call) {
        if (call.result < 0 && call.error != EINTR) session_.readError = call.error;
        if (call.result == 0) ++session_.emptyReads;
        if (call.result < 4) return;
        switch (const uint64_t type = wordAt(call.data, 0, 4)) {
            case diagsim::kMessageMasksType:
            case diagsim::kLogMasksType:
            case diagsim::kEventMasksType:
                return takeMasks(static_cast<unsigned>(type), call);
            case diagsim::kDeinitType:
                announced_ = since(call.time);
                return;
            case diagsim::kUserSpaceType:
                return takeData(call);
            default:
                return;
        }
    }

    void takeMasks(unsigned type, const CapturedCall& call) {
        Step& step = session_[StepId::kMasks];
        const Step& open = session_[StepId::kOpen];
        step.time = open.time + open.duration;
        step.duration = since(call.time) - std::min(step.time, since(call.time));
        if ((masks_ & type) == 0) ++step.count;
        masks_ |= type;
    }

    void takeData(const CapturedCall& call) {
        const diagsim::UserSpaceBuffer buffer = diagsim::takeApart(call.data);
        if (!buffer.damage.empty()) ++session_.damaged;
        for (const Frame& frame : buffer.frames) {
            if (frame.processor != 0 || !frame.ended) continue;
            if (diagsim::isLogPacket(frame.payload)) {
                takeLog(frame.payload, call.time);
            } else {
                takeAnswer(frame.payload, call.time);
            }
        }
    }

    void takeLog(const Bytes& payload, uint64_t time) {
        LogPacket packet;
        packet.time = since(time);
        packet.record = diagsim::decodeLogPacket(payload);
        packet.length = payload.size() - std::min<size_t>(payload.size(), 4);
        packet.claimed = static_cast<size_t>(wordAt(payload, 4, 2));
        session_.packets.push_back(packet);
    }

    // Whatever comes answers the oldest request: so the client has it.
    void takeAnswer(const Bytes& payload, uint64_t time) {
        if (pending_.empty()) {
            ++session_.strays;
            return;
        }
        Pending pending = pending_.front();
        pending_.pop_front();
        Step& step = pending.step;
        step.duration = since(time) - step.time;
        step.state = stateOf(payload, pending.kind);
        if (step.state == State::kOk && step.duration > kLongestWaitNs) step.state = State::kLate;
        step.foreign = step.state == State::kRefused && isForeign(payload, pending.kind);
        if (step.state == State::kRefused && payload.size() <= 16) {
            step.detail = (step.foreign ? "answered by " : "answer ") + diagsim::hexDump(payload);
        }
        if (pending.kind == RequestKind::kLoopback && step.state == State::kOk)
            takeLoopback(payload, step);
        answered(pending.kind, step);
    }

    static State stateOf(const Bytes& payload, RequestKind asked) {
        using Verdict = diagsim::Response::Verdict;
        const diagsim::Response response = diagsim::decodeResponse(payload);
        const bool cut = payload.size() < 3;
        if (response.kind == RequestKind::kUnknown && cut) return State::kShort;
        if (!answers(response.kind, asked)) return State::kRefused;
        if (response.verdict == Verdict::kShort) return State::kShort;
        return response.verdict == Verdict::kAccepted ? State::kOk : State::kRefused;
    }

    static bool isForeign(const Bytes& payload, RequestKind asked) {
        return payload[0] != diagsim::kErrorCommand &&
               !answers(diagsim::decodeResponse(payload).kind, asked);
    }

    void takeLoopback(const Bytes& payload, const Step& step) {
        const uint64_t low = wordAt(payload, 4, 4);
        const uint64_t high = wordAt(payload, 8, 4);
        const auto adsp = static_cast<int64_t>(diagsim::adspMicroseconds(high << 32 | low));
        const uint64_t half = session_.begin + step.time + step.duration / 2;
        const auto host = static_cast<int64_t>(half / 1000);
        session_.loopback = Loopback{step.duration, host - adsp - kGpsEpochUs};
    }

    void finish() {
        for (const Pending& pending : pending_)
            finishPending(pending);
        finishMasks();
        finishEnd();
        finishLogs();
    }

    void finishPending(const Pending& pending) {
        Step step = pending.step;
        step.duration = session_.end - std::min(step.time, session_.end);
        answered(pending.kind, step);
    }

    // The client takes them as it did if it went on.
    void finishMasks() {
        Step& masks = session_[StepId::kMasks];
        if (session_[StepId::kOpen].state != State::kOk) return;
        const bool went = session_[StepId::kMode].count > 0;
        const bool all = masks.count == kMasks;
        masks.state = went ? State::kOk : all ? State::kLate : State::kTimeout;
        masks.detail =
            std::to_string(masks.count) + " of " + std::to_string(kMasks) + " masks came";
    }

    void finishEnd() {
        Step& end = session_[StepId::kDeinitialise];
        if (end.state != State::kOk) return;
        if (announced_ > 0) {
            end.duration = announced_ - std::min(end.time, announced_);
            return;
        }
        end.state = State::kTimeout;
        end.detail = "the driver does not announce the end";
    }

    void finishLogs() {
        const Step& start = session_[StepId::kStart];
        Step& step = session_[StepId::kLogPackets];
        const std::vector<LogPacket>& packets = session_.packets;
        step.count = static_cast<int>(packets.size());
        if (packets.empty() && start.state == State::kOk) step.state = State::kTimeout;
        if (packets.empty()) return;
        step.state = State::kOk;
        step.time = packets.front().time;
        step.duration = packets.back().time - step.time;
        measurePeriod();
        measureClock();
    }

    void measurePeriod() {
        const std::vector<LogPacket>& packets = session_.packets;
        if (packets.size() < 2) return;
        const auto gaps = static_cast<double>(packets.size() - 1);
        Period period;
        period.mean = static_cast<double>(packets.back().time - packets.front().time) / gaps;
        double squares = 0;
        for (size_t i = 1; i < packets.size(); ++i) {
            const auto gap = static_cast<double>(packets[i].time - packets[i - 1].time);
            squares += (gap - period.mean) * (gap - period.mean);
            period.longest = std::max(period.longest, gap);
        }
        period.jitter = std::sqrt(squares / gaps);
        session_.period = period;
    }

    void measureClock() {
        std::vector<uint32_t> values;
        for (const LogPacket& packet : session_.packets) {
            if (packet.record.clockKhz) values.push_back(*packet.record.clockKhz);
        }
        if (values.empty()) return;
        std::sort(values.begin(), values.end());
        const size_t half = values.size() / 2;
        const bool odd = values.size() % 2 != 0;
        const double median =
            odd ? values[half] : (double{0} + values[half - 1] + values[half]) / 2;
        session_.clock = Clock{values.front(), median, values.back()};
    }

    const Call begin_;
    const Call end_;
    Session session_{};
    std::deque<Pending> pending_{};
    unsigned masks_ = 0;
    uint64_t announced_ = 0;
};

// A session begins with its open. An open that follows failed ones tries again.
bool begins(const CapturedCall& call, bool opened) {
    return call.kind == CapturedCall::Kind::kOpen && opened;
}

}  // namespace

const char* nameOf(StepId id) {
    constexpr const char* kNames[] = {
        "open",           "masks",     "mode",     "message masks", "event report", "log disable",
        "log ranges",     "loopback",  "log mask", "start",         "log packets",  "stop",
        "log mask clear", "mode back", "withdraw", "de-initialise", "close"};
    static_assert(std::size(kNames) == kSteps, "each step has a name");
    return kNames[static_cast<size_t>(id)];
}

const char* nameOf(State state) {
    constexpr const char* kNames[] = {"ok",      "refused",      "short",      "late",
                                      "timeout", "driver error", "not reached"};
    return kNames[static_cast<size_t>(state)];
}

Report analyse(const std::string& file, diagsim::Capture capture, const Surroundings& here) {
    Report report;
    report.file = file;
    report.capture = std::move(capture);
    const std::vector<CapturedCall>& calls = report.capture.calls;
    auto begin = calls.begin();
    bool opened = false;
    for (auto call = calls.begin(); call != calls.end(); ++call) {
        if (begins(*call, opened)) {
            report.sessions.push_back(SessionReader(begin, call).read());
            begin = call;
            opened = false;
        }
        opened = opened || call->kind != CapturedCall::Kind::kOpen || call->result >= 0;
    }
    if (begin != calls.end()) report.sessions.push_back(SessionReader(begin, calls.end()).read());
    for (Session& session : report.sessions)
        explain(session, here);
    return report;
}

}  // namespace diagtap

#include "sim/model/Driver.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "sim/Wire.h"
#include "sim/model/IoctlRecords.h"

namespace diagsim {
namespace {

constexpr int kUsbMode = 1;
constexpr int kMemoryMode = 2;
constexpr int kCallbackMode = 6;
constexpr uint32_t kRemoteProcessors = 9;
constexpr size_t kTypeSize = 4;
constexpr size_t kTokenSize = 4;

constexpr const char* kHost = "host";

Bytes messageMasks() { return {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}; }
Bytes logMasks() { return {2, 0, 0, 0, 1, 0, 0, 0, 0xA4, 6, 0, 0, 0, 0, 0, 0}; }
Bytes eventMasks() { return {4, 0, 0, 0, 0, 0, 0, 0}; }

}  // namespace

Driver::Driver(const Scenario& scenario, Trace& trace)
    : scenario_(scenario), trace_(trace), adsp_(scenario), decoder_(scenario.ranges) {
    if (scenario.recorded) replay_.emplace(scenario.recorded, scenario.replaySpeed);
}

Driver::Result Driver::refuse(const std::string& call, int error, const std::string& reason) {
    const std::string why = reason.empty() ? "" : " (refused: " + reason + ')';
    trace_.line(kHost, call + describeResult(-1, error) + why);
    return {-1, error};
}

Driver::Result Driver::succeed(const std::string& call, long value) {
    const int error = value < 0 ? EIO : 0;
    trace_.line(kHost, call + describeResult(value, error));
    return {value, error, value >= 0};
}

bool Driver::interrupts(int& calls, int count) {
    if (calls >= count) return false;
    ++calls;
    return true;
}

Driver::Result Driver::refuseOpen(int flags, int error, const std::string& reason) {
    return refuse(describeOpen(flags), error, reason);
}

Driver::Result Driver::open(int flags, int fd, Time now) {
    if (replay_) return replayOpen(flags, fd, now);
    if (interrupts(interruptedOpens_, scenario_.openEintr)) return refuseOpen(flags, EINTR, "");
    if (scenario_.openErrno != 0) return refuseOpen(flags, scenario_.openErrno, "");
    flags_ = flags;
    gone_ = false;
    lost_ = 0;
    const bool standard = fd <= STDERR_FILENO;
    const std::string remark = standard ? " (as descriptor " + std::to_string(fd) + ')' : "";
    trace_.line(kHost, describeOpen(flags) + " => ok" + remark);
    const Scenario::Masks& masks = scenario_.masks;
    const Time due = now + std::chrono::milliseconds(masks.delayMs);
    if (masks.message) enqueue(wholeBuffer(messageMasks()), due);
    if (masks.log) enqueue(wholeBuffer(logMasks()), due);
    if (masks.event) enqueue(wholeBuffer(eventMasks()), due);
    for (int i = 0; i < scenario_.emptyReads; ++i) {
        enqueue(wholeBuffer({}), due);
    }
    for (const Bytes& buffer : scenario_.atOpen) {
        enqueue(wholeBuffer(buffer), due);
    }
    restartLogs(now);
    restartStrays(now);
    return {fd, 0};
}

void Driver::close() {
    std::string remarks;
    if (mode_ == kCallbackMode) remarks = "left in callback mode";
    if (lost_ > 0)
        remarks += (remarks.empty() ? "" : ", ") + std::to_string(lost_) + " buffers lost";
    trace_.line(kHost, "close => 0" + (remarks.empty() ? "" : " (" + remarks + ')'));
    dropQueue();
}

void Driver::vanish() {
    dropQueue();
    mode_ = kUsbMode;
    gone_ = true;
}

void Driver::dropQueue() {
    queue_.clear();
    nextLog_.reset();
    nextStray_.reset();
}

void Driver::restartLogs(Time now) {
    nextLog_.reset();
    if (adsp_.collecting()) nextLog_ = now + adsp_.period();
}

void Driver::restartStrays(Time now) {
    nextStray_.reset();
    const int period = scenario_.unsolicited.periodUs;
    if (mode_ == kCallbackMode && period > 0) nextStray_ = now + std::chrono::microseconds(period);
}

// --- queue ---

void Driver::enqueue(Outgoing outgoing, Time due) { queue_.emplace(due, std::move(outgoing)); }

void Driver::producePeriodic(Time now) {
    // A tick that was missed altogether is not made up for: the queue would only grow.
    if (nextLog_ && *nextLog_ <= now) {
        if (mode_ == kCallbackMode && adsp_.wantsLogs()) {
            enqueue(frameBuffer(adsp_.logPacket()), *nextLog_);
        }
        *nextLog_ = std::max(*nextLog_ + adsp_.period(), now);
    }
    if (nextStray_ && *nextStray_ <= now) {
        enqueue(frameBuffer(scenario_.unsolicited.frame), *nextStray_);
        const std::chrono::microseconds period(scenario_.unsolicited.periodUs);
        *nextStray_ = std::max(*nextStray_ + period, now);
    }
}

const Outgoing* Driver::due(Time now) {
    while (!queue_.empty() && queue_.begin()->first <= now) {
        const Outgoing& first = queue_.begin()->second;
        if (!first.callbackModeOnly || mode_ == kCallbackMode) return &first;
        trace(first, " => dropped, not in callback mode");
        pop();
    }
    return nullptr;
}

bool Driver::isLimited(const Outgoing& outgoing) const {
    return scenario_.queueLimit > 0 && outgoing.callbackModeOnly;
}

bool Driver::hasRoom(const Outgoing& outgoing, size_t unread) const {
    return !isLimited(outgoing) || unread < static_cast<size_t>(scenario_.queueLimit);
}

std::optional<std::string> Driver::lose(const Outgoing& outgoing) {
    if (!isLimited(outgoing)) return std::nullopt;
    return " => lost, queue full (" + std::to_string(++lost_) + " so far)";
}

void Driver::trace(const Outgoing& outgoing, const std::string& suffix) {
    if (!trace_.isRead()) return;
    if (!outgoing.line.empty()) {
        trace_.line(outgoing.who, outgoing.line + suffix);
        return;
    }
    for (const DecodedLine& line : decoder_.read(outgoing.bytes))
        trace_.line(line.who, line.text + suffix);
}

std::optional<Driver::Time> Driver::nextDue() const {
    std::optional<Time> next;
    if (!queue_.empty()) next = queue_.begin()->first;
    for (const std::optional<Time>& other : {nextLog_, nextStray_}) {
        if (other && (!next || *other < *next)) next = other;
    }
    return next;
}

// --- write ---

Driver::Result Driver::refuseRead() {
    return refuse("read", EBADF, "opened with " + accessName(flags_));
}

void Driver::tellThatWriteWaits(size_t unread, Time now) {
    const auto undelivered = std::distance(queue_.begin(), queue_.upper_bound(now));
    const size_t all = unread + static_cast<size_t>(undelivered);
    trace_.line(kHost, "write waits, unread buffers: " + std::to_string(all));
}

Driver::Result Driver::abandonWrite(const Bytes& data, int error) {
    return refuse(decoder_.write(data), error, "while it waited");
}

Driver::Result Driver::write(const Bytes& data, Time now) {
    const std::string call = trace_.isRead() ? decoder_.write(data) : std::string();
    if (!mayWrite(flags_)) return refuse(call, EBADF, "opened with " + accessName(flags_));
    if (replay_) return replayWrite(call, data, now);
    if (gone_) return refuse(call, ENODEV, "");
    if (interrupts(interruptedWrites_, scenario_.write.eintr)) return refuse(call, EINTR, "");
    if (data.size() < kTypeSize) return refuse(call, EINVAL, "shorter than a data type");
    const uint64_t type = wordAt(data, 0, kTypeSize);
    switch (type) {
        case kCallbackType:
            return callbackData(call, Bytes(data.begin() + kTypeSize, data.end()), now);
        case kPacketResponseType:
        case kDelayedResponseType:
            return succeed(call, 0);
        default:
            return refuse(call, EINVAL, "data type " + std::to_string(type));
    }
}

Driver::Result Driver::callbackData(const std::string& call, const Bytes& payload, Time now) {
    if (mode_ != kCallbackMode) return refuse(call, EINVAL, "not in callback mode");
    const uint32_t processor = 0u - static_cast<uint32_t>(wordAt(payload, 0, kTokenSize));
    if (processor >= 1 && processor <= kRemoteProcessors) {
        return remoteRequest(call, payload, processor);
    }
    if (payload.empty()) return refuse(call, EINVAL, "no request in it");
    return localRequest(call, payload, now);
}

Driver::Result Driver::remoteRequest(const std::string& call, const Bytes& payload,
                                     uint32_t processor) {
    if ((scenario_.remoteMask & processor) != processor) {
        return refuse(call, EINVAL, "no such processor");
    }
    if (payload.size() <= kTokenSize) return refuse(call, EINVAL, "no request in it");
    return succeed(call, 0);
}

Driver::Result Driver::localRequest(const std::string& call, const Bytes& payload, Time now) {
    const Request request = decodeRequest(payload, scenario_.ranges);
    const Fault& fault = pickFault(requestKey(request.kind));
    const Result result = endWrite(call, fault);
    if (!result.taken) return result;
    const Bytes answer = adsp_.execute(request, fault.refuse);
    const Time due = now + std::chrono::milliseconds(fault.delayMs);
    for (Outgoing& outgoing : composeDelivery(answer, fault, adsp_)) {
        enqueue(std::move(outgoing), due);
    }
    const bool changed = request.kind == RequestKind::kStart || request.kind == RequestKind::kStop;
    if (changed) restartLogs(now);
    return result;
}

const Fault& Driver::pickFault(const std::string& key) {
    static const Fault* const none = new Fault;
    const int all = ++occurrences_["any"];
    const int own = ++occurrences_[key];
    for (const auto& [name, occurrence] :
         {std::pair(key, own), std::pair(std::string("any"), all)}) {
        const auto faults = scenario_.requests.find(name);
        if (faults == scenario_.requests.end()) continue;
        for (const Fault& fault : faults->second) {
            const bool always = fault.on.empty();
            if (always || std::count(fault.on.begin(), fault.on.end(), occurrence) > 0) {
                return fault;
            }
        }
    }
    return *none;
}

Driver::Result Driver::endWrite(const std::string& call, const Fault& fault) {
    if (!fault.writeResult) return succeed(call, 0);
    const int value = *fault.writeResult;
    const int error = value >= 0 ? 0 : fault.writeErrno != 0 ? fault.writeErrno : EIO;
    const char* const remark = fault.writeTaken ? " (taken all the same)" : "";
    trace_.line(kHost, call + describeResult(value, error) + remark);
    return {value, error, fault.writeTaken};
}

// --- ioctl ---

Driver::Result Driver::ioctl(unsigned long request, void* argument, Time now) {
    if (replay_) return replayIoctl(request, argument, now);
    const std::string call = describeIoctl(request, recordOf(request, argument));
    if (gone_) return refuse(call, ENODEV, "");
    if (interrupts(interruptedIoctls_[request], scenario_.ioctlEintr)) {
        return refuse(call, EINTR, "");
    }
    switch (request) {
        case kRegisterTables:
            return registerTables(argument);
        case kWithdrawTables:
            return succeed(call, scenario_.withdrawResult);
        case kSwitchMode:
            return switchMode(argument, now);
        case kDelayedResponseId:
            return delayedResponseId(argument);
        case kDeinitialise:
            return deinitialise(now);
        case kRemoteMask:
            return remoteMask(argument);
        case kVoteRealTime:
            return voteRealTime(argument);
        case kRealTimeStatus:
            return realTimeStatus(argument);
        default:
            return refuse(call, ENOTTY, "unknown request");
    }
}

Driver::Result Driver::registerTables(void* argument) {
    if (argument == nullptr) return refuse(describeIoctl(kRegisterTables, {}), EFAULT, "no record");
    const auto table = readFrom<TableRegistration>(argument);
    const bool good = table.count > 0 && table.records != nullptr;
    return succeed(describeIoctl(kRegisterTables, bytesOf(table)), good ? 1 : 0);
}

Driver::Result Driver::switchMode(void* argument, Time now) {
    const auto value = reinterpret_cast<uintptr_t>(argument);
    const bool byValue = value < kLowestPointer;
    const int mode = byValue ? static_cast<int>(value) : readFrom<LoggingMode>(argument);
    const std::string call = describeIoctl(kSwitchMode, recordOf(kSwitchMode, argument));
    using Form = Scenario::ModeForm;
    const Form form = byValue ? Form::kValue : Form::kPointer;
    if (scenario_.modeForm != form && scenario_.modeForm != Form::kBoth) {
        return refuse(call, EINVAL, "this form is not taken here");
    }
    return setMode(call, mode, now);
}

Driver::Result Driver::setMode(const std::string& call, int mode, Time now) {
    if (mode != kUsbMode && mode != kMemoryMode && mode != kCallbackMode) {
        return refuse(call, EINVAL, "no such mode");
    }
    mode_ = mode;
    restartStrays(now);
    return succeed(call, scenario_.modeResult);
}

Driver::Result Driver::delayedResponseId(void* argument) {
    const std::string call = describeIoctl(kDelayedResponseId, {});
    if (argument == nullptr) return refuse(call, EFAULT, "no record");
    const auto record = readFrom<DelayedResponseRecord>(argument);
    if (record.id == nullptr || record.count == nullptr) {
        return refuse(call, EFAULT, "no place for the id");
    }
    if (record.size != sizeof delayedResponses_) return refuse(call, EINVAL, "size is not 2");
    ++delayedResponses_;
    const uint32_t count = sizeof delayedResponses_;
    std::memcpy(record.id, &delayedResponses_, sizeof delayedResponses_);
    std::memcpy(record.count, &count, sizeof count);
    Bytes data = bytesOf(record);
    append(data, bytesOf(delayedResponses_));
    append(data, bytesOf(count));
    return succeed(describeIoctl(kDelayedResponseId, data), 0);
}

Driver::Result Driver::deinitialise(Time now) {
    const Scenario::Deinit& deinit = scenario_.deinit;
    const Result result = succeed(describeIoctl(kDeinitialise, {}), deinit.result);
    if (deinit.announce) {
        Bytes buffer;
        appendWord(buffer, kDeinitType, kTypeSize);
        enqueue(wholeBuffer(buffer), now + std::chrono::milliseconds(deinit.delayMs));
    }
    return result;
}

Driver::Result Driver::remoteMask(void* argument) {
    return answerIoctl(kRemoteMask, argument, scenario_.remoteMask, 1);
}

Driver::Result Driver::voteRealTime(void* argument) {
    if (argument == nullptr) return refuse(describeIoctl(kVoteRealTime, {}), EFAULT, "no record");
    const auto vote = readFrom<RealTimeVote>(argument);
    const std::string call = describeIoctl(kVoteRealTime, bytesOf(vote));
    if (vote.processor != 2 || vote.vote > 1) return refuse(call, EINVAL, "no such vote");
    return succeed(call, 0);
}

Driver::Result Driver::realTimeStatus(void* argument) {
    return answerIoctl(kRealTimeStatus, argument, int{1}, 0);
}

template <typename Record>
Driver::Result Driver::answerIoctl(unsigned long request, void* argument, const Record& record,
                                   long result) {
    if (argument == nullptr) return refuse(describeIoctl(request, {}), EFAULT, "no place for it");
    Bytes data = bytesOf(readFrom<Record>(argument));
    append(data, bytesOf(record));
    std::memcpy(argument, &record, sizeof record);
    return succeed(describeIoctl(request, data), result);
}

}  // namespace diagsim

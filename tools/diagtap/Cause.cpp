// What a person should know of a session: remarks, and the first cause with what to look at next.
#include <cerrno>
#include <cmath>
#include <cstdio>

#include "sim/model/ErrnoName.h"
#include "tools/diagtap/Analysis.h"
#include "tools/diagtap/Formats.h"

namespace diagtap {
namespace {

constexpr uint64_t kMsNs = 1000000;
constexpr uint64_t kSlowNs = 100 * kMsNs;
constexpr uint32_t kHighestClockKhz = 5000000;
constexpr size_t kRecordLength = 84;  // up to the last value
constexpr double kLongGap = 2.5;      // periods
constexpr double kShortestGapNs = 20e6;
constexpr double kOtherPeriod = 2;  // times the period that was asked for
constexpr double kStill = 0.01;     // of the host's clock
constexpr double kDrift = 0.1;

// For each step: what an answer that never comes, and one that says no, mean.
struct Meaning {
    const char* silent;
    const char* refused;
};

Meaning meaningOf(StepId id) {
    switch (id) {
        case StepId::kMessageMasks:
        case StepId::kEventReport:
        case StepId::kLogDisable:
        case StepId::kLogRanges:
            return {"the DIAG service behind the driver does not run, or another client has it",
                    "the DIAG service does not know the request; compare its version"};
        case StepId::kLoopback:
            return {"the ADSP does not run, or its diagnostics are off",
                    "the ADSP runs, but its diagnostics lack the loopback"};
        case StepId::kLogMask:
        case StepId::kLogMaskClear:
            return {"the ADSP stopped answering; look at its crash log",
                    "the target refuses log codes of this range; no log packets will come"};
        case StepId::kStart:
            return {"the ADSP's power manager does not answer; look at whether it is loaded",
                    "the ADSP's power manager does not start; another client may be collecting"};
        case StepId::kStop:
            return {"the ADSP stopped answering while it collected; look at its crash log",
                    "the ADSP's power manager does not stop; it may not be collecting"};
        case StepId::kWithdraw:
            return {"", "the driver knows nothing to withdraw"};
        case StepId::kDeinitialise:
            return {"the driver does not end the session; the client waits a second for it",
                    "the driver does not know the session"};
        default:
            return {"", ""};
    }
}

std::string milliseconds(uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f ms", static_cast<double>(ns) / kMsNs);
    return text;
}

std::string openCause(int error, const Surroundings& here) {
    switch (error) {
        case ENOENT:
            return "there is no /dev/diag; look at whether the diag driver is loaded";
        case EACCES:
        case EPERM:
            if (here.node.empty()) return "look at the permissions of /dev/diag";
            return "/dev/diag is " + here.node + ", you are " + here.user;
        case EBUSY:
            if (!here.holders.empty()) return "held by " + here.holders;
            return "another process holds /dev/diag; look for it with lsof";
        case ENODEV:
        case ENXIO:
            return "the node is there, its driver is not; look at the kernel's log";
        default:
            return "look at the kernel's log";
    }
}

std::string driverCause(StepId id, int error, const Surroundings& here) {
    if (id == StepId::kOpen) return openCause(error, here);
    if (error == ENODEV) return "the device is gone; look at the kernel's log";
    if (id == StepId::kMode) return "the driver takes no form of the callback mode";
    return "the driver does not take it; look at the kernel's log";
}

std::string unansweredCause(StepId id, const Step& step) {
    const std::string name = nameOf(id);
    const char* const silent = meaningOf(id).silent;
    if (id == StepId::kMasks) {
        return step.detail + " within 21 ms; look at the driver, which sends them after an open";
    }
    if (id == StepId::kLogPackets) {
        return "no log packets came; look at the log mask, and at the period of the start";
    }
    if (step.state == State::kLate) {
        return name + ": the answer came after " + milliseconds(step.duration) +
               ", the client waits 250 ms; look at the load of the ADSP";
    }
    if (id == StepId::kDeinitialise) return name + ": " + silent;
    return "no answer to the " + name + ": " + silent;
}

std::string causeOf(StepId id, const Step& step, const Surroundings& here) {
    const std::string name = nameOf(id);
    const std::string detail = step.detail.empty() ? "" : " (" + step.detail + ')';
    switch (step.state) {
        case State::kDriverError: {
            const std::string error =
                step.error != 0 ? diagsim::errnoName(step.error) : "not taken whole";
            return name + ": " + error + ": " + driverCause(id, step.error, here);
        }
        case State::kRefused:
            if (step.foreign) {
                return name + ' ' + step.detail +
                       ", which answers another request: look for another client";
            }
            return name + " refused" + detail + ": " + meaningOf(id).refused;
        case State::kShort:
            return name + ": the answer is cut short; look at the transport below the driver";
        default:
            return unansweredCause(id, step);
    }
}

class Remarks {
  public:
    explicit Remarks(Session& session) : session_(session) {}

    void find() {
        findFrames();
        findSlowAnswers();
        findRecords();
        findTimes();
        findPeriod();
        findEnd();
    }

  private:
    void add(const std::string& text) { session_.remarks.push_back(text); }

    void addCount(int count, const char* what) {
        if (count > 0) add(what + (": " + std::to_string(count)));
    }

    void findFrames() {
        addCount(session_.strays,
                 "frames that no request waited for, perhaps another client's answers");
        addCount(session_.damaged, "buffers that are not in order, see diagtap show");
        addCount(session_.emptyReads, "reads that returned nothing");
        if (session_.readError != 0)
            add("a read failed: " + diagsim::errnoName(session_.readError));
    }

    void findSlowAnswers() {
        for (size_t i = 0; i < kSteps; ++i) {
            const auto id = static_cast<StepId>(i);
            const bool answered = id >= StepId::kMessageMasks && id <= StepId::kLogMaskClear &&
                                  id != StepId::kLogPackets;
            const Step& step = session_[id];
            if (answered && step.state == State::kOk && step.duration > kSlowNs) {
                add(std::string("slow answer to the ") + nameOf(id) + ": " +
                    milliseconds(step.duration));
            }
        }
    }

    void findRecords() {
        int versions = 0;
        int shorts = 0;
        int lies = 0;
        for (const LogPacket& packet : session_.packets) {
            if (packet.record.version.value_or(1) != 1) ++versions;
            if (packet.length < kRecordLength) ++shorts;
            if (packet.claimed != packet.length) ++lies;
        }
        addCount(versions, "log records of a version other than 1");
        addCount(shorts, "log records too short for all values");
        addCount(lies, "log records with a false length");
        if (!session_.clock) return;
        if (session_.clock->min == 0) add("the core clock is 0");
        if (session_.clock->max > kHighestClockKhz) add("the core clock is implausible");
    }

    // By how much the ADSP's clock goes on while the host's does.
    void findTimes() {
        constexpr double kLeastUs = 10000;
        if (session_.packets.size() < 2) return;
        const LogPacket& first = session_.packets.front();
        const LogPacket& last = session_.packets.back();
        const double host = static_cast<double>(last.time - first.time) / 1000;
        if (!first.record.time || !last.record.time || host < kLeastUs) return;
        const auto microseconds = [](const LogPacket& packet) {
            return static_cast<double>(diagsim::adspMicroseconds(*packet.record.time));
        };
        const double rate = (microseconds(last) - microseconds(first)) / host;
        if (std::abs(rate) < kStill) return add("the ADSP's clock stands still");
        if (rate < 0) return add("the ADSP's clock goes back");
        if (std::abs(rate - 1) < kDrift) return;
        char text[64];
        std::snprintf(text, sizeof text, "the ADSP's clock goes %.2f times as fast", rate);
        add(text);
    }

    void findPeriod() {
        if (!session_.period) return;
        const double mean = session_.period->mean;
        const double asked = session_.requestedMs * double{kMsNs};
        if (asked > 0 && (mean < asked / kOtherPeriod || mean > asked * kOtherPeriod)) {
            add("log packets come every " + inMs(mean) + " ms, asked for were " +
                std::to_string(session_.requestedMs) + " ms");
        }
        const double longest = session_.period->longest;
        if (longest < kLongGap * mean || longest < kShortestGapNs) return;
        add("gap of " + milliseconds(static_cast<uint64_t>(longest)) + " between log packets");
    }

    void findEnd() {
        const bool open = session_[StepId::kOpen].state == State::kOk;
        if (!open || session_[StepId::kClose].count > 0) return;
        add("the capture ends before the session");
    }

    Session& session_;
};

}  // namespace

void explain(Session& session, const Surroundings& here) {
    Remarks(session).find();
    for (size_t i = 0; i < kSteps && session.cause.empty(); ++i) {
        const auto id = static_cast<StepId>(i);
        const Step& step = session[id];
        // A driver that had nothing to withdraw is no cause of anything.
        const bool harmless = id == StepId::kWithdraw && step.state == State::kRefused;
        if (step.state == State::kOk || step.state == State::kNotReached || harmless) continue;
        session.cause = causeOf(id, step, here);
    }
}

}  // namespace diagtap

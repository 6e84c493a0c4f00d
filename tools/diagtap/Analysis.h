// What a capture says about the sessions in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/model/Capture.h"
#include "sim/model/Response.h"

namespace diagtap {

// In the order of a session.
enum class StepId {
    kOpen,
    kMasks,
    kMode,
    kMessageMasks,
    kEventReport,
    kLogDisable,
    kLogRanges,
    kLoopback,
    kLogMask,
    kStart,
    kLogPackets,
    kStop,
    kLogMaskClear,
    kModeBack,
    kWithdraw,
    kDeinitialise,
    kClose,
};
constexpr size_t kSteps = 17;

enum class State { kOk, kRefused, kShort, kLate, kTimeout, kDriverError, kNotReached };

// Names for people and files: "log mask clear", "driver error".
const char* nameOf(StepId id);
const char* nameOf(State state);

struct Step {
    State state = State::kNotReached;
    int error = 0;          // errno of a driver error
    int count = 0;          // how often it was tried; of masks and log packets how many came
    uint64_t time = 0;      // nanoseconds since the session's first call
    uint64_t duration = 0;  // nanoseconds, to the answer or the call's end
    bool foreign = false;   // refused because the answer belongs to another request
    std::string detail{};   // e.g. "2 of 3 masks came"
};

// One log packet of the ADSP's power manager, or another.
struct LogPacket {
    uint64_t time = 0;  // of its read, as a step's
    diagsim::LogRecord record{};
    size_t length = 0;  // of the record, in bytes
    size_t claimed = 0;
};

// Of times in nanoseconds.
struct Period {
    double mean = 0;
    double jitter = 0;  // standard deviation
    double longest = 0;
};

struct Clock {
    uint32_t min = 0;  // kHz
    double median = 0;
    uint32_t max = 0;
};

struct Loopback {
    uint64_t roundTrip = 0;  // nanoseconds
    int64_t clockShift = 0;  // microseconds that the host's clock is ahead of the ADSP's
};

struct Session {
    uint64_t begin = 0;  // nanoseconds since 1970
    uint64_t end = 0;    // since its begin
    Step steps[kSteps];
    std::optional<Loopback> loopback{};
    std::vector<LogPacket> packets{};
    uint32_t requestedMs = 0;  // the period of the last start; 0: none
    std::optional<Period> period{};
    std::optional<Clock> clock{};
    int strays = 0;   // frames that no request was waiting for
    int damaged = 0;  // buffers that are not in order
    int emptyReads = 0;
    int readError = 0;  // errno of the last read that failed, but for interrupted ones
    std::vector<std::string> remarks{};
    std::string cause{};  // the first cause in one sentence; empty: every step is ok

    Step& operator[](StepId id) { return steps[static_cast<size_t>(id)]; }
    const Step& operator[](StepId id) const { return steps[static_cast<size_t>(id)]; }
};

struct Report {
    std::string file{};
    diagsim::Capture capture{};
    std::vector<Session> sessions{};
};

// What is known of the machine beside the capture: only where the program was run just now.
struct Surroundings {
    std::string node{};     // "0600 root:root"; empty: unknown
    std::string holders{};  // "12 (logger), 14 (other)"; empty: none can be seen
    std::string user{};     // "uid 1000"; empty: not on this machine
};

Report analyse(const std::string& file, diagsim::Capture capture, const Surroundings& here);

// Fills in the remarks and the cause of an analysed session.
void explain(Session& session, const Surroundings& here);

}  // namespace diagtap

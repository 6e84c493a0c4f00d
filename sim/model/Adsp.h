// The DSP behind the driver: executes requests, counts, makes log packets.
#pragma once

#include <chrono>
#include <map>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/model/Request.h"

namespace diagsim {

// The state lives as long as the object: closing the device node does not stop a collection.
// No locks; the owner serialises all calls.
class Adsp {
  public:
    explicit Adsp(const Scenario& scenario);

    // Executes a request. With `refuse` nothing is executed and the answer says no in the field
    // that this request has for it; a request with an objection gets the error answer.
    Bytes execute(const Request& request, bool refuse);

    // The next log packet, from its command code on, with the clock of this moment.
    Bytes logPacket();

    // Whether a collection runs, and its log period (at least 1 microsecond).
    bool collecting() const { return collecting_; }
    std::chrono::microseconds period() const;

    // Whether the log mask lets the power manager's packets out.
    bool wantsLogs() const;

    // Its clock now: 1.25 ms units since 6 January 1980 in the upper 48 bits, 25 ns units within in
    // the lower 16.
    uint64_t time() const;

  private:
    void apply(const Request& request);
    Bytes answerPacket(const Request& request, bool good) const;
    Bytes loopbackAnswer() const;

    const Scenario::Ranges ranges_;
    const Scenario::Dsp setup_;
    const int64_t begin_;  // nanoseconds since 6 January 1980

    std::map<uint64_t, Bytes> logMasks_{};  // by equipment id
    Bytes slots_{0, 0, 0, 0};
    bool collecting_;
    std::chrono::microseconds requestedPeriod_{1000};
    uint64_t packets_ = 0;
};

}  // namespace diagsim

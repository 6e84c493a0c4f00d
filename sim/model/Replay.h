// A capture as a script: what the device answered to each call, and what came after it.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim/model/Capture.h"

namespace diagsim {

// No locks; the owner serialises all calls.
class Replay {
  public:
    // A read that followed a call.
    struct Later {
        std::chrono::nanoseconds distance;  // from the call's end
        const CapturedCall* read;
    };
    // An open, write or ioctl with what came until the next one.
    struct Recorded {
        const CapturedCall* call = nullptr;
        std::vector<Later> reads{};
        bool sawRead = false;               // something was read before it returned
        std::chrono::nanoseconds lastGo{};  // when the last of them came, unscaled
    };

    // `speed` divides the distances; 0: there are none.
    Replay(std::shared_ptr<const Capture> capture, int speed);

    // The next recorded call that is equal, behind those that were found before; null where there
    // is none. Of an ioctl that switches the mode its data counts, of a write all of it.
    const Recorded* find(CapturedCall::Kind kind, uint32_t argument, const Bytes& data);

    // What the last call that was not the next recorded one was expected to be; null: the last call
    // was that, or nothing was left.
    const CapturedCall* expected() const { return expected_; }

  private:
    static void addRead(Recorded& to, const CapturedCall& read, int speed);

    const std::shared_ptr<const Capture> capture_;
    std::vector<Recorded> script_{};
    size_t next_ = 0;
    const CapturedCall* expected_ = nullptr;
};

}  // namespace diagsim

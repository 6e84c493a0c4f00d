// Helpers of targets that run against the linked simulated device.
#pragma once

#include <initializer_list>

#include "adsppm/ADSPPM.h"
#include "fuzz/Support.h"
#include "sim/Device.h"
#include "sim/Wire.h"

namespace fuzz {

inline diagsim::Device& device() { return diagsim::Device::instance(); }

// Plugs a device in. Keeps no trace, which would fill the memory.
inline void plug(const diagsim::Scenario& scenario) {
    device().keepTrace(false);
    device().plug(scenario);
}

struct SilentListener : tavrik::ADSPPM::Listener {
    void onADSPPMInput(int, double, long double) override {}
};

// A period of eleven days: only the target's log packets arrive.
constexpr unsigned kNever = 1000000000;

inline void listen(tavrik::ADSPPM::Listener& listener, int eventId) {
    std::string refusal;
    mustHold(
        tavrik::ADSPPM::instance()->registerListener(&listener, eventId, "fuzz", kNever, refusal),
        "a listener is registered");
}

// Starts collection on a device that has all remote processors and never answers a stop, so that
// stop requests stay outstanding. Returns whether the start succeeded.
inline bool startCollection(tavrik::ADSPPM::Listener& listener, std::initializer_list<int> ids) {
    SilentLogs::install();
    for (const int id : ids)
        listen(listener, id);
    diagsim::Scenario scenario;
    scenario.remoteMask = 0xF;
    scenario.requests["stop"].emplace_back().drop = true;
    plug(scenario);
    return tavrik::ADSPPM::instance()->startMetricCollection();
}

}  // namespace fuzz

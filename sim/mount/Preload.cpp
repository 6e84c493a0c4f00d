// The preload mount: sets the device up from the environment when the library is loaded.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "sim/Device.h"

namespace {

const char* environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

diagsim::Scenario scenarioFromEnvironment() {
    const char* const path = environment("DIAGSIM_SCENARIO");
    if (path == nullptr) return {};
    try {
        return diagsim::Scenario::load(path);
    } catch (const diagsim::ScenarioError& error) {
        // No status of the program itself may pass for a verdict on a device that was never there.
        std::fprintf(stderr, "diagsim: %s\n", error.what());
        _exit(2);
    }
}

__attribute__((constructor)) void setUp() {
    diagsim::Device& device = diagsim::Device::instance();
    device.keepTrace(false);
    if (const char* const path = environment("DIAGSIM_TRACE")) device.traceTo(path);
    device.plug(scenarioFromEnvironment());
}

}  // namespace

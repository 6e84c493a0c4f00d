// Input: a scenario file of the simulated device. Checks: the file is accepted, or refused with a
// ScenarioError of one line that names it; accepted values are within the limits of their keys.
#include "fuzz/Support.h"
#include "sim/Scenario.h"

using diagsim::Fault;
using diagsim::Scenario;
using fuzz::mustHold;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int kHour = 3600 * 1000;
    constexpr int kMinute = 60 * 1000 * 1000;
    try {
        const Scenario read = Scenario::parse(std::string(data, data + size), "fuzz.json");
        mustHold(read.openErrno >= 0 && read.emptyReads >= 0, "counts are not negative");
        mustHold(read.adsp.periodUs >= 0 && read.adsp.periodUs <= kMinute, "periods have a limit");
        mustHold(read.adsp.claimedLength <= 0xFFFF && read.adsp.recordLength <= 0xFFFF,
                 "lengths fit their fields");
        mustHold(read.queueLimit >= 0 && read.write.eintr >= 0, "counts of calls are not negative");
        for (const auto& [name, faults] : read.requests) {
            for (const Fault& fault : faults) {
                mustHold(fault.delayMs >= 0 && fault.delayMs <= kHour, "delays have a limit");
                mustHold(fault.logCount >= 1, "at least one log packet is sent");
                mustHold(!fault.splitAt || fault.split != Fault::Split::kNone,
                         "split_at comes with split");
                for (const int occurrence : fault.on)
                    mustHold(occurrence >= 1, "occurrences count from 1");
            }
        }
    } catch (const diagsim::ScenarioError& error) {
        const std::string text = error.what();
        mustHold(text.rfind("fuzz.json: ", 0) == 0, "the message begins with the file");
        mustHold(text.find('\n') == std::string::npos, "the message is one line");
    }
    return 0;
}

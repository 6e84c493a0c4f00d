// Fed: a scenario file of the simulated device. Must hold: it is read, or refused with a
// ScenarioError of one line that names the file; what is read keeps the limits of its keys.
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
        mustHold(read.openErrno >= 0 && read.emptyReads >= 0, "counts are no less than 0");
        mustHold(read.adsp.periodUs >= 0 && read.adsp.periodUs <= kMinute, "periods have a limit");
        mustHold(read.adsp.claimedLength <= 0xFFFF && read.adsp.recordLength <= 0xFFFF,
                 "lengths fit their fields");
        mustHold(read.queueLimit >= 0 && read.write.eintr >= 0,
                 "counts of calls are no less than 0");
        for (const auto& [name, faults] : read.requests) {
            for (const Fault& fault : faults) {
                mustHold(fault.delayMs >= 0 && fault.delayMs <= kHour, "delays have a limit");
                mustHold(fault.logCount >= 1, "something is there to be sent");
                mustHold(!fault.splitAt || fault.split != Fault::Split::kNone,
                         "a split has its place");
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

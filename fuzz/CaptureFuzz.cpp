// Fed: a capture file. Must hold: it is read as far as it goes, a problem is one line with an
// offset within the file, calls are in the order of time, and a replay hands out each call once.
#include <memory>

#include "fuzz/Support.h"
#include "sim/model/Capture.h"
#include "sim/model/Decoder.h"
#include "sim/model/Replay.h"
#include "tools/diagtap/Formats.h"

using diagsim::CapturedCall;
using fuzz::mustHold;

namespace {

void checkProblem(const std::string& problem, size_t size) {
    if (problem.empty()) return;
    mustHold(problem.rfind("offset ", 0) == 0, "a problem begins with its place");
    mustHold(std::stoull(problem.substr(7)) <= size, "which is in the file");
    mustHold(problem.find('\n') == std::string::npos, "a problem is one line");
}

void decode(const std::vector<CapturedCall>& calls) {
    diagsim::Decoder decoder(diagsim::Scenario{}.ranges);
    uint64_t last = 0;
    for (const CapturedCall& call : calls) {
        mustHold(call.time >= last, "calls are in the order of time");
        last = call.time;
        mustHold(!decoder.write(call.data).empty(), "a write has a line");
        mustHold(!decoder.read(call.data).empty(), "a read has one");
        diagsim::describeIoctl(call.argument, call.data);
    }
}

void replay(std::shared_ptr<const diagsim::Capture> capture) {
    diagsim::Replay script(capture, 1);
    size_t reads = 0;
    for (const CapturedCall& call : capture->calls) {
        if (call.kind == CapturedCall::Kind::kRead || call.kind == CapturedCall::Kind::kClose)
            continue;
        const auto* const found = script.find(call.kind, call.argument, call.data);
        mustHold(found != nullptr && found->call == &call,
                 "what was recorded is found in its order");
        reads += found->reads.size();
    }
    mustHold(reads <= capture->calls.size(), "no read is handed out twice");
}

void report(const diagsim::Capture& capture) {
    const diagtap::Report found = diagtap::analyse("fuzz", capture, {});
    for (const auto& write :
         {diagtap::toText, diagtap::toJson, diagtap::toJunit, diagtap::toHtml, diagtap::toCsv})
        mustHold(!write(found).empty(), "every form has text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto capture =
        std::make_shared<diagsim::Capture>(diagsim::readCapture(diagsim::Bytes(data, data + size)));
    checkProblem(capture->problem, size);
    decode(capture->calls);
    replay(capture);
    report(*capture);
    return 0;
}

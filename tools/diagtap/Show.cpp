#include "tools/diagtap/Show.h"

#include <cstdio>

#include "sim/model/Decoder.h"
#include "sim/model/IoctlRecords.h"

namespace diagtap {
namespace {

using diagsim::CapturedCall;
using diagsim::DecodedLine;
using diagsim::Decoder;

constexpr const char* kHost = "host";

std::string openText(const CapturedCall& call) {
    const std::string result =
        call.result >= 0 ? " => ok" : diagsim::describeResult(call.result, call.error);
    return diagsim::describeOpen(static_cast<int>(call.argument)) + result;
}

// A driver that refused wrote nothing behind the client's record.
diagsim::Bytes ioctlData(const CapturedCall& call) {
    const bool asks = call.argument == diagsim::kDelayedResponseId ||
                      call.argument == diagsim::kRemoteMask ||
                      call.argument == diagsim::kRealTimeStatus;
    return asks && call.result < 0 ? diagsim::Bytes() : call.data;
}

std::vector<DecodedLine> decode(Decoder& decoder, const CapturedCall& call) {
    const std::string result = diagsim::describeResult(call.result, call.error);
    switch (call.kind) {
        case CapturedCall::Kind::kOpen:
            return {{kHost, openText(call)}};
        case CapturedCall::Kind::kClose:
            return {{kHost, "close" + result}};
        case CapturedCall::Kind::kWrite:
            return {{kHost, decoder.write(call.data) + result}};
        case CapturedCall::Kind::kIoctl:
            return {{kHost, diagsim::describeIoctl(call.argument, ioctlData(call)) + result}};
        case CapturedCall::Kind::kRead:
            break;
    }
    if (call.result < 0) return {{kHost, "read" + result}};
    return decoder.read(call.data);
}

}  // namespace

std::vector<ShownLine> linesOf(const diagsim::Capture& capture) {
    Decoder decoder(diagsim::Scenario{}.ranges);
    std::vector<ShownLine> lines;
    for (const CapturedCall& call : capture.calls) {
        const uint64_t time = call.time - capture.calls.front().time;
        for (DecodedLine& line : decode(decoder, call))
            lines.push_back({time, std::move(line.who), std::move(line.text)});
    }
    return lines;
}

std::string format(const ShownLine& line) {
    char front[64];
    std::snprintf(front, sizeof front, "%10.3f ms  %-6s  ", static_cast<double>(line.time) / 1e6,
                  line.who.c_str());
    return front + line.text;
}

}  // namespace diagtap

// The input of SessionFuzz: the faults of a simulated device and the actions of two clients.
#pragma once

#include <array>
#include <cerrno>

#include "fuzz/Support.h"
#include "fuzz/VirtualTime.h"
#include "sim/Scenario.h"
#include "sim/model/Request.h"

namespace fuzz {

// An action of a client. Events belong to ADSPPM, logs to DIAG. A later `kAwait` awaits the
// response to a `kRequest`; nobody awaits the response to a `kPost`.
enum Act {
    kStart,
    kStop,
    kRegisterEvent,
    kUnregisterEvent,
    kRequest,
    kAwait,
    kRegisterLog,
    kUnregisterLog,
    kConnect,
    kDisconnect,
    kPost,
    kActs
};

constexpr int kAnswerMs = 250, kConnectMs = 21 + 4 * kAnswerMs, kDisconnectMs = 1020;

// The time that an act may take while nobody else acts, and the trace text of the response that its
// success requires.
struct Rule {
    int milliseconds;
    const char* evidence;
};
constexpr Rule kRules[kActs] = {
    {kConnectMs + 4 * kAnswerMs + kDisconnectMs, "start response (accepted)"},
    {kConnectMs + 2 * kAnswerMs + kDisconnectMs, "stop response (accepted)"},
    {0, ""},
    {0, ""},
    {kConnectMs, ""},
    {kAnswerMs, ""},
    {kConnectMs + kAnswerMs, "log mask response (accepted)"},
    {kConnectMs + kAnswerMs + kDisconnectMs, "log mask clear response (accepted)"},
    {kConnectMs, ""},
    {kDisconnectMs, ""},
    {kConnectMs, ""}};

// A completed act.
struct Span {
    int client;
    Act act;
    virtual_time::Nanoseconds begin, end;
};

// A finding if an act took too long. An act may have to wait for all concurrent acts of the other
// client and then connect again.
inline void checkDurations(const std::vector<Span>& spans) {
    for (const Span& span : spans) {
        int allowed = kRules[span.act].milliseconds;
        for (const Span& other : spans) {
            if (other.client == span.client || other.end < span.begin || span.end < other.begin)
                continue;
            allowed += kRules[other.act].milliseconds + kConnectMs;
        }
        mustHold(span.end - span.begin <= virtual_time::Milliseconds(allowed),
                 "an act ends in time");
    }
}

// An act of a client. It starts after a pause: at once, or when the previous step of either client
// has ended.
struct Step {
    int client;
    Act act;
    bool afterPrevious;
    virtual_time::Milliseconds pause;
};

struct Program {
    diagsim::Scenario scenario{};
    int delays = 0;           // the sum, in milliseconds
    bool harmless = true;     // every response comes in time
    bool writesFail = false;  // a queued request may never be sent
    std::vector<Step> steps{};
};

inline void readDriver(Feed& feed, Program& program) {
    const unsigned bits = feed.byte();
    diagsim::Scenario& scenario = program.scenario;
    scenario.deinit.announce = (bits & 3) != 1;
    scenario.deinit.delayMs = (bits & 3) == 2 ? 300 : 0;
    scenario.deinit.result = (bits & 3) == 3 ? -1 : 1;
    scenario.masks.delayMs = std::array<int, 4>{0, 5, 19, 25}[bits >> 2 & 3];
    const unsigned mode = bits >> 4 & 3;
    using Form = diagsim::Scenario::ModeForm;
    scenario.modeForm =
        std::array<Form, 4>{Form::kPointer, Form::kValue, Form::kNone, Form::kPointer}[mode];
    scenario.openErrno = mode == 3 ? EACCES : 0;
    scenario.adsp.periodUs = (bits & 64) != 0 ? 50000 : 0;
    program.harmless = scenario.masks.delayMs < 20 && mode < 2;
}

inline void readFault(Feed& feed, Program& program) {
    const auto kind = static_cast<diagsim::RequestKind>(feed.byte() % diagsim::kRequestKinds);
    diagsim::Fault& fault = program.scenario.requests[diagsim::requestKey(kind)].emplace_back();
    fault.on = {feed.byte() % 4 + 1};
    const uint8_t effect = feed.byte() % 8, amount = feed.byte();
    using Placement = diagsim::Fault::Placement;
    if (effect < 2) fault.delayMs = amount + 150 * effect;
    if (effect == 2) fault.logInFront = amount % 2 ? Placement::kOwnBuffer : Placement::kSameBuffer;
    fault.drop = effect == 3;
    fault.refuse = effect == 4;
    if (effect == 5) fault.writeResult = -1;
    fault.hangUp = effect == 6;
    fault.failRead = effect == 7;
    program.delays += fault.delayMs;
    program.harmless &= effect < 3;
    program.writesFail |= effect == 5;
}

inline Program readProgram(Feed feed) {
    constexpr size_t kMaxSteps = 24;
    Program program;
    readDriver(feed, program);
    for (int faults = feed.byte() % 8; faults > 0; --faults)
        readFault(feed, program);
    program.harmless &= program.delays < kAnswerMs;
    while (!feed.empty() && program.steps.size() < kMaxSteps) {
        const uint8_t bits = feed.byte();
        const int pause = (bits & 64) != 0 ? feed.byte() : 0;
        program.steps.push_back({bits >> 4 & 1, static_cast<Act>((bits & 15) % kActs),
                                 (bits & 32) != 0, virtual_time::Milliseconds(pause)});
    }
    return program;
}

}  // namespace fuzz
